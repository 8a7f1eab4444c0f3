#pragma once

// What a call threw, in the terms of the library's exceptions.

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::Test {

struct Thrown {
    std::string sentence; // "(nothing)" when the call returned
    std::string function;
    long result = 0;     // E_FAIL when no result was carried
    std::string details; // of the result
    std::string kind;    // what()
};

// Lets other exceptions than the library's pass.
template <class Call>
Thrown ThrownBy(const Call& call) {
    try {
        call();
    } catch (const DX::DirectXException& e) {
        const auto* function = boost::get_error_info<boost::throw_function>(e);
        return {e.GetErrorDescription(), function != nullptr ? *function : "", e.GetResult(),
                e.GetResultDescription(), e.what()};
    }
    return {"(nothing)", "", 0, "", ""};
}

template <class Call>
std::string SentenceOf(const Call& call) {
    return ThrownBy(call).sentence;
}

// Expects a failure of the class that says `kind`. E_FAIL: without a result. Returns what was
// thrown.
template <class Call>
Thrown ExpectFailureOf(const char* kind, const Call& call, const std::string& sentence,
                       const std::string& function, long result) {
    const Thrown thrown = ThrownBy(call);
    EXPECT_EQ(thrown.sentence, sentence);
    EXPECT_EQ(thrown.function, function) << sentence;
    EXPECT_EQ(thrown.result, result) << sentence;
    EXPECT_EQ(thrown.kind, kind) << sentence;
    return thrown;
}

// Of the code of neither generation.
template <class Call>
Thrown ExpectFailure(const Call& call, const std::string& sentence, const std::string& function,
                     long result = E_FAIL) {
    return ExpectFailureOf("DirectX exception", call, sentence, function, result);
}

template <class Call>
Thrown ExpectFailure11(const Call& call, const std::string& sentence, const std::string& function,
                       long result = E_FAIL) {
    return ExpectFailureOf("DirectX 11 exception", call, sentence, function, result);
}

template <class Call>
Thrown ExpectFailure12(const Call& call, const std::string& sentence, const std::string& function,
                       long result = E_FAIL) {
    return ExpectFailureOf("DirectX 12 exception", call, sentence, function, result);
}

} // namespace Norvex::Test
