#pragma once

// Shaders compiled at run time from HLSL text. There is no cache: every construction compiles.
// Shader objects are immutable, held in std::shared_ptr, any thread. The target is the one of the
// generation's lowest feature level, whatever the device offers: vs_4_0 and ps_4_0 for Direct3D 11,
// vs_5_0 and ps_5_0 for Direct3D 12, which takes bytecode as it is. Throws DirectX11Exception or
// DirectX12Exception.

#include <memory>
#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"

namespace Norvex::DX {

class D11Device;

class NORVEX_DX_API D3ShaderBytecode {
public:
    // The entry point that the shader was compiled from.
    const std::string& GetName() const { return m_name; }
    // The code.
    const CComPtr<ID3D10Blob>& GetBuffer() const { return m_blob; }

    // Whether the system's HLSL compiler was found; without it every shader construction throws.
    static bool IsCompilerLoaded();

protected:
    // Over compiled code.
    D3ShaderBytecode(std::string name, CComPtr<ID3D10Blob> blob);

private:
    std::string m_name;
    CComPtr<ID3D10Blob> m_blob;
};

class NORVEX_DX_API D11VertexShader : public D3ShaderBytecode {
public:
    // Compiles. "Failed to compile shader" with the entry point and the compiler's text, "Failed to
    // create vertex shader", "There is no device" for a null one.
    D11VertexShader(const boost::intrusive_ptr<D11Device>& device, const std::string& entryPoint,
                    const std::string& source);

    // The raw shader, borrowed.
    const CComPtr<ID3D11VertexShader>& GetShader() const { return m_shader; }

private:
    CComPtr<ID3D11VertexShader> m_shader;
};

class NORVEX_DX_API D11PixelShader : public D3ShaderBytecode {
public:
    // Compiles. "Failed to compile shader" with the entry point and the compiler's text, "Failed to
    // create pixel shader", "There is no device" for a null one.
    D11PixelShader(const boost::intrusive_ptr<D11Device>& device, const std::string& entryPoint,
                   const std::string& source);

    // The raw shader, borrowed.
    const CComPtr<ID3D11PixelShader>& GetShader() const { return m_shader; }

private:
    CComPtr<ID3D11PixelShader> m_shader;
};

class NORVEX_DX_API D12Shader : public D3ShaderBytecode {
public:
    // Compiles. "Failed to compile shader" with the entry point and the compiler's text.
    D12Shader(const std::string& entryPoint, const std::string& source, const std::string& target);

    // Compiles a vertex shader.
    static std::shared_ptr<D12Shader> CreateVertex(const std::string& entryPoint,
                                                   const std::string& source);
    // Compiles a pixel shader.
    static std::shared_ptr<D12Shader> CreatePixel(const std::string& entryPoint,
                                                  const std::string& source);

    // Points into this object's bytecode.
    D3D12_SHADER_BYTECODE GetShader() const;
};

} // namespace Norvex::DX
