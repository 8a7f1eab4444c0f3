#pragma once

// For tests that are the same on both generations: the parameter, and its name.

#include <string>

#include <gtest/gtest.h>

namespace Norvex::Test {

enum class Generation { Direct3D11, Direct3D12 };

inline std::string NameOf(const testing::TestParamInfo<Generation>& generation) {
    return generation.param == Generation::Direct3D11 ? "Direct3D11" : "Direct3D12";
}

inline auto BothGenerations() {
    return testing::Values(Generation::Direct3D11, Generation::Direct3D12);
}

} // namespace Norvex::Test
