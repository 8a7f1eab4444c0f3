#pragma once

// Displays in HDR, or not, for systems without: stands in for what the first adapter answers of its
// outputs and for what swap chains do with colour spaces, and fails the calls that a test wants to
// fail. For swap chains of one generation at a time. One thread.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Test {

class HDRDisplay {
public:
    enum Call { CheckColorSpace, SetColorSpace, SetMetadata };

    // One display, in HDR.
    explicit HDRDisplay(bool isDirect3D12) : m_swapChain(MakeSwapChain(isDirect3D12)) {
        Stand<&IDXGISwapChain3::CheckColorSpaceSupport>(
            CheckColorSpace, [](auto, auto*, auto, UINT* support) {
                *support = DXGI_SWAP_CHAIN_COLOR_SPACE_SUPPORT_FLAG_PRESENT;
                return S_OK;
            });
        Stand<&IDXGISwapChain3::SetColorSpace1>(SetColorSpace,
                                                [this](auto, auto*, DXGI_COLOR_SPACE_TYPE space) {
                                                    colorSpace = space;
                                                    return S_OK;
                                                });
        Stand<&IDXGISwapChain4::SetHDRMetaData>(
            SetMetadata, [this](auto, auto*, auto, UINT size, void* data) {
                const auto* words = static_cast<const std::uint32_t*>(data);
                metadata.assign(words, words + size / sizeof(*words));
                return S_OK;
            });
    }

    void Switch(bool isHDR) { outputs = {{kEverywhere, isHDR}}; }
    // The next calls answer E_ACCESSDENIED.
    void Fail(Call call, int times) { m_failures[call] = times; }

    // One of the class that is stood in for, in a window that is gone.
    static CComPtr<IDXGISwapChain> MakeSwapChain(bool isDirect3D12) {
        const TestWindow window({16, 16}, SW_HIDE);
        const DXGI_SWAP_CHAIN_DESC1 desc = MakeSwapChainDesc(16, 16);
        if (!isDirect3D12) {
            return DX::D11Device::CreatePrimary()->CreateSwapChainForHwnd(window.Get(), desc);
        }
        const boost::intrusive_ptr<DX::D12CommandQueue> queue(
            new DX::D12CommandQueue(DX::D12Device::CreatePrimary(), {}));
        return queue->CreateSwapChainForHwnd(window.Get(), desc).p;
    }
    IDXGISwapChain* GetSwapChain() const { return m_swapChain; }

    static constexpr RECT kEverywhere = {-10000, -10000, 10000, 10000};
    std::vector<std::pair<RECT, bool>> outputs = {{kEverywhere, true}}; // place, whether in HDR
    unsigned sdrWhiteLevel = 0; // of the system, in 1/1000 of 80 cd/m2; 0: it does not tell
    float maxLuminance = 0.0F;
    DISPLAYCONFIG_RATIONAL refreshRate = {60, 1};

    // As last set.
    DXGI_COLOR_SPACE_TYPE colorSpace = DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
    std::vector<std::uint32_t> metadata;

private:
    static CComPtr<IDXGIAdapter1> GetAdapter() {
        return DX::DXGIFactory::Create()->GetPrimaryAdapter().Get();
    }
    static CComPtr<IDXGIOutput6> GetOutput() {
        CComPtr<IDXGIOutput> output;
        GetAdapter()->EnumOutputs(0, &output);
        return Platform::Query<IDXGIOutput6>(output);
    }

    // In the place of a method: succeeds unless it is to fail.
    template <auto method>
    void Stand(Call call, const auto& succeed) {
        m_stands.push_back(std::make_shared<MethodPatch<method>>(
            m_swapChain, [this, call, succeed](auto... args) -> HRESULT {
                return m_failures[call]-- > 0 ? E_ACCESSDENIED : succeed(args...);
            }));
    }

    CComPtr<IDXGISwapChain> m_swapChain;
    std::array<int, 3> m_failures = {};
    std::vector<std::shared_ptr<void>> m_stands;
    std::map<void*, std::size_t> m_indices; // of outputs that were enumerated
    wchar_t m_described = 0;                // the first letter of the last one's name
    // The real output stands for each.
    MethodPatch<&IDXGIAdapter::EnumOutputs> m_enumOutputs{
        GetAdapter(), [this](auto original, auto* self, UINT index, IDXGIOutput** out) {
            if (index >= outputs.size()) {
                return DXGI_ERROR_NOT_FOUND;
            }
            const HRESULT result = original(self, 0, out);
            m_indices[*out] = index;
            return result;
        }};
    MethodPatch<&IDXGIOutput::GetDesc> m_getDesc{
        GetOutput(), [this](auto original, auto* self, DXGI_OUTPUT_DESC* desc) {
            const HRESULT result = original(self, desc);
            desc->DesktopCoordinates = outputs.at(m_indices[self]).first;
            // NOLINTNEXTLINE(performance-no-int-to-ptr): a number will do
            desc->Monitor = reinterpret_cast<HMONITOR>(m_indices[self] + 1);
            m_described = desc->DeviceName[0] = static_cast<wchar_t>(L'1' + m_indices[self]);
            return result;
        }};
    MethodPatch<&IDXGIOutput6::GetDesc1> m_getDesc1{
        GetOutput(), [this](auto original, auto* self, DXGI_OUTPUT_DESC1* desc) {
            const HRESULT result = original(self, desc);
            desc->ColorSpace = outputs.at(m_indices[self]).second
                                   ? DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020
                                   : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
            desc->MaxLuminance = maxLuminance;
            return result;
        }};
    MethodPatch<0, decltype(QueryDisplayConfig)> m_query{
        FindImport(L"NorvexDX.dll", "QueryDisplayConfig"),
        [this](auto original, auto flags, auto* count, auto* paths, auto... rest) {
            const LONG result = original(flags, count, paths, rest...);
            paths->targetInfo.refreshRate = refreshRate;
            return result;
        }};
    // Each output has the one real path.
    MethodPatch<0, decltype(DisplayConfigGetDeviceInfo)> m_getInfo{
        FindImport(L"NorvexDX.dll", "DisplayConfigGetDeviceInfo"),
        [this](auto original, auto* header) -> LONG {
            const LONG result = original(header);
            if (header->type == DISPLAYCONFIG_DEVICE_INFO_GET_SOURCE_NAME) {
                reinterpret_cast<DISPLAYCONFIG_SOURCE_DEVICE_NAME*>(header)->viewGdiDeviceName[0] =
                    m_described;
            }
            if (header->type != DISPLAYCONFIG_DEVICE_INFO_GET_SDR_WHITE_LEVEL) {
                return result;
            }
            reinterpret_cast<DISPLAYCONFIG_SDR_WHITE_LEVEL*>(header)->SDRWhiteLevel = sdrWhiteLevel;
            return sdrWhiteLevel != 0 ? ERROR_SUCCESS : ERROR_NOT_SUPPORTED;
        }};
};

} // namespace Norvex::Test
