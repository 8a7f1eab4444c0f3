// Views: in which heap and slot, of what, and what they keep alive.

#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using CPUHeap = D12DescriptorCPUHeap;

constexpr auto kViews = D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV;
constexpr auto kSamplers = D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER;
constexpr auto kRtv = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
constexpr auto kDsv = D3D12_DESCRIPTOR_HEAP_TYPE_DSV;
constexpr auto kTarget = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
const auto kAllowAll = kTarget | kUnordered;

class D3D12DescriptorHeapTest : public Direct3D12Test {
protected:
    static ResourcePtr Make(const D3D12_RESOURCE_DESC& desc) {
        const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_DEFAULT);
        ResourcePtr resource;
        EXPECT_EQ(
            Raw()->CreateCommittedResource(&heap, {}, &desc, {}, nullptr, IID_PPV_ARGS(&resource)),
            S_OK);
        return resource;
    }
    static D3D12_RESOURCE_DESC Texture2D(UINT16 array = 1, UINT16 mips = 1, UINT samples = 1,
                                         D3D12_RESOURCE_FLAGS flags = kAllowAll) {
        return CD3DX12_RESOURCE_DESC::Tex2D(kColor, 64, 32, array, mips, samples, 0, flags);
    }

    Ptr<D12DescriptorHeapPool> m_pool{new D12DescriptorHeapPool(Raw())};
    Ptr<CPUHeap> m_views = m_pool->CreateCPUHeap(kViews, 1);
    Ptr<CPUHeap> m_targets = m_pool->CreateCPUHeap(kRtv, 1);
    const ResourcePtr m_buffer = MakeBuffer(512, {}, kUnordered);
};

TEST_F(D3D12DescriptorHeapTest, EveryViewTakesTheLowestSlotAndKeepsItsResources) {
    const auto check = [&](D3D12_DESCRIPTOR_HEAP_TYPE heapType, const std::string& words,
                           const char* function, const std::vector<ResourcePtr>& keeps,
                           const std::function<ViewPtr(CPUHeap&)>& create) {
        ExpectFailure12([&] { create(heapType == kRtv ? *m_views : *m_targets); },
                        "Invalid heap type", function);
        const auto heap = m_pool->CreateCPUHeap(heapType, 10);
        const auto views = ExpectLowestFirst(
            heap->NumDescriptors(), [&] { return create(*heap); },
            [](const ViewPtr& view) { return view->GetIndex(); });
        ExpectFailure12([&] { create(*heap); },
                        "There is no free space in the heap to create " + words, function);
        EXPECT_EQ(views[9]->GetCPUHandle().ptr, heap->GetCPUHandle(9).ptr);
        EXPECT_EQ(views[9]->GetResources(), keeps);
    };
    const ResourcePtr texture = Make(Texture2D());
    const D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {
        {}, D3D12_UAV_DIMENSION_BUFFER, {{0, 1, 4, 0, {}}}};
    const D3D12_DEPTH_STENCIL_VIEW_DESC dsv = {
        DXGI_FORMAT_D32_FLOAT, D3D12_DSV_DIMENSION_TEXTURE2D, {}, {}};
    const D3D12_RENDER_TARGET_VIEW_DESC rtv = {kColor, D3D12_RTV_DIMENSION_TEXTURE2D, {}};
    check(kViews, "a constant buffer view", "CreateConstantBufferView", {m_buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(m_buffer); });
    check(kViews, "a shader resource view", "CreateShaderResourceView", {texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(texture, {}); });
    check(kViews, "an unordered access view", "CreateUnorderedAccessView", {m_buffer, m_buffer},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_buffer, m_buffer, uav); });
    check(kSamplers, "a sampler", "CreateSampler", {},
          [&](auto& heap) { return heap.CreateSampler({}); });
    check(kRtv, "a render target view", "CreateRenderTargetView", {},
          [&](auto& heap) { return heap.CreateRenderTargetView(nullptr, rtv); });
    check(kDsv, "a depth stencil view", "CreateDepthStencilView", {},
          [&](auto& heap) { return heap.CreateDepthStencilView(nullptr, dsv); });
}

// Format, dimension, in shader resource views mapping and padding, then what the dimension has.
TEST_F(D3D12DescriptorHeapTest, ViewsFollowTheResource) {
    std::string text; // instead of a view
    const auto note = [&text](auto, auto*, auto... arguments) {
        text = WordsOf(std::get<sizeof...(arguments) - 2>(std::tuple(arguments...)));
    };
    const MethodPatch<&ID3D12Device::CreateShaderResourceView> srvPatch(Raw(), note);
    const MethodPatch<&ID3D12Device::CreateUnorderedAccessView> uavPatch(Raw(), note);
    const MethodPatch<&ID3D12Device::CreateRenderTargetView> rtvPatch(Raw(), note);
    const auto check = [&](const D3D12_RESOURCE_DESC& desc, const char* read,
                           const char* written = nullptr, bool isCube = false) {
        const ResourcePtr texture = Make(desc);
        m_views->CreateTextureShaderResourceView(texture, isCube);
        EXPECT_EQ(text, read);
        if ((desc.Flags & kTarget) != 0) {
            m_targets->CreateRenderTargetView(texture, 2);
            EXPECT_EQ(text, written);
        }
        if ((desc.Flags & kUnordered) != 0) {
            m_views->CreateTextureUnorderedAccessView(texture, 2);
            EXPECT_EQ(text, written);
        }
    };
    using Desc = CD3DX12_RESOURCE_DESC;
    check(Desc::Tex1D(kColor, 64, 2, 3, kAllowAll), "28 3 5768 0 0 3 0 2", "28 3 2 0 2");
    check(Texture2D(1, 3), "28 4 5768 0 0 3", "28 4 2");
    check(Texture2D(6, 3), "28 5 5768 0 0 3 0 6", "28 5 2 0 6");
    check(Desc::Tex3D(kColor, 64, 64, 9, 3, kAllowAll), "28 8 5768 0 0 3", "28 8 2 0 9");
    check(Texture2D(1, 1, 4, kTarget), "28 4 5768 0 0 1", "28 6");
    check(Texture2D(3, 1, 4, kTarget), "28 5 5768 0 0 1 0 3", "28 7 0 3");
    check(Desc::Tex2D(kColor, 8, 8, 6, 1), "28 9 5768 0 0 1", nullptr, true);
    check(Desc::Tex2D(kColor, 8, 8, 13, 1), "28 10 5768 0 0 1 0 2", nullptr, true);
    m_views->CreateBufferShaderResourceView(m_buffer, 5);
    EXPECT_EQ(text, "0 1 5768 0 0 0 102 5");
    m_views->CreateBufferUnorderedAccessView(m_buffer, 16, D3D12_BUFFER_UAV_FLAG_RAW, 4096,
                                             m_buffer);
    EXPECT_EQ(text, "0 1 0 0 32 16 4096 0 1");
}

TEST_F(D3D12DescriptorHeapTest, RefusesWhatCannotBe) {
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    const auto sampler = m_pool->CreateCPUHeap(kSamplers, 1)->CreateSampler({});
    const ResourcePtr plain = Make(Texture2D(1, 1, 1, D3D12_RESOURCE_FLAG_NONE));
    NORVEX_REFUSED("Unsupported resource", m_views->CreateBufferShaderResourceView(plain, 4));
    NORVEX_REFUSED("Resource created without support for RTV",
                   m_targets->CreateRenderTargetView(plain, 0u));
    NORVEX_REFUSED("Resource created without support for UAV",
                   m_views->CreateTextureUnorderedAccessView(plain, 0));
    NORVEX_REFUSED("Invalid heap type for GPU descriptor heap", m_pool->CreateGPUHeap(kRtv, 1));
    NORVEX_REFUSED("Descriptor heap types are different", visible->CopyDescriptor(0, sampler));
    NORVEX_REFUSED("Descriptor index out of range", visible->GetCPUHandle(64));
    NORVEX_REFUSED("Descriptor index out of range", visible->GetGPUHandle(64));
}

TEST_F(D3D12DescriptorHeapTest, HeapsAreRecycledAndCopiesKeepTheResourceNotTheSlot) {
    auto visible = m_pool->CreateGPUHeap(kViews, 65);
    ID3D12DescriptorHeap* const raw = m_views->GetHeap();
    ID3D12DescriptorHeap* const rawVisible = visible->GetHeap();
    ResourcePtr buffer = MakeBuffer(256);
    const LifeProbe probe(buffer);
    ViewPtr view = m_views->CreateConstantBufferView(buffer);
    buffer.Release();
    ViewPtr copy = visible->CopyDescriptor(127, view);
    view.reset();
    EXPECT_TRUE(probe.IsAlive());
    view = m_views->CreateConstantBufferView(m_buffer);
    EXPECT_EQ(view->GetIndex(), 0u);
    m_views.reset();
    visible.reset();
    EXPECT_NE(m_pool->CreateCPUHeap(kViews, 1)->GetHeap().p, raw) << "a descriptor holds it";
    copy.reset();
    EXPECT_FALSE(probe.IsAlive());
    view.reset();
    EXPECT_NE(m_pool->CreateCPUHeap(kViews, 65)->GetHeap().p, rawVisible);
    EXPECT_EQ(m_pool->CreateGPUHeap(kViews, 64)->GetHeap().p, rawVisible);
}

} // namespace
} // namespace Norvex::DX
