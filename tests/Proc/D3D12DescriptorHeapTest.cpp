// Views: in which heap and slot, written how, of what, and what they keep alive.

#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using CPUHeap = D12DescriptorCPUHeap;
using Handle = D3D12_CPU_DESCRIPTOR_HANDLE;

constexpr auto kViews = D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV;
constexpr auto kSamplers = D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER;
constexpr auto kRtv = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
constexpr auto kDsv = D3D12_DESCRIPTOR_HEAP_TYPE_DSV;
constexpr auto kDepth = DXGI_FORMAT_D32_FLOAT;
constexpr auto kDepthFlag = D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL;
constexpr auto kTarget = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
const auto kAllowAll = kTarget | kUnordered;

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
                                         D3D12_RESOURCE_FLAGS flags = kAllowAll,
                                         DXGI_FORMAT format = kColor) {
        return CD3DX12_RESOURCE_DESC::Tex2D(format, 64, 32, array, mips, samples, 0, flags);
    }
    void Note(ID3D12Resource* resource) {
        if (resource != nullptr) {
            m_resources.emplace_back(resource);
        }
    }
    void Note(const D3D12_CONSTANT_BUFFER_VIEW_DESC* desc) {
        m_text = fmt::format("{} at {}", desc->SizeInBytes, desc->BufferLocation);
    }
    template <class Desc>
    void Note(const Desc* desc) {
        m_text = WordsOf(desc);
    }
    void Note(Handle where) { m_handle = where.ptr; }
    // Notes what the device is told to write, and where, instead of having it done.
    auto NoteViews() {
        return std::make_unique<MethodPatches<
            &ID3D12Device::CreateConstantBufferView, &ID3D12Device::CreateShaderResourceView,
            &ID3D12Device::CreateUnorderedAccessView, &ID3D12Device::CreateSampler,
            &ID3D12Device::CreateRenderTargetView, &ID3D12Device::CreateDepthStencilView>>(
            Raw(), [this](auto, auto*, auto... arguments) {
                m_resources.clear();
                (Note(arguments), ...);
            });
    }

    std::string m_text;
    std::vector<ResourcePtr> m_resources;
    SIZE_T m_handle = 0;
    Ptr<D12DescriptorHeapPool> m_pool{new D12DescriptorHeapPool(Raw())};
    const ResourcePtr m_none;
    const ResourcePtr m_texture = Make(Texture2D());
    const ResourcePtr m_buffer = MakeBuffer(512, {}, kUnordered);
};

TEST_F(D3D12DescriptorHeapTest, EveryViewTakesTheLowestSlotAndIsWrittenThere) {
    const ResourcePtr counter = MakeBuffer(4096, {}, kUnordered);
    const ResourcePtr depth = Make(Texture2D(1, 1, 1, kDepthFlag, kDepth));
    const D3D12_SHADER_RESOURCE_VIEW_DESC srv = {DXGI_FORMAT_R8G8B8A8_UNORM_SRGB, {}, 5, {}};
    const D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {kNone, D3D12_UAV_DIMENSION_BUFFER, {}};
    const D3D12_RENDER_TARGET_VIEW_DESC rtv = {kColor, D3D12_RTV_DIMENSION_TEXTURE2D, {}};
    const D3D12_DEPTH_STENCIL_VIEW_DESC dsv = {{}, {}, D3D12_DSV_FLAG_READ_ONLY_DEPTH, {}};
    const D3D12_SAMPLER_DESC sampler = {D3D12_FILTER_ANISOTROPIC, {}, {}, {}, 1, 7, {}, {}, 5, 6};
    const auto address = m_buffer->GetGPUVirtualAddress();
    const auto patches = NoteViews();
    const auto check = [&](D12Descriptor::DescriptorType type, DXGI_FORMAT format,
                           const std::string& written, const std::vector<ResourcePtr>& keeps,
                           const std::function<ViewPtr(CPUHeap&)>& create) {
        const auto& [heapType, function, words] = kKinds[type];
        SCOPED_TRACE(function + written);
        const auto wrongHeap = m_pool->CreateCPUHeap(heapType == kRtv ? kDsv : kRtv, 1);
        ExpectFailure12([&] { create(*wrongHeap); }, "Invalid heap type", function);
        const auto heap = m_pool->CreateCPUHeap(heapType, 10);
        const auto views = ExpectLowestFirst(
            heap->NumDescriptors(), [&] { return create(*heap); },
            [&](const ViewPtr& view) {
                EXPECT_EQ(m_handle, heap->GetCPUHandle(view->GetIndex()).ptr);
                EXPECT_EQ(m_text, written);
                if (type != D12Descriptor::ConstantBuffer) {
                    EXPECT_EQ(m_resources, keeps);
                }
                return view->GetIndex();
            });
        ExpectFailure12([&] { create(*heap); },
                        std::string("There is no free space in the heap to create ") + words,
                        function);
        for (const ViewPtr& view : views) {
            EXPECT_EQ(view->GetCPUHandle().ptr, heap->GetCPUHandle(view->GetIndex()).ptr);
            EXPECT_EQ(view->GetType(), type);
            EXPECT_EQ(view->GetFormat(), format);
            EXPECT_EQ(view->GetHeapType(), heapType);
            EXPECT_EQ(view->GetResources(), keeps);
        }
    };
    const std::string at = fmt::format(" at {}", address);
    check(D12Descriptor::ConstantBuffer, kNone, "256" + at, {m_buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(m_buffer, {address, 256}); });
    check(D12Descriptor::ConstantBuffer, kNone, "512" + at, {m_buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(m_buffer); });
    check(D12Descriptor::ConstantBuffer, kNone, "256 at 0", {},
          [&](auto& heap) { return heap.CreateConstantBufferView(m_none, {0, 256}); });
    check(D12Descriptor::ShaderResource, kColor, "none", {m_texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_texture, {}); });
    check(D12Descriptor::ShaderResource, srv.Format, "29 0 5", {m_texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_texture, srv); });
    check(D12Descriptor::ShaderResource, srv.Format, "29 0 5", {},
          [&](auto& heap) { return heap.CreateShaderResourceView(m_none, srv); });
    check(D12Descriptor::UnorderedAccess, kNone, "0 1", {m_buffer, counter},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_buffer, counter, uav); });
    check(D12Descriptor::UnorderedAccess, kColor, "none", {m_texture},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_texture, m_none, {}); });
    check(D12Descriptor::UnorderedAccess, kNone, "0 1", {},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(m_none, m_none, uav); });
    check(D12Descriptor::Sampler, kNone, WordsOf(&sampler), {},
          [&](auto& heap) { return heap.CreateSampler(sampler); });
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
    const auto patches = NoteViews();
    const auto check = [&](const D3D12_RESOURCE_DESC& desc, const char* read,
                           const char* written = nullptr, bool isCube = false) {
        const ResourcePtr texture = Make(desc);
        views->CreateTextureShaderResourceView(texture, isCube);
        EXPECT_EQ(m_text, read);
        if ((desc.Flags & kTarget) != 0) {
            targets->CreateRenderTargetView(texture, 2);
            EXPECT_EQ(m_text, written);
        }
        if ((desc.Flags & kUnordered) != 0) {
            views->CreateTextureUnorderedAccessView(texture, 2);
            EXPECT_EQ(m_text, written);
        }
    };
    using Desc = CD3DX12_RESOURCE_DESC;
    check(Desc::Tex1D(kColor, 64, 1, 3, kAllowAll), "28 2 5768 0 0 3", "28 2 2");
    check(Desc::Tex1D(kColor, 64, 2, 3, kAllowAll), "28 3 5768 0 0 3 0 2", "28 3 2 0 2");
    check(Texture2D(1, 3), "28 4 5768 0 0 3", "28 4 2");
    check(Texture2D(6, 3), "28 5 5768 0 0 3 0 6", "28 5 2 0 6");
    check(Desc::Tex3D(kColor, 64, 64, 9, 3, kAllowAll), "28 8 5768 0 0 3", "28 8 2 0 9");
    check(Texture2D(1, 1, 4, kTarget), "28 4 5768 0 0 1", "28 6");
    check(Texture2D(3, 1, 4, kTarget), "28 5 5768 0 0 1 0 3", "28 7 0 3");
    check(Desc::Tex2D(kColor, 8, 8, 6, 1), "28 9 5768 0 0 1", nullptr, true);
    check(Desc::Tex2D(kColor, 8, 8, 12, 1), "28 10 5768 0 0 1 0 2", nullptr, true);
    check(Desc::Tex2D(kColor, 8, 8, 13, 1), "28 10 5768 0 0 1 0 2", nullptr, true);
    for (const auto& [stride, fields] :
         {std::pair(0u, "512"), std::pair(16u, "32 16"), std::pair(5u, "102 5")}) {
        views->CreateBufferShaderResourceView(m_buffer, stride);
        EXPECT_EQ(m_text, fmt::format("0 1 5768 0 0 0 {}", fields));
    }
    views->CreateBufferUnorderedAccessView(m_buffer, 16, D3D12_BUFFER_UAV_FLAG_RAW, 4096, m_buffer);
    EXPECT_EQ(m_text, "0 1 0 0 32 16 4096 0 1");
    EXPECT_THAT(m_resources, ElementsAre(m_buffer, m_buffer));
}

TEST_F(D3D12DescriptorHeapTest, RefusesWhatCannotBe) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    const auto sampler = m_pool->CreateCPUHeap(kSamplers, 1)->CreateSampler({});
    const ResourcePtr plain = Make(Texture2D(1, 1, 1, D3D12_RESOURCE_FLAG_NONE));
    const ResourcePtr depth =
        Make(Texture2D(1, 1, 1, kDepthFlag | D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE, kDepth));
    const ResourcePtr buffer = MakeBuffer(300);
    const auto view = views->CreateShaderResourceView(plain, {});
    const D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {kColor, D3D12_UAV_DIMENSION_TEXTURE2D, {}};
    const auto nullView = views->CreateUnorderedAccessView(m_none, m_none, uav);

    constexpr auto kSize = "Constant Buffer View requires SizeInBytes be a multiple of 256";
    NORVEX_REFUSED(kSize, targets->CreateConstantBufferView(buffer, {0, 100}));
    NORVEX_REFUSED(kSize, views->CreateConstantBufferView(buffer));
    constexpr auto kUnsupported = "Unsupported resource";
    for (const ResourcePtr& resource : {plain, m_none}) {
        NORVEX_REFUSED(kUnsupported, views->CreateConstantBufferView(resource));
        NORVEX_REFUSED(kUnsupported, views->CreateBufferShaderResourceView(resource, 4));
    }
    for (const ResourcePtr& resource : {buffer, m_none}) {
        NORVEX_REFUSED(kUnsupported, views->CreateTextureShaderResourceView(resource, false));
        NORVEX_REFUSED(kUnsupported,
                       views->CreateBufferUnorderedAccessView(resource, 4, {}, 0, m_none));
    }
    NORVEX_REFUSED(kUnsupported, views->CreateShaderResourceView(m_none, {}));
    NORVEX_REFUSED(kUnsupported, views->CreateUnorderedAccessView(m_none, m_none, {}));
    NORVEX_REFUSED(kUnsupported, views->CreateUnorderedAccessView(m_none, buffer, uav));
    NORVEX_REFUSED(kUnsupported, targets->CreateRenderTargetView(m_none, 0u));
    NORVEX_REFUSED(kUnsupported, D12VertexBuffer::Create(m_none, 4, 4));
    NORVEX_REFUSED(kUnsupported, D12IndexBuffer::Create(m_none, kNone, 6, 12));
    NORVEX_REFUSED("Buffer size requested is too large",
                   D12VertexBuffer::Create(buffer, 1u << 16, 1u << 16));
    NORVEX_REFUSED("Resource created without support for SRV",
                   views->CreateTextureShaderResourceView(depth, false));
    NORVEX_REFUSED("Resource created without support for RTV",
                   targets->CreateRenderTargetView(plain, 0u));
    NORVEX_REFUSED("Resource created without support for UAV",
                   views->CreateTextureUnorderedAccessView(plain, 0));
    NORVEX_REFUSED("Invalid heap type for GPU descriptor heap", m_pool->CreateGPUHeap(kRtv, 1));
    NORVEX_REFUSED("Descriptor heap types are different", visible->CopyDescriptor(0, sampler));
    NORVEX_REFUSED("Invalid descriptor type", visible->CopyDescriptor(0, nullptr));
    ExpectFailure12([&] { visible->CopyDescriptor(64, view); }, "Descriptor index out of range",
                    "GetCPUHandle");
    NORVEX_REFUSED("Descriptor index out of range", visible->GetGPUHandle(64));
    constexpr auto kNoResources = "There are no resources available";
    NORVEX_REFUSED(kNoResources, sampler->Transition({}, {}, 0, {}));
    NORVEX_REFUSED(kNoResources, nullView->GetFirstResource());
    // A resource of a kind that is not known yet.
    const MethodPatch<&ID3D12Resource::GetDesc> patch(
        plain, [](auto original, auto* self, auto* out) {
            original(self, out);
            out->Dimension = static_cast<D3D12_RESOURCE_DIMENSION>(5);
            out->Flags = kAllowAll;
            return out;
        });
    NORVEX_REFUSED("Unknown resource", views->CreateTextureShaderResourceView(plain, false));
    NORVEX_REFUSED("Unknown resource", targets->CreateRenderTargetView(plain, 0u));
    NORVEX_REFUSED("Unknown resource", views->CreateTextureUnorderedAccessView(plain, 0));
}

TEST_F(D3D12DescriptorHeapTest, ACopyKeepsTheResourceNotTheSlot) {
    const auto heap = m_pool->CreateCPUHeap(kViews, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    ResourcePtr texture = Make(Texture2D());
    const LifeProbe probe(texture);
    ViewPtr view = heap->CreateShaderResourceView(texture, std::nullopt);
    EXPECT_EQ(view->GetRect(), (Rect2DT<long>{0, 0, 64, 32}));
    texture.Release();
    std::vector<SIZE_T> copied;
    ViewPtr copy;
    {
        const MethodPatch<&ID3D12Device::CopyDescriptorsSimple> patch(
            Raw(), [&](auto, auto*, UINT count, Handle to, Handle from, auto type) {
                copied = {count, to.ptr, from.ptr, static_cast<SIZE_T>(type)};
            });
        copy = visible->CopyDescriptor(63, view);
    }
    EXPECT_THAT(copied,
                ElementsAre(1u, visible->GetCPUHandle(63).ptr, view->GetCPUHandle().ptr, kViews));
    view.reset();
    EXPECT_EQ(heap->CreateConstantBufferView(m_buffer)->GetIndex(), 0u);
    EXPECT_TRUE(probe.IsAlive());
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
    ViewPtr view = heap->CreateConstantBufferView(m_buffer);
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

TEST_F(D3D12DescriptorHeapTest, BuffersAndBarriersDescribeThemselves) {
    const auto vertices = D12VertexBuffer::Create(m_buffer, 20, 6);
    const auto indices = D12IndexBuffer::Create(m_buffer, DXGI_FORMAT_R16_UINT, 6, 12);
    const D3D12_VERTEX_BUFFER_VIEW vertexView = {m_buffer->GetGPUVirtualAddress(), 120, 20};
    const D3D12_INDEX_BUFFER_VIEW indexView = {vertexView.BufferLocation, 12, DXGI_FORMAT_R16_UINT};
    EXPECT_EQ(WordsOf(&vertices->GetView()), WordsOf(&vertexView));
    EXPECT_EQ(WordsOf(&indices->GetView()), WordsOf(&indexView));
    EXPECT_EQ(vertices->GetStride(), 20u);
    EXPECT_EQ(indices->GetFormat(), DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(vertices->GetCount() + indices->GetCount(), 12u);

    constexpr auto kEnd = D3D12_RESOURCE_BARRIER_FLAG_END_ONLY;
    constexpr auto kAll = D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES;
    const auto check = [](const auto& object, ID3D12Resource* resource, unsigned subresource,
                          D3D12_RESOURCE_BARRIER_FLAGS flags, auto... arguments) {
        EXPECT_EQ(BarrierText(object->Transition(kCopyFrom, kCopyTo, arguments...)),
                  BarrierText(CD3DX12_RESOURCE_BARRIER::Transition(resource, kCopyFrom, kCopyTo,
                                                                   subresource, flags)));
    };
    const auto view = m_pool->CreateTextureShaderResourceView(m_texture);
    const auto buffer = Device()->CreateUploadBuffer(1);
    const auto query = Device()->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const auto textures = D12Texture2DPool::Create(Device(), MakeTextureDesc(8, 8, 4));
    const std::vector slices = {textures->ObtainTexture(), textures->ObtainTexture()};
    check(view, m_texture, 3, kEnd, 3u, kEnd);
    check(buffer, buffer->GetResource(), kAll, kEnd, kEnd);
    check(query, query->GetResource(), kAll, {});
    check(slices[1], slices[0]->GetResource(), 2, kEnd, 2u, kEnd); // as named, not its own
}

} // namespace
} // namespace Norvex::DX
