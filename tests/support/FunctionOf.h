#pragma once

// The plain function of a lambda without captures. (A plus before the lambda is ambiguous to some
// of Microsoft's compilers, which offer a conversion for each calling convention.)

namespace Norvex::Test {

template <class Lambda, class Result, class... Parameters>
auto* FunctionOf(const Lambda& lambda, Result (Lambda::*)(Parameters...) const) {
    return static_cast<Result (*)(Parameters...)>(lambda);
}

template <class Lambda>
auto* FunctionOf(const Lambda& lambda) {
    return FunctionOf(lambda, &Lambda::operator());
}

} // namespace Norvex::Test
