#pragma once

// Displays in HDR, or not, for systems without: stands in for what the first adapter answers of its
// outputs and for what swap chains do with colour spaces; counts the calls and fails those that a
// test wants to fail. For swap chains of one generation at a time. One thread.

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/FakeObject.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/TestWindow.h"

namespace Norvex::Test {

class HDRDisplay {
public:
    enum Call { EnumOutputs, Resize, GetBuffer, CheckColorSpace, SetColorSpace, SetMetadata };
    using Outputs = std::vector<std::pair<RECT, bool>>; // place, whether in HDR

    // The displays that there are, in HDR.
    explicit HDRDisplay(bool isDirect3D12) : m_probe(MakeSwapChain(isDirect3D12, m_window.Get())) {}

    void Switch(bool isHDR) {
        m_isHDR = isHDR;
        m_areReal = true;
    }
    // Other displays than there are; meanwhile the system makes no devices.
    void SetOutputs(const Outputs& outputs) {
        m_areReal = false;
        m_outputs.clear();
        for (const auto& [rect, isHDR] : outputs) {
            m_outputs.push_back(std::make_unique<Output>(rect, isHDR));
        }
    }
    // One of the class that is stood in for.
    static CComPtr<IDXGISwapChain> MakeSwapChain(bool isDirect3D12, HWND window) {
        const DXGI_SWAP_CHAIN_DESC1 desc = MakeSwapChainDesc(16, 16);
        if (!isDirect3D12) {
            return DX::D11Device::CreatePrimary()->CreateSwapChainForHwnd(window, desc);
        }
        const boost::intrusive_ptr<DX::D12CommandQueue> queue(
            new DX::D12CommandQueue(DX::D12Device::CreatePrimary(), {}));
        return queue->CreateSwapChainForHwnd(window, desc).p;
    }
    IDXGISwapChain* GetSwapChain() const { return m_probe; }
    // The next calls answer E_ACCESSDENIED.
    void Fail(Call call, int times) { m_failures[call] = times; }
    int Count(Call call) const { return m_counts[call]; }

    // As last set.
    DXGI_COLOR_SPACE_TYPE colorSpace = DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
    DXGI_HDR_METADATA_TYPE metadataType = DXGI_HDR_METADATA_TYPE_NONE;
    std::vector<std::uint8_t> metadata;

private:
    class Output : public FakeObject {
    public:
        Output(const RECT& rect, bool isHDR) : m_rect(rect), m_isHDR(isHDR) {
            Set(0, [](Output* self, REFIID riid, void** out) -> HRESULT {
                return IsEqualGUID(riid, __uuidof(IDXGIOutput6)) ? self->GiveTo(out)
                                                                 : E_NOINTERFACE;
            });
            Set(7, [](Output* self, DXGI_OUTPUT_DESC* desc) -> HRESULT {
                *desc = {};
                desc->DesktopCoordinates = self->m_rect;
                return S_OK;
            });
            Set(27, [](Output* self, DXGI_OUTPUT_DESC1* desc) -> HRESULT {
                *desc = {};
                desc->ColorSpace = SpaceOf(self->m_isHDR);
                return S_OK;
            });
        }

    private:
        RECT m_rect;
        bool m_isHDR;
    };

    static CComPtr<IDXGIOutput6> GetOutput() {
        CComPtr<IDXGIOutput> output;
        CComPtr<IDXGIOutput6> output6;
        DX::DXGIFactory::Create()->GetPrimaryAdapter().Get()->EnumOutputs(0, &output);
        output.QueryInterface(&output6);
        return output6;
    }

    static DXGI_COLOR_SPACE_TYPE SpaceOf(bool isHDR) {
        return isHDR ? DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020
                     : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
    }

    // In the place of a method: succeeds unless it is to fail.
    template <class Succeed>
    struct Stand {
        HDRDisplay* display;
        Call call;
        Succeed succeed;

        template <class... Args>
        HRESULT operator()(Args... args) const {
            ++display->m_counts[call];
            return display->m_failures[call]-- > 0 ? E_ACCESSDENIED : succeed(args...);
        }
    };

    static constexpr auto kPass = [](auto original, auto... args) { return original(args...); };

    bool m_isHDR = true;
    bool m_areReal = true;
    TestWindow m_window{{16, 16}, SW_HIDE};
    std::vector<std::unique_ptr<Output>> m_outputs;
    std::array<int, 6> m_failures = {};
    std::array<int, 6> m_counts = {};
    CComPtr<IDXGISwapChain> m_probe;
    MethodPatch<&IDXGIOutput6::GetDesc1> m_getDesc1{
        GetOutput(), [this](auto original, auto* self, DXGI_OUTPUT_DESC1* desc) {
            const HRESULT result = original(self, desc);
            desc->ColorSpace = SpaceOf(m_isHDR);
            return result;
        }};
    MethodPatch<&IDXGIAdapter::EnumOutputs> m_enumOutputs{
        DX::DXGIFactory::Create()->GetPrimaryAdapter().Get(),
        [this](auto original, auto* self, UINT index, IDXGIOutput** out) {
            m_counts[EnumOutputs] += index == 0 ? 1 : 0;
            if (m_areReal) {
                return original(self, index, out);
            }
            return index < m_outputs.size()
                       ? m_outputs[index]->GiveTo(reinterpret_cast<void**>(out))
                       : DXGI_ERROR_NOT_FOUND;
        }};
    MethodPatch<&IDXGISwapChain::GetBuffer> m_getBuffer{m_probe, Stand{this, GetBuffer, kPass}};
    MethodPatch<&IDXGISwapChain::ResizeBuffers> m_resize{m_probe, Stand{this, Resize, kPass}};
    MethodPatch<&IDXGISwapChain3::ResizeBuffers1> m_resize1{m_probe, Stand{this, Resize, kPass}};
    MethodPatch<&IDXGISwapChain3::CheckColorSpaceSupport> m_check{
        m_probe, Stand{this, CheckColorSpace, [](auto, auto*, auto, UINT* support) {
                           *support = DXGI_SWAP_CHAIN_COLOR_SPACE_SUPPORT_FLAG_PRESENT;
                           return S_OK;
                       }}};
    MethodPatch<&IDXGISwapChain3::SetColorSpace1> m_setColorSpace{
        m_probe, Stand{this, SetColorSpace, [this](auto, auto*, DXGI_COLOR_SPACE_TYPE space) {
                           colorSpace = space;
                           return S_OK;
                       }}};
    MethodPatch<&IDXGISwapChain4::SetHDRMetaData> m_setMetadata{
        m_probe, Stand{this, SetMetadata, [this](auto, auto*, auto type, UINT size, void* data) {
                           const auto* bytes = static_cast<const std::uint8_t*>(data);
                           metadataType = type;
                           metadata.assign(bytes, bytes + size);
                           return S_OK;
                       }}};
};

} // namespace Norvex::Test
