#include "Proc/DirectX/Manager/DirectXShader.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

struct ShaderTargets {
    D3D_FEATURE_LEVEL level;
    const char* vertex;
    const char* pixel;
};

constexpr std::array<ShaderTargets, 6> kShaderTargets = {{
    {D3D_FEATURE_LEVEL_9_1, "vs_4_0_level_9_1", "ps_4_0_level_9_1"},
    {D3D_FEATURE_LEVEL_9_2, "vs_4_0_level_9_1", "ps_4_0_level_9_1"},
    {D3D_FEATURE_LEVEL_9_3, "vs_4_0_level_9_3", "ps_4_0_level_9_3"},
    {D3D_FEATURE_LEVEL_10_0, "vs_4_0", "ps_4_0"},
    {D3D_FEATURE_LEVEL_10_1, "vs_4_1", "ps_4_1"},
    {D3D_FEATURE_LEVEL_11_0, "vs_5_0", "ps_5_0"},
}};

// Null for a level that is not in the table.
const ShaderTargets* FindShaderTargets(D3D_FEATURE_LEVEL level) {
    if (level >= D3D_FEATURE_LEVEL_11_1) {
        level = D3D_FEATURE_LEVEL_11_0; // nothing newer than the targets of 11_0
    }
    const auto targets = std::ranges::find(kShaderTargets, level, &ShaderTargets::level);
    return targets != kShaderTargets.end() ? &*targets : nullptr;
}

template <class E>
const char* GetVertexShaderTarget(D3D_FEATURE_LEVEL level) {
    const ShaderTargets* targets = FindShaderTargets(level);
    ThrowUnless<E>(targets != nullptr, "Failed to get vertex shader target");
    return targets->vertex;
}

template <class E>
const char* GetPixelShaderTarget(D3D_FEATURE_LEVEL level) {
    const ShaderTargets* targets = FindShaderTargets(level);
    ThrowUnless<E>(targets != nullptr, "Failed to get pixel shader target");
    return targets->pixel;
}

std::string DescribeFailure(const std::string& entryPoint, ID3D10Blob* errors) {
    std::string detail = ": shaderName = " + entryPoint;
    if (errors != nullptr) {
        detail += "\nCompile Error:\n";
        detail.append(static_cast<const char*>(errors->GetBufferPointer()),
                      errors->GetBufferSize());
    }
    return detail;
}

template <class E>
CComPtr<ID3D10Blob> CompileShader(const std::string& entryPoint, const std::string& source,
                                  const std::string& target) {
    constexpr unsigned kFlags = D3DCOMPILE_ENABLE_STRICTNESS | D3DCOMPILE_OPTIMIZATION_LEVEL3;
    CComPtr<ID3D10Blob> code;
    CComPtr<ID3D10Blob> errors;
    const long result = API::GetInstance().Compile2(source.data(), source.size(), nullptr, nullptr,
                                                    nullptr, entryPoint.c_str(), target.c_str(),
                                                    kFlags, 0, 0, nullptr, 0, code, errors);
    if (FAILED(result)) {
        ThrowResult<E>(result, "Failed to compile shader" + DescribeFailure(entryPoint, errors));
    }
    return code;
}

CComPtr<ID3D11VertexShader> CreateVertexShader(const boost::intrusive_ptr<D11Device>& owner,
                                               ID3D10Blob* code) {
    ThrowUnless<DirectX11Exception>(owner != nullptr, "There is no device");
    ID3D11Device* device = owner->Get();
    CComPtr<ID3D11VertexShader> shader;
    ThrowIfFailed<DirectX11Exception>(device->CreateVertexShader(code->GetBufferPointer(),
                                                                 code->GetBufferSize(), nullptr,
                                                                 &shader),
                                      "Failed to create vertex shader", device);
    SetName(shader, "vertex shader");
    return shader;
}

CComPtr<ID3D11PixelShader> CreatePixelShader(const boost::intrusive_ptr<D11Device>& owner,
                                             ID3D10Blob* code) {
    ThrowUnless<DirectX11Exception>(owner != nullptr, "There is no device");
    ID3D11Device* device = owner->Get();
    CComPtr<ID3D11PixelShader> shader;
    ThrowIfFailed<DirectX11Exception>(device->CreatePixelShader(code->GetBufferPointer(),
                                                                code->GetBufferSize(), nullptr,
                                                                &shader),
                                      "Failed to create pixel shader", device);
    SetName(shader, "pixel shader");
    return shader;
}

} // namespace

D3ShaderBytecode::D3ShaderBytecode(std::string name, CComPtr<ID3D10Blob> blob)
    : m_name(std::move(name)),
      m_blob(std::move(blob)) {}

bool D3ShaderBytecode::IsCompilerLoaded() {
    return API::GetInstance().IsCompilerLoaded();
}

D11VertexShader::D11VertexShader(const boost::intrusive_ptr<D11Device>& device,
                                 const std::string& entryPoint, const std::string& source)
    : D3ShaderBytecode(entryPoint,
                       CompileShader<DirectX11Exception>(entryPoint, source,
                                                         GetVertexShaderTarget<DirectX11Exception>(
                                                             D11Device::GetMinFeatureLevel()))),
      m_shader(CreateVertexShader(device, GetBuffer())) {}

D11PixelShader::D11PixelShader(const boost::intrusive_ptr<D11Device>& device,
                               const std::string& entryPoint, const std::string& source)
    : D3ShaderBytecode(entryPoint,
                       CompileShader<DirectX11Exception>(entryPoint, source,
                                                         GetPixelShaderTarget<DirectX11Exception>(
                                                             D11Device::GetMinFeatureLevel()))),
      m_shader(CreatePixelShader(device, GetBuffer())) {}

D12Shader::D12Shader(const std::string& entryPoint, const std::string& source,
                     const std::string& target)
    : D3ShaderBytecode(entryPoint, CompileShader<DirectX12Exception>(entryPoint, source, target)) {}

std::shared_ptr<D12Shader> D12Shader::CreateVertex(const std::string& entryPoint,
                                                   const std::string& source) {
    return std::make_shared<D12Shader>(
        entryPoint, source,
        GetVertexShaderTarget<DirectX12Exception>(D12Device::GetMinFeatureLevel()));
}

std::shared_ptr<D12Shader> D12Shader::CreatePixel(const std::string& entryPoint,
                                                  const std::string& source) {
    return std::make_shared<D12Shader>(
        entryPoint, source,
        GetPixelShaderTarget<DirectX12Exception>(D12Device::GetMinFeatureLevel()));
}

D3D12_SHADER_BYTECODE D12Shader::GetShader() const {
    return {GetBuffer()->GetBufferPointer(), GetBuffer()->GetBufferSize()};
}

} // namespace Norvex::DX
