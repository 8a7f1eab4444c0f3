#pragma once

// What a call threw, in the terms of the library's exceptions.

#include <ostream>
#include <string>

#include "Proc/DirectX/Manager/Exceptions.h"

namespace Norvex::Test {

struct Thrown {
    std::string sentence; // "(nothing)" when the call returned
    std::string function;
    long result = 0; // E_FAIL when no result was carried
};

// Lets other exceptions than the library's pass.
template <class Call>
Thrown ThrownBy(const Call& call) {
    try {
        call();
    } catch (const DX::DirectXException& e) {
        const auto* function = boost::get_error_info<boost::throw_function>(e);
        return {e.GetErrorDescription(), function != nullptr ? *function : "", e.GetResult()};
    }
    return {"(nothing)", "", 0};
}

template <class Call>
std::string SentenceOf(const Call& call) {
    return ThrownBy(call).sentence;
}

} // namespace Norvex::Test
