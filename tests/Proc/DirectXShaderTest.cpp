#include "Proc/DirectX/Manager/DirectXShader.h"

#include <string_view>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
constexpr auto kVertexSource = "float4 Vs() : SV_POSITION { return float4(1, 0, 0, 1); }\n";
constexpr auto kPixelSource = "float4 Ps() : SV_TARGET { return float4(1, 0, 0, 1); }\n";

// Major and minor, four bits each, of the model of the bytecode's program.
int ModelOf(const D3ShaderBytecode& shader) {
    const std::string_view bytes(static_cast<const char*>(shader.GetBuffer()->GetBufferPointer()),
                                 shader.GetBuffer()->GetBufferSize());
    return bytes.at(std::min(bytes.find("SHEX"), bytes.find("SHDR")) + 8); // after name and size
}

// The device's level does not matter to Direct3D 11, so that one bytecode serves every device.
TEST(D3D11ShaderTest, CompilesForLevel10) {
    const auto device = D11Device::CreatePrimary();
    EXPECT_EQ(ModelOf(D11VertexShader(device, "Vs", kVertexSource)), 0x40);
    EXPECT_EQ(ModelOf(D11PixelShader(device, "Ps", kPixelSource)), 0x40);
}

TEST(D3D11ShaderTest, FailuresNameTheShaderAndTellTheError) {
    const auto device = D11Device::CreatePrimary();
    constexpr auto kBroken = "float4 Broken() : SV_TARGET { return nothing; }";
    for (const auto& thrown : {ThrownBy([&] { D11PixelShader(device, "Broken", kBroken); }),
                               ThrownBy([&] { D12Shader::CreatePixel("Broken", kBroken); })}) {
        EXPECT_THAT(thrown.sentence,
                    testing::ContainsRegex("^Failed to compile shader: shaderName = Broken\n"
                                           "Compile Error:\n.*nothing"));
        EXPECT_EQ(thrown.function, "CompileShader");
        EXPECT_LT(thrown.result, 0);
    }
}

// Run by itself, where there is no compiler.
TEST(DirectXShaderWithoutCompiler, FailureHasNoCompilerText) {
    ASSERT_FALSE(D3ShaderBytecode::IsCompilerLoaded());
    constexpr auto kResult = static_cast<long>(0x80070505);
    ExpectFailure12([] { D12Shader::CreateVertex("Vs", kVertexSource); },
                    "Failed to compile shader: shaderName = Vs", "CompileShader", kResult);
    ExpectFailure11([] { D11PixelShader(D11Device::CreatePrimary(), "Ps", kPixelSource); },
                    "Failed to compile shader: shaderName = Ps", "CompileShader", kResult);
}

} // namespace
} // namespace Norvex::DX
