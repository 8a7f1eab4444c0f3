#include "Proc/DirectX/Manager/DirectXShader.h"

#include <cstring>
#include <optional>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ExpectFailure11;
using Norvex::Test::FailingMethod;
using Norvex::Test::Thrown;
using Norvex::Test::ThrownBy;
namespace Slot = Norvex::Test::Slot;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto kVertexSource = "float4 VsMain(float2 p : POSITION) : SV_POSITION {\n"
                               "    return float4(p, 0, 1);\n"
                               "}\n";
constexpr auto kPixelSource = "float4 PsMain() : SV_TARGET { return float4(1, 0, 0, 1); }\n";

// The version token that the bytecode's program begins with: kind (0 pixel, 1 vertex) << 16 | major
// << 4 | minor.
std::optional<std::uint32_t> ProgramVersion(const D3ShaderBytecode& shader) {
    const auto* bytes = static_cast<const unsigned char*>(shader.GetBuffer()->GetBufferPointer());
    const auto wordAt = [bytes](std::size_t offset) {
        std::uint32_t word = 0;
        std::memcpy(&word, bytes + offset, sizeof(word));
        return word;
    };
    constexpr std::size_t kChunkCountOffset = 28;
    constexpr std::size_t kWordSize = 4;
    for (std::uint32_t chunk = 0; chunk < wordAt(kChunkCountOffset); ++chunk) {
        const std::size_t offset = wordAt(kChunkCountOffset + kWordSize * (chunk + 1));
        if (std::memcmp(bytes + offset, "SHEX", 4) == 0 ||
            std::memcmp(bytes + offset, "SHDR", 4) == 0) {
            return wordAt(offset + 8);
        }
    }
    return std::nullopt;
}

TEST(DirectXShader, CompilesForTheTargetsOfLevel11) {
    ASSERT_TRUE(D3ShaderBytecode::IsCompilerLoaded());
    const auto vertex = D12Shader::CreateVertex("VsMain", kVertexSource);
    const auto pixel = D12Shader::CreatePixel("PsMain", kPixelSource);
    EXPECT_EQ(vertex->GetName(), "VsMain");
    EXPECT_EQ(pixel->GetName(), "PsMain");
    EXPECT_EQ(vertex->GetShader().pShaderBytecode, vertex->GetBuffer()->GetBufferPointer());
    EXPECT_EQ(vertex->GetShader().BytecodeLength, vertex->GetBuffer()->GetBufferSize());
    EXPECT_THAT(ProgramVersion(*vertex), testing::Optional(0x10050u));
    EXPECT_THAT(ProgramVersion(*pixel), testing::Optional(0x50u));
    const D12Shader older("PsMain", kPixelSource, "ps_4_0");
    EXPECT_THAT(ProgramVersion(older), testing::Optional(0x40u));
}

TEST(DirectXShader, FailureNamesTheShaderAndTellsTheError) {
    const auto thrown = [](const char* entry, const char* source, const char* target) {
        const Thrown result = ThrownBy([&] { D12Shader(entry, source, target); });
        EXPECT_EQ(result.function, "CompileShader");
        EXPECT_EQ(result.kind, "DirectX 12 exception");
        EXPECT_LT(result.result, 0);
        return result.sentence;
    };
    EXPECT_THAT(thrown("Broken", "float4 Broken() : SV_TARGET { return nothing; }", "ps_5_0"),
                AllOf(StartsWith("Failed to compile shader: shaderName = Broken\nCompile Error:\n"),
                      HasSubstr("nothing")));
    EXPECT_THAT(thrown("Absent", kPixelSource, "ps_5_0"),
                StartsWith("Failed to compile shader: shaderName = Absent"));
    EXPECT_THAT(thrown("PsMain", kPixelSource, "ps_99_0"),
                StartsWith("Failed to compile shader: shaderName = PsMain"));
}

// The device's level does not matter, so that one bytecode serves every device.
TEST(D3D11ShaderTest, CompilesForTheTargetsOfLevel10) {
    const auto device = D11Device::CreatePrimary();
    ASSERT_GE(device->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_0);
    const D11VertexShader vertex(device, "VsMain", kVertexSource);
    const D11PixelShader pixel(device, "PsMain", kPixelSource);
    EXPECT_EQ(vertex.GetName(), "VsMain");
    EXPECT_THAT(ProgramVersion(vertex), testing::Optional(0x10040u));
    EXPECT_THAT(ProgramVersion(pixel), testing::Optional(0x40u));
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
    ExpectFailure11([] { D11VertexShader(nullptr, "VsMain", kVertexSource); }, "There is no device",
                    "CreateVertexShader");
    ExpectFailure11([] { D11PixelShader(nullptr, "PsMain", kPixelSource); }, "There is no device",
                    "CreatePixelShader");

    const FailingMethod<Slot::kDevice11CreateVertexShader> noVertex(device->Get(), E_ACCESSDENIED);
    const FailingMethod<Slot::kDevice11CreatePixelShader> noPixel(device->Get(), E_ACCESSDENIED);
    ExpectFailure11([&] { D11VertexShader(device, "VsMain", kVertexSource); },
                    "Failed to create vertex shader", "CreateVertexShader", E_ACCESSDENIED);
    const auto pixel =
        ExpectFailure11([&] { D11PixelShader(device, "PsMain", kPixelSource); },
                        "Failed to create pixel shader", "CreatePixelShader", E_ACCESSDENIED);
    EXPECT_THAT(pixel.details, HasSubstr("Adapter name: " + device->GetAdapterName()));
}

// Run by itself, where there is no compiler.
TEST(DirectXShaderWithoutCompiler, FailureHasNoCompilerText) {
    ASSERT_FALSE(D3ShaderBytecode::IsCompilerLoaded());
    const Thrown thrown = ThrownBy([] { D12Shader::CreateVertex("VsMain", kVertexSource); });
    EXPECT_EQ(thrown.sentence, "Failed to compile shader: shaderName = VsMain");
    EXPECT_EQ(thrown.function, "CompileShader");
    EXPECT_EQ(thrown.result, static_cast<long>(0x80070505));
    ExpectFailure11([] { D11PixelShader(D11Device::CreatePrimary(), "PsMain", kPixelSource); },
                    "Failed to compile shader: shaderName = PsMain", "CompileShader",
                    thrown.result);
}

} // namespace
} // namespace Norvex::DX
