#pragma once

// A display in HDR, or one that is not, for systems without: stands in for what the system answers
// of its outputs and for what its swap chains do with colour spaces. For swap chains of one
// generation at a time. One thread.

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
    explicit HDRDisplay(bool isDirect3D12)
        : m_probe(MakeSwapChain(isDirect3D12)),
          m_getDesc(GetOutput(),
                    [this](auto original, IDXGIOutput6* output, DXGI_OUTPUT_DESC1* desc) {
                        const HRESULT result = original(output, desc);
                        desc->ColorSpace = m_isHDR ? DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020
                                                   : DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709;
                        return result;
                    }),
          m_check(m_probe,
                  [](auto, auto*, DXGI_COLOR_SPACE_TYPE, UINT* support) {
                      *support = DXGI_SWAP_CHAIN_COLOR_SPACE_SUPPORT_FLAG_PRESENT;
                      return S_OK;
                  }),
          m_setColorSpace(m_probe, [](auto...) { return S_OK; }),
          m_setMetadata(m_probe, [](auto...) { return S_OK; }) {}

    // The display is in HDR at first.
    void Switch(bool isHDR) { m_isHDR = isHDR; }

private:
    static CComPtr<IDXGIOutput6> GetOutput() {
        CComPtr<IDXGIOutput> output;
        CComPtr<IDXGIOutput6> output6;
        DX::DXGIFactory::Create()->GetPrimaryAdapter().Get()->EnumOutputs(0, &output);
        output.QueryInterface(&output6);
        return output6;
    }

    // Of the class whose methods are patched.
    CComPtr<IDXGISwapChain> MakeSwapChain(bool isDirect3D12) const {
        DXGI_SWAP_CHAIN_DESC1 desc = {};
        desc.Width = desc.Height = 16;
        desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
        desc.SampleDesc.Count = 1;
        desc.BufferUsage = DXGI_USAGE_RENDER_TARGET_OUTPUT;
        desc.BufferCount = 2;
        desc.SwapEffect = DXGI_SWAP_EFFECT_FLIP_DISCARD;
        if (!isDirect3D12) {
            return DX::D11Device::CreatePrimary()->CreateSwapChainForHwnd(m_window.Get(), desc);
        }
        const boost::intrusive_ptr<DX::D12CommandQueue> queue(
            new DX::D12CommandQueue(DX::D12Device::CreatePrimary(), {}));
        return queue->CreateSwapChainForHwnd(m_window.Get(), desc).p;
    }

    bool m_isHDR = true;
    TestWindow m_window{{16, 16}, SW_HIDE};
    CComPtr<IDXGISwapChain> m_probe;
    MethodPatch<27, HRESULT(IDXGIOutput6*, DXGI_OUTPUT_DESC1*)> m_getDesc;
    MethodPatch<37, HRESULT(IDXGISwapChain3*, DXGI_COLOR_SPACE_TYPE, UINT*)> m_check;
    MethodPatch<38, HRESULT(IDXGISwapChain3*, DXGI_COLOR_SPACE_TYPE)> m_setColorSpace;
    MethodPatch<40, HRESULT(IDXGISwapChain4*, DXGI_HDR_METADATA_TYPE, UINT, void*)> m_setMetadata;
};

} // namespace Norvex::Test
