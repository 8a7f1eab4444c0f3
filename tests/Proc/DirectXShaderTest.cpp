#include "Proc/DirectX/Manager/DirectXShader.h"

#include <cstring>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto kVertexSource = "float4 Vs(float2 p : POSITION) : SV_POSITION {\n"
                               "    return float4(p, 0, 1);\n"
                               "}\n";
constexpr auto kPixelSource = "float4 Ps() : SV_TARGET { return float4(1, 0, 0, 1); }\n";

// The version token that the bytecode's program begins with: kind (0 pixel, 1 vertex) << 16 | major
// << 4 | minor. 0 without a program.
std::uint32_t VersionOf(const D3ShaderBytecode& shader) {
    const std::string_view bytes(static_cast<const char*>(shader.GetBuffer()->GetBufferPointer()),
                                 shader.GetBuffer()->GetBufferSize());
    const auto chunk = std::min(bytes.find("SHEX"), bytes.find("SHDR"));
    std::uint32_t version = 0;
    if (chunk != std::string_view::npos) {
        std::memcpy(&version, bytes.data() + chunk + 8, sizeof(version)); // after name and size
    }
    return version;
}

TEST(DirectXShader, CompilesForTheTargetsOfLevel11) {
    ASSERT_TRUE(D3ShaderBytecode::IsCompilerLoaded());
    const auto vertex = D12Shader::CreateVertex("Vs", kVertexSource);
    EXPECT_EQ(vertex->GetName(), "Vs");
    EXPECT_EQ(vertex->GetShader().pShaderBytecode, vertex->GetBuffer()->GetBufferPointer());
    EXPECT_EQ(vertex->GetShader().BytecodeLength, vertex->GetBuffer()->GetBufferSize());
    EXPECT_EQ(VersionOf(*vertex), 0x10050u);
    EXPECT_EQ(VersionOf(*D12Shader::CreatePixel("Ps", kPixelSource)), 0x50u);
    EXPECT_EQ(VersionOf(D12Shader("Ps", kPixelSource, "ps_4_0")), 0x40u);
}

TEST(DirectXShader, FailureNamesTheShaderAndTellsTheError) {
    const auto thrown = [](const char* entry, const char* source, const char* target) {
        const Thrown result = ThrownBy([&] { D12Shader(entry, source, target); });
        EXPECT_EQ(result.function, "CompileShader");
        EXPECT_EQ(result.kind, "DirectX 12 exception");
        EXPECT_LT(result.result, 0);
        return result.sentence;
    };
    const std::string failed = "Failed to compile shader: shaderName = ";
    EXPECT_THAT(thrown("Broken", "float4 Broken() : SV_TARGET { return nothing; }", "ps_5_0"),
                AllOf(StartsWith(failed + "Broken\nCompile Error:\n"), HasSubstr("nothing")));
    EXPECT_THAT(thrown("Absent", kPixelSource, "ps_5_0"), StartsWith(failed + "Absent"));
    EXPECT_THAT(thrown("Ps", kPixelSource, "ps_99_0"), StartsWith(failed + "Ps"));
}

// The device's level does not matter, so that one bytecode serves every device.
TEST(D3D11ShaderTest, CompilesForTheTargetsOfLevel10) {
    const auto device = D11Device::CreatePrimary();
    ASSERT_GE(device->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_0);
    const D11VertexShader vertex(device, "Vs", kVertexSource);
    const D11PixelShader pixel(device, "Ps", kPixelSource);
    EXPECT_EQ(vertex.GetName(), "Vs");
    EXPECT_EQ(VersionOf(vertex), 0x10040u);
    EXPECT_EQ(VersionOf(pixel), 0x40u);
    EXPECT_NE(vertex.GetShader().p, nullptr);
    EXPECT_NE(pixel.GetShader().p, nullptr);
}

TEST(D3D11ShaderTest, FailuresAreOfThisGeneration) {
    const auto device = D11Device::CreatePrimary();
    const Thrown syntax = ThrownBy([&] { D11PixelShader(device, "Broken", "?"); });
    EXPECT_THAT(syntax.sentence,
                StartsWith("Failed to compile shader: shaderName = Broken\nCompile Error:\n"));
    EXPECT_EQ(syntax.function, "CompileShader");
    EXPECT_EQ(syntax.kind, "DirectX 11 exception");
    ExpectFailure11([] { D11VertexShader(nullptr, "Vs", kVertexSource); }, "There is no device",
                    "CreateVertexShader");
    ExpectFailure11([] { D11PixelShader(nullptr, "Ps", kPixelSource); }, "There is no device",
                    "CreatePixelShader");
    const FailingMethod<&ID3D11Device::CreateVertexShader> noVertex(device->Get(), E_ACCESSDENIED);
    const FailingMethod<&ID3D11Device::CreatePixelShader> noPixel(device->Get(), E_ACCESSDENIED);
    ExpectFailure11([&] { D11VertexShader(device, "Vs", kVertexSource); },
                    "Failed to create vertex shader", "CreateVertexShader", E_ACCESSDENIED);
    const auto pixel =
        ExpectFailure11([&] { D11PixelShader(device, "Ps", kPixelSource); },
                        "Failed to create pixel shader", "CreatePixelShader", E_ACCESSDENIED);
    EXPECT_THAT(pixel.details, HasSubstr("Adapter name: " + device->GetAdapterName()));
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
