#pragma once

// A descriptor heap pool on a real device, and resources to make views of.

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "tests/support/DeviceTest.h"

namespace Norvex::DX {

using DescriptorPtr = boost::intrusive_ptr<D12Descriptor>;
using CPUHeap = D12DescriptorCPUHeap;
using ResourcePtr = CComPtr<ID3D12Resource>;

constexpr auto kViews = D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV;
constexpr auto kSamplers = D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER;
constexpr auto kRtv = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
constexpr auto kDsv = D3D12_DESCRIPTOR_HEAP_TYPE_DSV;
inline const auto kAllowAll =
    D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET | D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;

class D3D12DescriptorHeapTest : public Norvex::Test::DeviceTest {
protected:
    void SetUp() override { m_pool.reset(new D12DescriptorHeapPool(RawPtr())); }

    static ResourcePtr Make(const D3D12_RESOURCE_DESC& desc) {
        const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_DEFAULT);
        ResourcePtr resource;
        const HRESULT result = Raw()->CreateCommittedResource(&heap, D3D12_HEAP_FLAG_NONE, &desc,
                                                              D3D12_RESOURCE_STATE_COMMON, nullptr,
                                                              IID_PPV_ARGS(&resource));
        EXPECT_TRUE(SUCCEEDED(result)) << std::hex << result;
        return resource;
    }
    static ResourcePtr MakeBuffer(std::uint64_t size,
                                  D3D12_RESOURCE_FLAGS flags = D3D12_RESOURCE_FLAG_NONE) {
        return Make(CD3DX12_RESOURCE_DESC::Buffer(size, flags));
    }
    static ResourcePtr MakeTexture(D3D12_RESOURCE_FLAGS flags = kAllowAll) {
        return Make(
            CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_R8G8B8A8_UNORM, 40, 30, 1, 1, 1, 0, flags));
    }
    static ResourcePtr MakeDepth() {
        return Make(CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_D32_FLOAT, 40, 30, 1, 1, 1, 0,
                                                 D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL));
    }

    boost::intrusive_ptr<D12DescriptorHeapPool> m_pool;
};

} // namespace Norvex::DX
