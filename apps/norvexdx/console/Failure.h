#pragma once

// How the program fails: a Failure carries the one line that the user reads and the exit code.
// Whatever else is thrown becomes such a line in DescribeFailure. Plain values, any thread.

#include <exception>
#include <stdexcept>
#include <string>

namespace Norvex::App {

enum class ExitCode : int { Success = 0, Failure = 1, WrongUsage = 2 };

class Failure : public std::runtime_error {
public:
    // One line of UTF-8, without full stop and without the program's name; control characters in it
    // become spaces.
    explicit Failure(const std::string& line, ExitCode exitCode = ExitCode::Failure);

    ExitCode GetExitCode() const { return m_exitCode; }

private:
    ExitCode m_exitCode;
};

struct FailureReport {
    std::string line;
    ExitCode exitCode = ExitCode::Failure;
    bool isOurs = false; // a Failure, whose line names what it is about
};

// The line for any exception: a Failure's own; the sentence and the result of the library's; words
// for lack of memory.
FailureReport DescribeFailure(const std::exception_ptr& exception);
// The line of what failed while a file was worked on; it names the file.
std::string DescribeFailureOf(const std::string& file, const std::exception_ptr& exception);

} // namespace Norvex::App
