#include "apps/norvexdx/console/Failure.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Host/Exception.h"
#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::App {

namespace {

// As HResult is stored on an exception.
using CarriedResult = boost::error_info<TagHResult, HResultValue>;

// What a file says of itself may be in a line that goes to a terminal.
std::string WithoutControls(std::string text) {
    constexpr char kDelete = 0x7F;
    const auto isControl = [](char c) { return (c >= 0 && c < ' ') || c == kDelete; };
    std::ranges::replace_if(text, isControl, ' ');
    return text;
}

std::string OnOneLine(std::string text) {
    text = WithoutControls(std::move(text));
    text.erase(
        std::unique(text.begin(), text.end(), [](char a, char b) { return a == ' ' && b == ' '; }),
        text.end());
    return text;
}

std::string Describe(const DX::DirectXException& exception) {
    std::string line = exception.GetErrorDescription();
    if (exception.GetResult() == E_OUTOFMEMORY) {
        return line + ": there is not enough memory";
    }
    if (boost::get_error_info<CarriedResult>(exception) != nullptr) {
        line += " (" + exception.GetResultDescription() + ")";
    }
    return OnOneLine(std::move(line));
}

std::string Describe(const Exception& exception) {
    const std::string* sentence = boost::get_error_info<ErrorDescription>(exception);
    return OnOneLine(sentence != nullptr ? *sentence : exception.what());
}

} // namespace

Failure::Failure(const std::string& line, ExitCode exitCode)
    : std::runtime_error(WithoutControls(line)),
      m_exitCode(exitCode) {}

FailureReport DescribeFailure(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const Failure& failure) {
        return {failure.what(), failure.GetExitCode(), true};
    } catch (const DX::DirectXException& failure) {
        return {Describe(failure), ExitCode::Failure, false};
    } catch (const Exception& failure) {
        return {Describe(failure), ExitCode::Failure, false};
    } catch (const std::bad_alloc&) {
        return {"there is not enough memory", ExitCode::Failure, false};
    } catch (const std::exception& failure) {
        return {"unexpected failure: " + OnOneLine(failure.what()), ExitCode::Failure, false};
    } catch (...) {
        return {"unexpected failure of an unknown kind", ExitCode::Failure, false};
    }
}

// Our own failures name the file that they are about.
std::string DescribeFailureOf(const std::string& file, const std::exception_ptr& exception) {
    const FailureReport report = DescribeFailure(exception);
    return report.isOurs ? report.line : file + ": " + report.line;
}

} // namespace Norvex::App
