#pragma once

// What a call threw, in the terms of the library's exceptions.

#include <ostream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::Test {

struct Thrown {
    std::string sentence; // "(nothing)" when the call returned
    std::string function;
    long result = 0;  // E_FAIL when no result was carried
    std::string kind; // what()
    bool hasAdapter = false;
    bool hasMemory = false; // what there was of it
};

// Lets other exceptions than the library's pass.
template <class Call>
Thrown ThrownBy(const Call& call) {
    try {
        call();
    } catch (const DX::DirectXException& e) {
        const auto* function = boost::get_error_info<boost::throw_function>(e);
        const auto* result = boost::get_error_info<ErrorResult>(e);
        return {e.GetErrorDescription(),
                function != nullptr ? *function : "",
                e.GetResult(),
                e.what(),
                result != nullptr && result->adapter != nullptr,
                result != nullptr && result->memoryInfo != nullptr};
    }
    return {"(nothing)", "", 0, ""};
}

template <class Call>
std::string SentenceOf(const Call& call) {
    return ThrownBy(call).sentence;
}

// Expects a failure of the class that says `kind`, by default of the code of neither generation.
// E_FAIL: without a result.
template <class Call>
void ExpectFailure(const Call& call, const std::string& sentence, const std::string& function,
                   long result = E_FAIL, const std::string& kind = "DirectX exception") {
    const Thrown thrown = ThrownBy(call);
    EXPECT_EQ(thrown.sentence, sentence);
    EXPECT_EQ(thrown.function, function) << sentence;
    EXPECT_EQ(thrown.result, result) << sentence;
    EXPECT_EQ(thrown.kind, kind) << sentence;
}

template <class Call>
void ExpectFailure11(const Call& call, const std::string& sentence, const std::string& function,
                     long result = E_FAIL) {
    ExpectFailure(call, sentence, function, result, "DirectX 11 exception");
}

template <class Call>
void ExpectFailure12(const Call& call, const std::string& sentence, const std::string& function,
                     long result = E_FAIL) {
    ExpectFailure(call, sentence, function, result, "DirectX 12 exception");
}

// The name of the last function that is called in the text of an expression, which ends with it.
inline std::string FunctionIn(std::string_view call) {
    std::size_t end = call.size();
    int depth = 0;
    do {
        --end;
        depth += call[end] == ')' ? 1 : call[end] == '(' ? -1 : 0;
    } while (depth > 0);
    const std::size_t begin = call.find_last_of(">.: ", end) + 1;
    return std::string(call.substr(begin, end - begin));
}

// Expects the call, which comes last, to be refused by the function that it names, without a
// result.
#define NORVEX_EXPECT_REFUSED12(sentence, ...)                                                     \
    Norvex::Test::ExpectFailure12([&] { __VA_ARGS__; }, sentence,                                  \
                                  Norvex::Test::FunctionIn(#__VA_ARGS__))
#define NORVEX_EXPECT_REFUSED11(sentence, ...)                                                     \
    Norvex::Test::ExpectFailure11([&] { __VA_ARGS__; }, sentence,                                  \
                                  Norvex::Test::FunctionIn(#__VA_ARGS__))

} // namespace Norvex::Test
