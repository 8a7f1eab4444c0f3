#pragma once

// Gateway to the system entry points that are loaded at run time: the newer DXGI factory, Direct3D
// 12, the HLSL compiler, the DXGI debug interface. One instance per process, made on first use;
// what is missing then stays missing. Nothing here throws: a missing entry point answers
// E_DELAY_LOAD_FAILED and the caller decides. Any thread.

#include <optional>

#include "Platform/ComPtr.h"
#include "Platform/Direct3D.h"
#include "Platform/Export.h"

namespace Norvex::DX {

class NORVEX_DX_API API {
public:
    // The answer of every forwarding call whose entry point is missing (Win32 error 1285 as a
    // result code).
    static const long E_DELAY_LOAD_FAILED; // NOLINT(readability-identifier-naming): as the system's
    // The Direct3D 12 SDK version that a host executable exporting D3D12SDKVersion must declare;
    // another aborts the process.
    static constexpr unsigned kRequiredSDKVersion = 614;

    // Loads the libraries on the first call. Logs and aborts when the host declares a wrong SDK
    // version.
    static API& GetInstance();

    API(const API&) = delete;
    API& operator=(const API&) = delete;

    // As of CreateDXGIFactory2.
    long CreateFactory2(unsigned flags, CComPtr<IDXGIFactory2>& out);
    // Also reads the version of the Direct3D 12 runtime (D3D12SDKVersion), which is mapped by this
    // call.
    long CreateDevice(IDXGIAdapter1* adapter, D3D_FEATURE_LEVEL level, CComPtr<ID3D12Device>& out);
    // Arguments as of D3DCompile2.
    long Compile2(const void* src, size_t size, const char* sourceName,
                  const D3D_SHADER_MACRO* defines, ID3DInclude* include, const char* entry,
                  const char* target, unsigned flags1, unsigned flags2, unsigned secondaryFlags,
                  const void* secondaryData, size_t secondaryDataSize, CComPtr<ID3D10Blob>& code,
                  CComPtr<ID3D10Blob>& errors);
    // Of the debug layer, where the system has it.
    long GetDebugInterface(CComPtr<ID3D12Debug>& out);
    // Of the debug layer, where the system has it.
    long GetDebugInterface(CComPtr<IDXGIDebug>& out);
    // maxVersion 1.1 or 1.2: the description as it is, in its own version; its maker sees to it
    // that the device takes that one. 1.0, and any where the system serialises no other: newer
    // descriptions are converted, dropping the flags that 1.0 does not know. Else E_INVALIDARG.
    long SerializeRootSignature(const D3D12_VERSIONED_ROOT_SIGNATURE_DESC* desc,
                                D3D_ROOT_SIGNATURE_VERSION maxVersion, CComPtr<ID3D10Blob>& blob,
                                CComPtr<ID3D10Blob>& errors);

    // Version of the loaded Direct3D 12 runtime; read once per process, empty when it is not a
    // redistributable one or when no device was created before the first call.
    std::optional<unsigned> D3D12SDKVersion();

    // Windows 10 or later, and d3d12.dll with all four entry points.
    bool IsD12Loaded() const { return m_isD12Loaded; }
    // Whether the system has d3dcompiler_47.dll.
    bool IsCompilerLoaded() const { return m_compile2 != nullptr; }
    // Whether the system has DXGI 1.3.
    bool IsFactory2Available() const { return m_createFactory2 != nullptr; }
    // Whether a graphics debugger has the process and offers IDXGraphicsAnalysis.
    bool HasGraphicsAnalysis() const;
    // As Windows itself says, whatever the host declares.
    bool IsWindows10OrGreater() const { return m_isWindows10OrGreater; }

private:
    API();
    ~API();

    void ReadHostDeclaration();
    void ResolveEntryPoints();
    void EnforceHostDeclaration() const;
    void ReadLoadedSDKVersion();

    HMODULE m_dxgi = nullptr;
    HMODULE m_compiler = nullptr;
    HMODULE m_dxgiDebug = nullptr;
    bool m_isWindows10OrGreater = false;
    HMODULE m_d3d12 = nullptr;
    unsigned m_requiredSDKVersion = 0;
    bool m_hasRequiredSDKVersion = false;
    bool m_isD12Loaded = false;
    INIT_ONCE m_loadedSDKVersionOnce = INIT_ONCE_STATIC_INIT;
    std::optional<unsigned> m_loadedSDKVersion;

    decltype(&::CreateDXGIFactory2) m_createFactory2 = nullptr;
    decltype(&::D3DCompile2) m_compile2 = nullptr;
    decltype(&::D3D12CreateDevice) m_d12CreateDevice = nullptr;
    HRESULT(WINAPI* m_dxgiGetDebugInterface)(REFIID, void**) = nullptr;
    HRESULT(WINAPI* m_dxgiGetDebugInterface1)(UINT, REFIID, void**) = nullptr;
    decltype(&::D3D12GetDebugInterface) m_d12GetDebugInterface = nullptr;
    decltype(&::D3D12SerializeRootSignature) m_d12SerializeRootSignature = nullptr;
    decltype(&::D3D12SerializeVersionedRootSignature) m_d12SerializeVersionedRootSignature =
        nullptr;
};

} // namespace Norvex::DX
