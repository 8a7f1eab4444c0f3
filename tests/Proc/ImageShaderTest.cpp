// The image shaders compile without a word on every compiler and target. What they compute is
// DrawTest's.

#include <string>

#include <gtest/gtest.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"

namespace Norvex::DX {
namespace {

// What the compiler has to say; "failed" when it only fails.
std::string MessagesOf(const std::string& text, const char* entry, const std::string& target) {
    constexpr unsigned kFlags = D3DCOMPILE_ENABLE_STRICTNESS | D3DCOMPILE_OPTIMIZATION_LEVEL3;
    CComPtr<ID3DBlob> code;
    CComPtr<ID3DBlob> errors;
    const HRESULT result = D3DCompile2(text.data(), text.size(), nullptr, nullptr, nullptr, entry,
                                       target.c_str(), kFlags, 0, 0, nullptr, 0, &code, &errors);
    if (errors != nullptr) {
        return static_cast<const char*>(errors->GetBufferPointer());
    }
    return SUCCEEDED(result) ? "" : "failed";
}

TEST(ImageShaderTest, CompilesWithoutAWarning) {
    for (const std::string model : {"4_0", "5_0"}) {
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetVertexShader(), "VSMain", "vs_" + model), "");
        EXPECT_EQ(MessagesOf(D3ImageRenderer::GetPixelShader(), "PSMain", "ps_" + model), "");
    }
}

} // namespace
} // namespace Norvex::DX
