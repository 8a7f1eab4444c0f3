#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

#include <functional>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using DescriptorPtr = boost::intrusive_ptr<D12Descriptor>;
using CPUHeap = D12DescriptorCPUHeap;
using ResourcePtr = CComPtr<ID3D12Resource>;
using Handle = D3D12_CPU_DESCRIPTOR_HANDLE;

constexpr auto kViews = D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV;
constexpr auto kSamplers = D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER;
constexpr auto kRtv = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
constexpr auto kDsv = D3D12_DESCRIPTOR_HEAP_TYPE_DSV;
constexpr auto kNone = DXGI_FORMAT_UNKNOWN;
constexpr auto kColor = DXGI_FORMAT_R8G8B8A8_UNORM; // 28
constexpr auto kDepth = DXGI_FORMAT_D32_FLOAT;
constexpr auto kDepthFlag = D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL;
constexpr auto kTarget = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
constexpr auto kUnordered = D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;
const auto kAllowAll = kTarget | kUnordered;

constexpr D3D12_SAMPLER_DESC kSampler = {D3D12_FILTER_ANISOTROPIC,
                                         D3D12_TEXTURE_ADDRESS_MODE_WRAP,
                                         D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         D3D12_TEXTURE_ADDRESS_MODE_MIRROR,
                                         1,
                                         7,
                                         D3D12_COMPARISON_FUNC_LESS,
                                         {1, 2, 3, 4},
                                         5,
                                         6};

// What a kind of view needs and says; the position is its D12Descriptor::DescriptorType.
constexpr struct {
    D3D12_DESCRIPTOR_HEAP_TYPE heapType;
    const char* function;
    const char* words; // of the no-space sentence
} kKinds[] = {{kViews, "CreateConstantBufferView", "a constant buffer view"},
              {kViews, "CreateShaderResourceView", "a shader resource view"},
              {kViews, "CreateUnorderedAccessView", "an unordered access view"},
              {kSamplers, "CreateSampler", "a sampler"},
              {kRtv, "CreateRenderTargetView", "a render target view"},
              {kDsv, "CreateDepthStencilView", "a depth stencil view"}};

struct ViewNotes {
    auto Noter() {
        return [this](auto, auto*, auto... arguments) {
            resources.clear();
            (Note(arguments), ...);
        };
    }
    void Note(ID3D12Resource* resource) {
        resources.emplace_back(resource);
        std::erase(resources, nullptr);
    }
    void Note(const D3D12_CONSTANT_BUFFER_VIEW_DESC* desc) {
        text = fmt::format("{} at {}", desc->SizeInBytes, desc->BufferLocation);
    }
    template <class Desc>
    void Note(const Desc* desc) {
        text = WordsOf(desc);
    }
    void Note(Handle where) { handle = where.ptr; }

    std::string text;
    std::vector<ResourcePtr> resources;
    SIZE_T handle = 0;
};

// Notes what the device is told to write, and where, instead of having it done.
class ViewRecorder : public ViewNotes {
public:
    explicit ViewRecorder(ID3D12Device* device) : m_device(device) {}

private:
    ID3D12Device* m_device;
    MethodPatch<&ID3D12Device::CreateConstantBufferView> m_cbv{m_device, Noter()};
    MethodPatch<&ID3D12Device::CreateShaderResourceView> m_srv{m_device, Noter()};
    MethodPatch<&ID3D12Device::CreateUnorderedAccessView> m_uav{m_device, Noter()};
    MethodPatch<&ID3D12Device::CreateSampler> m_sampler{m_device, Noter()};
    MethodPatch<&ID3D12Device::CreateRenderTargetView> m_rtv{m_device, Noter()};
    MethodPatch<&ID3D12Device::CreateDepthStencilView> m_dsv{m_device, Noter()};
};

class D3D12DescriptorHeapTest : public DeviceTest {
protected:
    static ResourcePtr Make(const D3D12_RESOURCE_DESC& desc) {
        const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_DEFAULT);
        ResourcePtr resource;
        EXPECT_EQ(
            Raw()->CreateCommittedResource(&heap, {}, &desc, {}, nullptr, IID_PPV_ARGS(&resource)),
            S_OK);
        return resource;
    }
    static ResourcePtr MakeBuffer(std::uint64_t size) {
        return Make(CD3DX12_RESOURCE_DESC::Buffer(size, kUnordered));
    }
    static D3D12_RESOURCE_DESC Texture2D(UINT16 array = 1, UINT16 mips = 1, UINT samples = 1,
                                         D3D12_RESOURCE_FLAGS flags = kAllowAll,
                                         DXGI_FORMAT format = kColor) {
        return CD3DX12_RESOURCE_DESC::Tex2D(format, 64, 32, array, mips, samples, 0, flags);
    }

    boost::intrusive_ptr<D12DescriptorHeapPool> m_pool{new D12DescriptorHeapPool(RawPtr())};
    const ResourcePtr m_none;
    const ResourcePtr m_texture = Make(Texture2D());
};

TEST_F(D3D12DescriptorHeapTest, EveryViewTakesASlotAndIsWrittenThere) {
    const ResourcePtr buffer = MakeBuffer(512);
    const ResourcePtr counter = MakeBuffer(4096);
    const ResourcePtr depth = Make(Texture2D(1, 1, 1, kDepthFlag, kDepth));
    const D3D12_SHADER_RESOURCE_VIEW_DESC srv = {DXGI_FORMAT_R8G8B8A8_UNORM_SRGB, {}, 5, {}};
    const D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {kNone, D3D12_UAV_DIMENSION_BUFFER, {}};
    const D3D12_RENDER_TARGET_VIEW_DESC rtv = {kColor, D3D12_RTV_DIMENSION_TEXTURE2D, {}};
    const D3D12_DEPTH_STENCIL_VIEW_DESC dsv = {{}, {}, D3D12_DSV_FLAG_READ_ONLY_DEPTH, {}};
    const auto address = buffer->GetGPUVirtualAddress();
    ViewRecorder recorder(Raw());
    const auto check = [&](D12Descriptor::DescriptorType type, DXGI_FORMAT format,
                           const std::string& written, const std::vector<ResourcePtr>& keeps,
                           const std::function<DescriptorPtr(CPUHeap&)>& create) {
        const auto& [heapType, function, words] = kKinds[type];
        SCOPED_TRACE(function + written);
        const auto wrongHeap = m_pool->CreateCPUHeap(heapType == kRtv ? kDsv : kRtv, 1);
        ExpectFailure12([&] { create(*wrongHeap); }, "Invalid heap type", function);

        const auto heap = m_pool->CreateCPUHeap(heapType, 10);
        std::vector<DescriptorPtr> views;
        for (unsigned i = 0; i < heap->NumDescriptors(); ++i) {
            views.push_back(create(*heap));
            EXPECT_EQ(views[i]->GetIndex(), i);
            EXPECT_EQ(recorder.handle, heap->GetCPUHandle(i).ptr);
        }
        ExpectFailure12([&] { create(*heap); },
                        std::string("There is no free space in the heap to create ") + words,
                        function);
        views[41].reset();
        views[7].reset();
        const DescriptorPtr view = create(*heap);
        EXPECT_EQ(view->GetIndex(), 7u);
        EXPECT_EQ(view->GetCPUHandle().ptr, heap->GetCPUHandle(7).ptr);
        EXPECT_EQ(view->GetType(), type);
        EXPECT_EQ(view->GetFormat(), format);
        EXPECT_EQ(view->GetHeapType(), heapType);
        EXPECT_EQ(view->GetResources(), keeps);
        EXPECT_EQ(recorder.text, written);
        if (type != D12Descriptor::ConstantBuffer) {
            EXPECT_EQ(recorder.resources, keeps);
        }
    };
    const std::string at = fmt::format(" at {}", address);
    check(D12Descriptor::ConstantBuffer, kNone, "256" + at, {buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(buffer, {address, 256}); });
    check(D12Descriptor::ConstantBuffer, kNone, "512" + at, {buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(buffer); });
    check(D12Descriptor::ConstantBuffer, kNone, "256 at 0", {},
          [&](auto& heap) { return heap.CreateConstantBufferView(m_none, {0, 256}); });
    check(D12Descriptor::ShaderResource, kColor, "none", {m_texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_texture, {}); });
    check(D12Descriptor::ShaderResource, srv.Format, "29 0 5", {m_texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_texture, srv); });
    check(D12Descriptor::ShaderResource, srv.Format, "29 0 5", {},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_none, srv); });
    check(D12Descriptor::UnorderedAccess, kNone, "0 1", {buffer, counter},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(buffer, counter, uav); });
    check(D12Descriptor::UnorderedAccess, kColor, "none", {m_texture},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_texture, m_none, {}); });
    check(D12Descriptor::UnorderedAccess, kNone, "0 1", {},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_none, m_none, uav); });
    check(D12Descriptor::Sampler, kNone, WordsOf(&kSampler), {},
          [&](auto& heap) { return heap.CreateSampler(kSampler); });
    check(D12Descriptor::RenderTarget, kColor, "none", {m_texture},
          [&](auto& heap) { return heap.CreateRenderTargetView(m_texture, std::nullopt); });
    check(D12Descriptor::RenderTarget, kColor, "28 4", {},
          [&](auto& heap) { return heap.CreateRenderTargetView(m_none, rtv); });
    check(D12Descriptor::DepthStencil, kDepth, "none", {depth},
          [&](auto& heap) { return heap.CreateDepthStencilView(depth, {}); });
    check(D12Descriptor::DepthStencil, kNone, "0 0 1", {},
          [&](auto& heap) { return heap.CreateDepthStencilView(m_none, dsv); });
}

// Format, dimension, in shader resource views mapping and padding, then what the dimension has.
TEST_F(D3D12DescriptorHeapTest, ViewsFollowTheResource) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const ViewRecorder recorder(Raw());
    const auto check = [&](const D3D12_RESOURCE_DESC& desc, bool isCube, const char* srv,
                           const char* rtv = nullptr, const char* uav = nullptr) {
        const ResourcePtr texture = Make(desc);
        views->CreateTextureShaderResourceView(texture, isCube);
        EXPECT_EQ(recorder.text, srv);
        if (rtv != nullptr) {
            targets->CreateRenderTargetView(texture, 2);
            EXPECT_EQ(recorder.text, rtv);
        }
        if (uav != nullptr) {
            views->CreateTextureUnorderedAccessView(texture, 2);
            EXPECT_EQ(recorder.text, uav);
        }
    };
    using Desc = CD3DX12_RESOURCE_DESC;
    check(Desc::Tex1D(kColor, 64, 1, 3, kAllowAll), false, "28 2 5768 0 0 3", "28 2 2", "28 2 2");
    check(Desc::Tex1D(kColor, 64, 2, 3, kAllowAll), false, "28 3 5768 0 0 3 0 2", "28 3 2 0 2",
          "28 3 2 0 2");
    check(Texture2D(1, 3), false, "28 4 5768 0 0 3", "28 4 2", "28 4 2");
    check(Texture2D(6, 3), false, "28 5 5768 0 0 3 0 6", "28 5 2 0 6", "28 5 2 0 6");
    check(Desc::Tex3D(kColor, 64, 64, 9, 3, kAllowAll), false, "28 8 5768 0 0 3", "28 8 2 0 9",
          "28 8 2 0 9");
    check(Texture2D(1, 1, 4, kTarget), false, "28 4 5768 0 0 1", "28 6");
    check(Texture2D(3, 1, 4, kTarget), false, "28 5 5768 0 0 1 0 3", "28 7 0 3");
    check(Desc::Tex2D(kColor, 8, 8, 6, 1), true, "28 9 5768 0 0 1");
    check(Desc::Tex2D(kColor, 8, 8, 12, 1), true, "28 10 5768 0 0 1 0 2");
    check(Desc::Tex2D(kColor, 8, 8, 13, 1), true, "28 10 5768 0 0 1 0 2");
    const ResourcePtr buffer = MakeBuffer(1000);
    for (const auto& [stride, fields] :
         {std::pair(0u, "1000"), std::pair(16u, "62 16"), std::pair(4u, "250 4")}) {
        views->CreateBufferShaderResourceView(buffer, stride);
        EXPECT_EQ(recorder.text, fmt::format("0 1 5768 0 0 0 {}", fields));
    }
    views->CreateBufferUnorderedAccessView(buffer, 16, D3D12_BUFFER_UAV_FLAG_RAW, 4096, buffer);
    EXPECT_EQ(recorder.text, "0 1 0 0 62 16 4096 0 1");
    EXPECT_THAT(recorder.resources, ElementsAre(buffer, buffer));
}

TEST_F(D3D12DescriptorHeapTest, RefusesWhatCannotBe) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    const auto sampler = m_pool->CreateCPUHeap(kSamplers, 1)->CreateSampler(kSampler);
    const ResourcePtr plain = Make(Texture2D(1, 1, 1, D3D12_RESOURCE_FLAG_NONE));
    const ResourcePtr depth =
        Make(Texture2D(1, 1, 1, kDepthFlag | D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE, kDepth));
    const ResourcePtr buffer = Make(CD3DX12_RESOURCE_DESC::Buffer(300));
    const auto view = views->CreateShaderResourceView(plain, {});
    const D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {kColor, D3D12_UAV_DIMENSION_TEXTURE2D, {}};
    const auto nullView = views->CreateUnorderedAccessView(m_none, m_none, uav);

    constexpr auto kSize = "Constant Buffer View requires SizeInBytes be a multiple of 256";
    NORVEX_EXPECT_REFUSED12(kSize, targets->CreateConstantBufferView(buffer, {0, 100}));
    NORVEX_EXPECT_REFUSED12(kSize, views->CreateConstantBufferView(buffer));
    constexpr auto kUnsupported = "Unsupported resource";
    for (const ResourcePtr& resource : {plain, m_none}) {
        NORVEX_EXPECT_REFUSED12(kUnsupported, views->CreateConstantBufferView(resource));
        NORVEX_EXPECT_REFUSED12(kUnsupported, views->CreateBufferShaderResourceView(resource, 4));
    }
    for (const ResourcePtr& resource : {buffer, m_none}) {
        NORVEX_EXPECT_REFUSED12(kUnsupported,
                                views->CreateTextureShaderResourceView(resource, false));
        NORVEX_EXPECT_REFUSED12(kUnsupported,
                                views->CreateBufferUnorderedAccessView(resource, 4, {}, 0, m_none));
    }
    NORVEX_EXPECT_REFUSED12(kUnsupported, views->CreateShaderResourceView(m_none, {}));
    NORVEX_EXPECT_REFUSED12(kUnsupported, views->CreateUnorderedAccessView(m_none, m_none, {}));
    NORVEX_EXPECT_REFUSED12(kUnsupported, views->CreateUnorderedAccessView(m_none, buffer, uav));
    NORVEX_EXPECT_REFUSED12(kUnsupported, targets->CreateRenderTargetView(m_none, 0u));
    NORVEX_EXPECT_REFUSED12(kUnsupported, D12VertexBuffer::Create(m_none, 4, 4));
    NORVEX_EXPECT_REFUSED12(kUnsupported, D12IndexBuffer::Create(m_none, kNone, 6, 12));
    NORVEX_EXPECT_REFUSED12("Buffer size requested is too large",
                            D12VertexBuffer::Create(buffer, 1u << 16, 1u << 16));
    NORVEX_EXPECT_REFUSED12("Resource created without support for SRV",
                            views->CreateTextureShaderResourceView(depth, false));
    NORVEX_EXPECT_REFUSED12("Resource created without support for RTV",
                            targets->CreateRenderTargetView(plain, 0u));
    NORVEX_EXPECT_REFUSED12("Resource created without support for UAV",
                            views->CreateTextureUnorderedAccessView(plain, 0));
    NORVEX_EXPECT_REFUSED12("Invalid heap type for GPU descriptor heap",
                            m_pool->CreateGPUHeap(kRtv, 1));
    NORVEX_EXPECT_REFUSED12("Descriptor heap types are different",
                            visible->CopyDescriptor(0, sampler));
    NORVEX_EXPECT_REFUSED12("Invalid descriptor type", visible->CopyDescriptor(0, nullptr));
    ExpectFailure12([&] { visible->CopyDescriptor(64, view); }, "Descriptor index out of range",
                    "GetCPUHandle");
    NORVEX_EXPECT_REFUSED12("Descriptor index out of range", visible->GetGPUHandle(64));
    constexpr auto kNoResources = "There are no resources available";
    NORVEX_EXPECT_REFUSED12(kNoResources, sampler->Transition({}, {}, 0, {}));
    NORVEX_EXPECT_REFUSED12(kNoResources, nullView->GetFirstResource());
    ExpectFailure12By<&ID3D12Device::CreateDescriptorHeap>(
        Raw(), [&] { m_pool->CreateCPUHeap(kDsv, 1); }, "Failed to create descriptor heap",
        "CreateHeap");
    // A resource of a kind that is not known yet.
    const MethodPatch<&ID3D12Resource::GetDesc> patch(
        plain, [](auto original, auto* self, auto* out) {
            original(self, out);
            out->Dimension = static_cast<D3D12_RESOURCE_DIMENSION>(5);
            out->Flags = kAllowAll;
            return out;
        });
    NORVEX_EXPECT_REFUSED12("Unknown resource",
                            views->CreateTextureShaderResourceView(plain, false));
    NORVEX_EXPECT_REFUSED12("Unknown resource", targets->CreateRenderTargetView(plain, 0u));
    NORVEX_EXPECT_REFUSED12("Unknown resource", views->CreateTextureUnorderedAccessView(plain, 0));
}

TEST_F(D3D12DescriptorHeapTest, CopiesAndHandlesKeepWhatTheyNeed) {
    const auto heap = m_pool->CreateCPUHeap(kViews, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    ResourcePtr texture = Make(Texture2D());
    const LifeProbe probe(texture);
    DescriptorPtr view = heap->CreateShaderResourceView(texture, std::nullopt);
    EXPECT_EQ(view->GetRect(), (Rect2DT<long>{0, 0, 64, 32}));
    constexpr auto kFrom = D3D12_RESOURCE_STATE_COPY_DEST;
    constexpr auto kTo = D3D12_RESOURCE_STATE_RENDER_TARGET;
    constexpr auto kEnd = D3D12_RESOURCE_BARRIER_FLAG_END_ONLY;
    EXPECT_EQ(BarrierText(view->Transition(kFrom, kTo, 3, kEnd)),
              BarrierText(CD3DX12_RESOURCE_BARRIER::Transition(texture, kFrom, kTo, 3, kEnd)));
    texture.Release();

    DescriptorPtr second(new D12Descriptor(*view));
    DescriptorPtr third(new D12Descriptor(*second));
    view.reset();
    second.reset();
    EXPECT_EQ(heap->CreateConstantBufferView(MakeBuffer(256))->GetIndex(), 1u);
    std::vector<SIZE_T> copied;
    DescriptorPtr copy;
    {
        const MethodPatch<&ID3D12Device::CopyDescriptorsSimple> patch(
            Raw(), [&](auto, auto*, UINT count, Handle to, Handle from, auto type) {
                copied = {count, to.ptr, from.ptr, static_cast<SIZE_T>(type)};
            });
        copy = visible->CopyDescriptor(63, third);
    }
    EXPECT_THAT(copied,
                ElementsAre(1u, visible->GetCPUHandle(63).ptr, third->GetCPUHandle().ptr, kViews));
    third.reset();
    EXPECT_EQ(heap->CreateConstantBufferView(MakeBuffer(256))->GetIndex(), 0u);
    EXPECT_TRUE(probe.IsAlive()) << "the copy keeps the resource, not the slot";
    EXPECT_EQ(copy->GetIndex(), 63u);
    EXPECT_EQ(copy->GetType(), D12Descriptor::ShaderResource);
    EXPECT_EQ(copy->GetFormat(), kColor);
    copy.reset();
    EXPECT_FALSE(probe.IsAlive());
}

TEST_F(D3D12DescriptorHeapTest, RecyclesHeapsOfTheirKindThatNobodyHolds) {
    const auto make = [&](D3D12_DESCRIPTOR_HEAP_TYPE type) {
        return m_pool->CreateCPUHeap(type, 1)->GetHeap().p;
    };
    auto heap = m_pool->CreateCPUHeap(kViews, 1);
    auto visible = m_pool->CreateGPUHeap(kViews, 65);
    EXPECT_EQ(heap->NumDescriptors(), 64u);
    EXPECT_EQ(visible->NumDescriptors(), 128u);
    EXPECT_EQ(visible->GetGPUHandle(3).ptr - visible->GetGPUHandle(0).ptr,
              3u * Raw()->GetDescriptorHandleIncrementSize(kViews));
    ID3D12DescriptorHeap* const raw = heap->GetHeap();
    ID3D12DescriptorHeap* const rawVisible = visible->GetHeap();
    DescriptorPtr view = heap->CreateConstantBufferView(MakeBuffer(256));
    heap.reset();
    visible.reset();
    EXPECT_NE(make(kViews), raw) << "a descriptor holds it";
    view.reset();
    EXPECT_NE(make(kSamplers), raw);
    EXPECT_EQ(m_pool->CreateGPUHeap(kViews, 64)->GetHeap().p, rawVisible);
    EXPECT_NE(m_pool->CreateCPUHeap(kViews, 65)->GetHeap().p, rawVisible);
    EXPECT_EQ(m_pool->CreateTextureShaderResourceView(m_texture)->GetHeapType(), kViews);
    EXPECT_EQ(m_pool->CreateRenderTargetView(m_texture)->GetHeapType(), kRtv);
}

TEST_F(D3D12DescriptorHeapTest, InputBuffersDescribeThemselves) {
    const ResourcePtr buffer = MakeBuffer(1024);
    const auto vertices = D12VertexBuffer::Create(buffer, 20, 6);
    const auto indices = D12IndexBuffer::Create(buffer, DXGI_FORMAT_R16_UINT, 6, 12);
    const D3D12_VERTEX_BUFFER_VIEW vertexView = {buffer->GetGPUVirtualAddress(), 120, 20};
    const D3D12_INDEX_BUFFER_VIEW indexView = {vertexView.BufferLocation, 12, DXGI_FORMAT_R16_UINT};
    EXPECT_EQ(WordsOf(&vertices->GetView()), WordsOf(&vertexView));
    EXPECT_EQ(WordsOf(&indices->GetView()), WordsOf(&indexView));
    EXPECT_EQ(vertices->GetStride(), 20u);
    EXPECT_EQ(indices->GetFormat(), DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(vertices->GetCount() + indices->GetCount(), 12u);
}

} // namespace
} // namespace Norvex::DX
