#include "Proc/DirectX/Manager/API.h"

#include <cstdlib>

#include <glog/logging.h>

namespace Norvex::DX {

namespace {

constexpr unsigned kWindows10 = 10;
constexpr unsigned long kErrorDelayLoadFailed = 1285; // Win32: a delay-loaded function is missing
// Of IDXGraphicsAnalysis, whose header not every toolchain has.
constexpr GUID kGraphicsAnalysis = {
    0x9f251514, 0x9d4d, 0x4902, {0x9d, 0x60, 0x18, 0x98, 0x8a, 0xb7, 0xd4, 0xb5}};

template <class Function>
void Resolve(HMODULE module, const char* name, Function& function) {
    if (module != nullptr) {
        function =
            reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    }
}

// The unsigned value that a module exports as a variable.
std::optional<unsigned> ReadExportedValue(HMODULE module, const char* name) {
    const unsigned* value = nullptr;
    Resolve(module, name, value);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

// GetVersionEx answers by the manifest of the executable; this does not.
bool ReadIsWindows10OrGreater() {
    LONG(WINAPI * getVersion)(RTL_OSVERSIONINFOW*) = nullptr;
    Resolve(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion", getVersion);
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    return getVersion != nullptr && getVersion(&version) == 0 &&
           version.dwMajorVersion >= kWindows10;
}

void FreeIfLoaded(HMODULE module) {
    if (module != nullptr) {
        FreeLibrary(module);
    }
}

} // namespace

const long API::E_DELAY_LOAD_FAILED = HRESULT_FROM_WIN32(kErrorDelayLoadFailed);

API& API::GetInstance() {
    static API instance;
    return instance;
}

API::API()
    : m_dxgi(LoadLibraryW(L"dxgi.dll")),
      m_compiler(LoadLibraryW(L"d3dcompiler_47.dll")),
      m_dxgiDebug(LoadLibraryW(L"dxgidebug.dll")),
      m_isWindows10OrGreater(ReadIsWindows10OrGreater()),
      m_d3d12(m_isWindows10OrGreater ? LoadLibraryW(L"d3d12.dll") : nullptr) {
    ReadHostDeclaration();
    ResolveEntryPoints();
    EnforceHostDeclaration();
}

API::~API() {
    FreeIfLoaded(m_d3d12);
    FreeIfLoaded(m_dxgiDebug);
    FreeIfLoaded(m_compiler);
    FreeIfLoaded(m_dxgi);
}

void API::ReadHostDeclaration() {
    const auto declared = ReadExportedValue(GetModuleHandleW(nullptr), "D3D12SDKVersion");
    m_requiredSDKVersion = declared.value_or(0);
    m_hasRequiredSDKVersion = declared.has_value();
}

void API::ResolveEntryPoints() {
    Resolve(m_dxgi, "CreateDXGIFactory2", m_createFactory2);
    Resolve(m_dxgi, "DXGIGetDebugInterface1", m_dxgiGetDebugInterface1);
    Resolve(m_compiler, "D3DCompile2", m_compile2);
    Resolve(m_dxgiDebug, "DXGIGetDebugInterface", m_dxgiGetDebugInterface);
    Resolve(m_d3d12, "D3D12CreateDevice", m_d12CreateDevice);
    Resolve(m_d3d12, "D3D12GetDebugInterface", m_d12GetDebugInterface);
    Resolve(m_d3d12, "D3D12SerializeRootSignature", m_d12SerializeRootSignature);
    Resolve(m_d3d12, "D3D12SerializeVersionedRootSignature", m_d12SerializeVersionedRootSignature);
    m_isD12Loaded = m_d3d12 != nullptr && m_d12CreateDevice != nullptr &&
                    m_d12GetDebugInterface != nullptr && m_d12SerializeRootSignature != nullptr &&
                    m_d12SerializeVersionedRootSignature != nullptr;
}

void API::EnforceHostDeclaration() const {
    if (!m_isD12Loaded || !m_hasRequiredSDKVersion) {
        return;
    }
    if (m_requiredSDKVersion != kRequiredSDKVersion) {
        LOG(ERROR) << "The application is using the wrong DirectX 12 version";
        std::abort();
    }
    LOG(INFO) << "Required DirectX 12 library version: " << m_requiredSDKVersion;
}

long API::CreateFactory2(unsigned flags, CComPtr<IDXGIFactory2>& out) {
    if (m_createFactory2 == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    return m_createFactory2(flags, IID_PPV_ARGS(&out));
}

long API::CreateDevice(IDXGIAdapter1* adapter, D3D_FEATURE_LEVEL level,
                       CComPtr<ID3D12Device>& out) {
    if (m_d12CreateDevice == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    const long result = m_d12CreateDevice(adapter, level, IID_PPV_ARGS(&out));
    D3D12SDKVersion();
    return result;
}

long API::Compile2(const void* src, size_t size, const char* sourceName,
                   const D3D_SHADER_MACRO* defines, ID3DInclude* include, const char* entry,
                   const char* target, unsigned flags1, unsigned flags2, unsigned secondaryFlags,
                   const void* secondaryData, size_t secondaryDataSize, CComPtr<ID3D10Blob>& code,
                   CComPtr<ID3D10Blob>& errors) {
    if (m_compile2 == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    return m_compile2(src, size, sourceName, defines, include, entry, target, flags1, flags2,
                      secondaryFlags, secondaryData, secondaryDataSize, &code, &errors);
}

long API::GetDebugInterface(CComPtr<ID3D12Debug>& out) {
    if (m_d12GetDebugInterface == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    return m_d12GetDebugInterface(IID_PPV_ARGS(&out));
}

long API::GetDebugInterface(CComPtr<IDXGIDebug>& out) {
    if (m_dxgiGetDebugInterface == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    return m_dxgiGetDebugInterface(IID_PPV_ARGS(&out));
}

bool API::HasGraphicsAnalysis() const {
    CComPtr<IUnknown> analysis;
    return m_dxgiGetDebugInterface1 != nullptr &&
           SUCCEEDED(m_dxgiGetDebugInterface1(0, kGraphicsAnalysis,
                                              reinterpret_cast<void**>(&analysis))) &&
           analysis != nullptr;
}

std::optional<unsigned> API::D3D12SDKVersion() {
    BOOL pending = FALSE;
    if (!InitOnceBeginInitialize(&m_loadedSDKVersionOnce, 0, &pending, nullptr)) {
        std::abort();
    }
    if (pending) {
        ReadLoadedSDKVersion();
        if (!InitOnceComplete(&m_loadedSDKVersionOnce, 0, nullptr)) {
            std::abort();
        }
    }
    return m_loadedSDKVersion;
}

void API::ReadLoadedSDKVersion() {
    m_loadedSDKVersion = ReadExportedValue(GetModuleHandleW(L"D3D12Core.dll"), "D3D12SDKVersion");
    const unsigned loaded = m_loadedSDKVersion.value_or(0);
    LOG(INFO) << "Current DirectX 12 library version: " << loaded;
    if (m_hasRequiredSDKVersion && loaded < m_requiredSDKVersion) {
        LOG(ERROR) << "An older version of the DirectX 12 library was loaded";
    }
}

} // namespace Norvex::DX
