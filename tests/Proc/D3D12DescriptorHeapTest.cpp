#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

#include <cstring>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ExpectFailure12;
using Norvex::Test::FailingMethod;
using Norvex::Test::LifeProbe;
using Norvex::Test::MethodPatch;
using testing::ElementsAre;
namespace Slot = Norvex::Test::Slot;

using DescriptorPtr = boost::intrusive_ptr<D12Descriptor>;
using CPUHeap = D12DescriptorCPUHeap;
using ResourcePtr = CComPtr<ID3D12Resource>;
using Handle = D3D12_CPU_DESCRIPTOR_HANDLE;

constexpr auto kViews = D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV;
constexpr auto kSamplers = D3D12_DESCRIPTOR_HEAP_TYPE_SAMPLER;
constexpr auto kRtv = D3D12_DESCRIPTOR_HEAP_TYPE_RTV;
constexpr auto kDsv = D3D12_DESCRIPTOR_HEAP_TYPE_DSV;
constexpr auto kColor = DXGI_FORMAT_R8G8B8A8_UNORM; // 28
constexpr auto kTarget = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
constexpr auto kUnordered = D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;
const auto kAllowAll = kTarget | kUnordered;

constexpr D3D12_SAMPLER_DESC kSampler = {.Filter = D3D12_FILTER_ANISOTROPIC,
                                         .AddressU = D3D12_TEXTURE_ADDRESS_MODE_WRAP,
                                         .AddressV = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .AddressW = D3D12_TEXTURE_ADDRESS_MODE_MIRROR,
                                         .MipLODBias = 1,
                                         .MaxAnisotropy = 7,
                                         .ComparisonFunc = D3D12_COMPARISON_FUNC_LESS,
                                         .BorderColor = {1, 2, 3, 4},
                                         .MinLOD = 5,
                                         .MaxLOD = 6};

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

// The 32-bit words of a description, without the last ones that are zero.
template <class Desc>
std::string TextOf(const char* kind, const Desc* desc) {
    if (desc == nullptr) {
        return fmt::format("{} none", kind);
    }
    std::vector<std::uint32_t> words(sizeof(Desc) / sizeof(std::uint32_t));
    std::memcpy(words.data(), desc, sizeof(Desc));
    while (!words.empty() && words.back() == 0) {
        words.pop_back();
    }
    return fmt::format("{} {}", kind, fmt::join(words, " "));
}

// Notes what the device is told to write, and where, instead of having it done.
class ViewRecorder {
    using Device = ID3D12Device;
    template <std::size_t slot, class Desc>
    using ViewPatch = MethodPatch<slot, void(Device*, ID3D12Resource*, const Desc*, Handle)>;

    void Note(std::string written, std::vector<ResourcePtr> of, Handle where) {
        text = std::move(written);
        std::erase(of, nullptr);
        resources = std::move(of);
        handle = where.ptr;
    }
    auto Noter(const char* kind) {
        return [this, kind](auto, auto, auto* resource, auto* desc, Handle where) {
            Note(TextOf(kind, desc), {resource}, where);
        };
    }

public:
    explicit ViewRecorder(Device* device)
        : m_cbv(device,
                [this](auto, auto, auto* desc, Handle where) {
                    Note(fmt::format("CBV {} at {}", desc->SizeInBytes, desc->BufferLocation), {},
                         where);
                }),
          m_srv(device, Noter("SRV")),
          m_uav(device,
                [this](auto, auto, auto* resource, auto* counter, auto* desc, Handle where) {
                    Note(TextOf("UAV", desc), {resource, counter}, where);
                }),
          m_rtv(device, Noter("RTV")),
          m_dsv(device, Noter("DSV")),
          m_sampler(device, [this](auto, auto, auto* desc, Handle where) {
              Note(TextOf("sampler", desc), {}, where);
          }) {}

    std::string text;
    std::vector<ResourcePtr> resources;
    SIZE_T handle = 0;

private:
    MethodPatch<Slot::kDeviceCreateConstantBufferView,
                void(Device*, const D3D12_CONSTANT_BUFFER_VIEW_DESC*, Handle)>
        m_cbv;
    ViewPatch<Slot::kDeviceCreateShaderResourceView, D3D12_SHADER_RESOURCE_VIEW_DESC> m_srv;
    MethodPatch<Slot::kDeviceCreateUnorderedAccessView,
                void(Device*, ID3D12Resource*, ID3D12Resource*,
                     const D3D12_UNORDERED_ACCESS_VIEW_DESC*, Handle)>
        m_uav;
    ViewPatch<Slot::kDeviceCreateRenderTargetView, D3D12_RENDER_TARGET_VIEW_DESC> m_rtv;
    ViewPatch<Slot::kDeviceCreateDepthStencilView, D3D12_DEPTH_STENCIL_VIEW_DESC> m_dsv;
    MethodPatch<Slot::kDeviceCreateSampler, void(Device*, const D3D12_SAMPLER_DESC*, Handle)>
        m_sampler;
};

class D3D12DescriptorHeapTest : public Norvex::Test::DeviceTest {
protected:
    void SetUp() override { m_pool.reset(new D12DescriptorHeapPool(RawPtr())); }

    static ResourcePtr Make(const D3D12_RESOURCE_DESC& desc) {
        const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_DEFAULT);
        ResourcePtr resource;
        EXPECT_EQ(Raw()->CreateCommittedResource(&heap, D3D12_HEAP_FLAG_NONE, &desc,
                                                 D3D12_RESOURCE_STATE_COMMON, nullptr,
                                                 IID_PPV_ARGS(&resource)),
                  S_OK);
        return resource;
    }
    static ResourcePtr MakeBuffer(std::uint64_t size) {
        return Make(CD3DX12_RESOURCE_DESC::Buffer(size, kUnordered));
    }
    static D3D12_RESOURCE_DESC Texture2D(UINT16 array, UINT16 mips = 1, UINT samples = 1,
                                         D3D12_RESOURCE_FLAGS flags = kAllowAll,
                                         DXGI_FORMAT format = kColor) {
        return CD3DX12_RESOURCE_DESC::Tex2D(format, 64, 64, array, mips, samples, 0, flags);
    }

    boost::intrusive_ptr<D12DescriptorHeapPool> m_pool;
};

TEST_F(D3D12DescriptorHeapTest, EveryViewTakesASlotAndIsWrittenThere) {
    const ResourcePtr buffer = MakeBuffer(512);
    const ResourcePtr counter = MakeBuffer(4096);
    const ResourcePtr texture = Make(Texture2D(1));
    const ResourcePtr depth =
        Make(Texture2D(1, 1, 1, D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL, DXGI_FORMAT_D32_FLOAT));
    D3D12_SHADER_RESOURCE_VIEW_DESC srv = {};
    D3D12_UNORDERED_ACCESS_VIEW_DESC uav = {};
    D3D12_RENDER_TARGET_VIEW_DESC rtv = {};
    D3D12_DEPTH_STENCIL_VIEW_DESC dsv = {};
    srv.Format = DXGI_FORMAT_R8G8B8A8_UNORM_SRGB;
    uav.ViewDimension = D3D12_UAV_DIMENSION_BUFFER;
    rtv.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2D;
    rtv.Format = DXGI_FORMAT_R8G8B8A8_UINT;
    dsv.Flags = D3D12_DSV_FLAG_READ_ONLY_DEPTH;
    const auto address = buffer->GetGPUVirtualAddress();
    ViewRecorder recorder(Raw());
    const auto check = [&](D12Descriptor::DescriptorType type, DXGI_FORMAT format,
                           const std::string& written, const std::vector<ResourcePtr>& keeps,
                           const std::function<DescriptorPtr(CPUHeap&)>& create) {
        const auto& kind = kKinds[type];
        SCOPED_TRACE(written);
        const auto wrongHeap = m_pool->CreateCPUHeap(kind.heapType == kRtv ? kDsv : kRtv, 1);
        ExpectFailure12([&] { create(*wrongHeap); }, "Invalid heap type", kind.function);

        const auto heap = m_pool->CreateCPUHeap(kind.heapType, 10);
        std::vector<DescriptorPtr> views;
        for (unsigned i = 0; i < heap->NumDescriptors(); ++i) {
            views.push_back(create(*heap));
            EXPECT_EQ(views[i]->GetIndex(), i);
            EXPECT_EQ(recorder.handle, heap->GetCPUHandle(i).ptr);
        }
        ExpectFailure12([&] { create(*heap); },
                        std::string("There is no free space in the heap to create ") + kind.words,
                        kind.function);
        views[41].reset();
        views[7].reset();
        const DescriptorPtr view = create(*heap);
        EXPECT_EQ(view->GetIndex(), 7u);
        EXPECT_EQ(view->GetCPUHandle().ptr, heap->GetCPUHandle(7).ptr);
        EXPECT_EQ(view->GetType(), type);
        EXPECT_EQ(view->GetFormat(), format);
        EXPECT_EQ(view->GetHeapType(), kind.heapType);
        EXPECT_EQ(view->GetResources(), keeps);
        EXPECT_EQ(recorder.text, written);
        if (type != D12Descriptor::ConstantBuffer) {
            EXPECT_EQ(recorder.resources, keeps);
        }
    };
    constexpr auto kNone = DXGI_FORMAT_UNKNOWN;
    const std::string place = fmt::format("at {}", address);
    check(D12Descriptor::ConstantBuffer, kNone, "CBV 256 " + place, {buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(buffer, {address, 256}); });
    check(D12Descriptor::ConstantBuffer, kNone, "CBV 512 " + place, {buffer},
          [&](auto& heap) { return heap.CreateConstantBufferView(buffer); });
    check(D12Descriptor::ConstantBuffer, kNone, "CBV 256 at 0", {},
          [&](auto& heap) { return heap.CreateConstantBufferView(nullptr, {0, 256}); });
    check(D12Descriptor::ShaderResource, kColor, "SRV none", {texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(texture, std::nullopt); });
    check(D12Descriptor::ShaderResource, srv.Format, TextOf("SRV", &srv), {texture},
          [&](auto& heap) { return heap.CreateShaderResourceView(texture, srv); });
    check(D12Descriptor::ShaderResource, srv.Format, TextOf("SRV", &srv), {},
          [&](auto& heap) { return heap.CreateShaderResourceView(nullptr, srv); });
    check(D12Descriptor::UnorderedAccess, kNone, TextOf("UAV", &uav), {buffer, counter},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(buffer, counter, uav); });
    check(D12Descriptor::UnorderedAccess, kColor, "UAV none", {texture},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(texture, nullptr, {}); });
    check(D12Descriptor::UnorderedAccess, kNone, TextOf("UAV", &uav), {},
          [&](auto& heap) { return heap.CreateUnorderedAccessView(nullptr, nullptr, uav); });
    check(D12Descriptor::Sampler, kNone, TextOf("sampler", &kSampler), {},
          [&](auto& heap) { return heap.CreateSampler(kSampler); });
    check(D12Descriptor::RenderTarget, kColor, "RTV none", {texture},
          [&](auto& heap) { return heap.CreateRenderTargetView(texture, std::nullopt); });
    check(D12Descriptor::RenderTarget, rtv.Format, TextOf("RTV", &rtv), {},
          [&](auto& heap) { return heap.CreateRenderTargetView(nullptr, rtv); });
    check(D12Descriptor::DepthStencil, DXGI_FORMAT_D32_FLOAT, "DSV none", {depth},
          [&](auto& heap) { return heap.CreateDepthStencilView(depth, std::nullopt); });
    check(D12Descriptor::DepthStencil, kNone, TextOf("DSV", &dsv), {},
          [&](auto& heap) { return heap.CreateDepthStencilView(nullptr, dsv); });
}

// Format, dimension, in shader resource views mapping and padding, then what the dimension has.
TEST_F(D3D12DescriptorHeapTest, ViewsFollowTheResource) {
    const auto texture1D = [](UINT16 array) {
        return CD3DX12_RESOURCE_DESC::Tex1D(kColor, 64, array, 3, kAllowAll);
    };
    const struct {
        D3D12_RESOURCE_DESC resource;
        bool isCube;
        const char* srv;
        const char* rtv = nullptr;
        const char* uav = nullptr;
    } cases[] = {
        {texture1D(1), false, "SRV 28 2 5768 0 0 3", "RTV 28 2 2", "UAV 28 2 2"},
        {texture1D(2), false, "SRV 28 3 5768 0 0 3 0 2", "RTV 28 3 2 0 2", "UAV 28 3 2 0 2"},
        {Texture2D(1, 3), false, "SRV 28 4 5768 0 0 3", "RTV 28 4 2", "UAV 28 4 2"},
        {Texture2D(6, 3), false, "SRV 28 5 5768 0 0 3 0 6", "RTV 28 5 2 0 6", "UAV 28 5 2 0 6"},
        {CD3DX12_RESOURCE_DESC::Tex3D(kColor, 64, 64, 9, 3, kAllowAll), false,
         "SRV 28 8 5768 0 0 3", "RTV 28 8 2 0 9", "UAV 28 8 2 0 9"},
        {Texture2D(1, 1, 4, kTarget), false, "SRV 28 4 5768 0 0 1", "RTV 28 6"},
        {Texture2D(3, 1, 4, kTarget), false, "SRV 28 5 5768 0 0 1 0 3", "RTV 28 7 0 3"},
        {Texture2D(6), true, "SRV 28 9 5768 0 0 1"},
        {Texture2D(12), true, "SRV 28 10 5768 0 0 1 0 2"},
        {Texture2D(13), true, "SRV 28 10 5768 0 0 1 0 2"},
    };
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const ViewRecorder recorder(Raw());
    for (const auto& c : cases) {
        const ResourcePtr texture = Make(c.resource);
        views->CreateTextureShaderResourceView(texture, c.isCube);
        EXPECT_EQ(recorder.text, c.srv);
        if (c.rtv != nullptr) {
            targets->CreateRenderTargetView(texture, 2);
            EXPECT_EQ(recorder.text, c.rtv);
        }
        if (c.uav != nullptr) {
            views->CreateTextureUnorderedAccessView(texture, 2);
            EXPECT_EQ(recorder.text, c.uav);
        }
    }
    const ResourcePtr buffer = MakeBuffer(1000);
    for (const auto& [stride, fields] :
         {std::pair(0u, "1000"), std::pair(16u, "62 16"), std::pair(4u, "250 4")}) {
        views->CreateBufferShaderResourceView(buffer, stride);
        EXPECT_EQ(recorder.text, fmt::format("SRV 0 1 5768 0 0 0 {}", fields));
    }
    views->CreateBufferUnorderedAccessView(buffer, 16, D3D12_BUFFER_UAV_FLAG_RAW, 4096, buffer);
    EXPECT_EQ(recorder.text, "UAV 0 1 0 0 62 16 4096 0 1");
    EXPECT_THAT(recorder.resources, ElementsAre(buffer, buffer));
}

TEST_F(D3D12DescriptorHeapTest, RefusesWhatCannotBe) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    const auto sampler = m_pool->CreateCPUHeap(kSamplers, 1)->CreateSampler(kSampler);
    const ResourcePtr none;
    const ResourcePtr plain = Make(Texture2D(1, 1, 1, D3D12_RESOURCE_FLAG_NONE));
    const ResourcePtr depthOnly = Make(Texture2D(
        1, 1, 1, D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL | D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE,
        DXGI_FORMAT_D32_FLOAT));
    const ResourcePtr buffer = Make(CD3DX12_RESOURCE_DESC::Buffer(300));
    const auto view = views->CreateShaderResourceView(plain, std::nullopt);
    D3D12_UNORDERED_ACCESS_VIEW_DESC uavDesc = {};
    uavDesc.Format = kColor;
    uavDesc.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE2D;
    const auto nullView = views->CreateUnorderedAccessView(none, none, uavDesc);
    const auto srv = [&](const ResourcePtr& r) {
        views->CreateTextureShaderResourceView(r, false);
    };
    const auto rtv = [&](const ResourcePtr& r) { targets->CreateRenderTargetView(r, 0u); };
    const auto uav = [&](const ResourcePtr& r) { views->CreateTextureUnorderedAccessView(r, 0); };
    const auto bufferUav = [&](const ResourcePtr& r) {
        views->CreateBufferUnorderedAccessView(r, 4, D3D12_BUFFER_UAV_FLAG_NONE, 0, nullptr);
    };
    constexpr auto kSize = "Constant Buffer View requires SizeInBytes be a multiple of 256";
    constexpr auto kUnsupported = "Unsupported resource";
    constexpr auto kNoResources = "There are no resources available";
    constexpr auto kOutOfRange = "Descriptor index out of range";
    const struct {
        std::function<void()> call;
        const char* sentence;
        const char* function;
    } cases[] = {
        {[&] { targets->CreateConstantBufferView(buffer, {0, 100}); }, kSize,
         "CreateConstantBufferView"},
        {[&] { views->CreateConstantBufferView(buffer); }, kSize, "CreateConstantBufferView"},
        {[&] { views->CreateConstantBufferView(plain); }, kUnsupported, "CreateConstantBufferView"},
        {[&] { views->CreateConstantBufferView(none); }, kUnsupported, "CreateConstantBufferView"},
        {[&] { views->CreateShaderResourceView(none, {}); }, kUnsupported,
         "CreateShaderResourceView"},
        {[&] { views->CreateUnorderedAccessView(none, none, {}); }, kUnsupported,
         "CreateUnorderedAccessView"},
        {[&] { views->CreateUnorderedAccessView(none, buffer, uavDesc); }, kUnsupported,
         "CreateUnorderedAccessView"},
        {[&] { views->CreateBufferShaderResourceView(plain, 4); }, kUnsupported,
         "CreateBufferShaderResourceView"},
        {[&] { views->CreateBufferShaderResourceView(none, 4); }, kUnsupported,
         "CreateBufferShaderResourceView"},
        {[&] { bufferUav(buffer); }, kUnsupported, "CreateBufferUnorderedAccessView"},
        {[&] { srv(buffer); }, kUnsupported, "CreateTextureShaderResourceView"},
        {[&] { srv(none); }, kUnsupported, "CreateTextureShaderResourceView"},
        {[&] { rtv(none); }, kUnsupported, "CreateRenderTargetView"},
        {[&] { srv(depthOnly); }, "Resource created without support for SRV",
         "CreateTextureShaderResourceView"},
        {[&] { rtv(plain); }, "Resource created without support for RTV", "CreateRenderTargetView"},
        {[&] { uav(plain); }, "Resource created without support for UAV",
         "CreateTextureUnorderedAccessView"},
        {[&] { m_pool->CreateGPUHeap(kRtv, 1); }, "Invalid heap type for GPU descriptor heap",
         "CreateGPUHeap"},
        {[&] { visible->CopyDescriptor(0, sampler); }, "Descriptor heap types are different",
         "CopyDescriptor"},
        {[&] { visible->CopyDescriptor(0, nullptr); }, "Invalid descriptor type", "CopyDescriptor"},
        {[&] { visible->CopyDescriptor(64, view); }, kOutOfRange, "GetCPUHandle"},
        {[&] { visible->GetGPUHandle(64); }, kOutOfRange, "GetGPUHandle"},
        {[&] { sampler->Transition({}, {}, 0, {}); }, kNoResources, "Transition"},
        {[&] { nullView->GetFirstResource(); }, kNoResources, "GetFirstResource"},
        {[&] { D12VertexBuffer::Create(none, 4, 4); }, kUnsupported, "Create"},
        {[&] { D12VertexBuffer::Create(buffer, 1u << 16, 1u << 16); },
         "Buffer size requested is too large", "Create"},
        {[&] { D12IndexBuffer::Create(none, DXGI_FORMAT_R16_UINT, 6, 12); }, kUnsupported,
         "Create"},
    };
    for (const auto& c : cases) {
        ExpectFailure12(c.call, c.sentence, c.function);
    }
    const FailingMethod<Slot::kDeviceCreateDescriptorHeap> fail(Raw(), E_OUTOFMEMORY);
    ExpectFailure12([&] { m_pool->CreateCPUHeap(kDsv, 1); }, "Failed to create descriptor heap",
                    "CreateHeap", E_OUTOFMEMORY);
    // A resource of a kind that is not known yet.
    const MethodPatch<Slot::kResourceGetDesc,
                      D3D12_RESOURCE_DESC*(ID3D12Resource*, D3D12_RESOURCE_DESC*)>
        patch(plain, [](auto original, auto self, auto out) {
            original(self, out);
            out->Dimension = static_cast<D3D12_RESOURCE_DIMENSION>(5);
            out->Flags = kAllowAll;
            return out;
        });
    ExpectFailure12([&] { srv(plain); }, "Unknown resource", "CreateTextureShaderResourceView");
    ExpectFailure12([&] { rtv(plain); }, "Unknown resource", "CreateRenderTargetView");
    ExpectFailure12([&] { uav(plain); }, "Unknown resource", "CreateTextureUnorderedAccessView");
}

TEST_F(D3D12DescriptorHeapTest, CopiesAndHandlesKeepWhatTheyNeed) {
    const auto heap = m_pool->CreateCPUHeap(kViews, 1);
    const auto visible = m_pool->CreateGPUHeap(kViews, 1);
    ResourcePtr texture = Make(CD3DX12_RESOURCE_DESC::Tex2D(kColor, 40, 30));
    const LifeProbe probe(texture);
    DescriptorPtr view = heap->CreateShaderResourceView(texture, std::nullopt);
    EXPECT_EQ(view->GetRect(), (Rect2DT<long>{0, 0, 40, 30}));
    const auto barrier =
        view->Transition(D3D12_RESOURCE_STATE_COPY_DEST, D3D12_RESOURCE_STATE_RENDER_TARGET, 3,
                         D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    EXPECT_EQ(barrier.Flags, D3D12_RESOURCE_BARRIER_FLAG_END_ONLY);
    EXPECT_EQ(barrier.Transition.pResource, texture);
    EXPECT_EQ(barrier.Transition.Subresource, 3u);
    EXPECT_EQ(barrier.Transition.StateBefore, D3D12_RESOURCE_STATE_COPY_DEST);
    EXPECT_EQ(barrier.Transition.StateAfter, D3D12_RESOURCE_STATE_RENDER_TARGET);
    texture.Release();

    DescriptorPtr second(new D12Descriptor(*view));
    DescriptorPtr third(new D12Descriptor(*second));
    view.reset();
    second.reset();
    EXPECT_EQ(heap->CreateConstantBufferView(MakeBuffer(256))->GetIndex(), 1u);
    std::vector<SIZE_T> copied;
    DescriptorPtr copy;
    {
        const MethodPatch<Slot::kDeviceCopyDescriptorsSimple,
                          void(ID3D12Device*, UINT, Handle, Handle, D3D12_DESCRIPTOR_HEAP_TYPE)>
            patch(Raw(), [&](auto, auto, UINT count, Handle to, Handle from, auto type) {
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

TEST_F(D3D12DescriptorHeapTest, RecyclesTheSmallestHeapThatIsLargeEnough) {
    const auto heapOf = [](const auto& wrapper) { return wrapper->GetHeap().p; };
    auto small64 = m_pool->CreateCPUHeap(kViews, 1);
    auto large = m_pool->CreateCPUHeap(kViews, 129);
    auto visible = m_pool->CreateGPUHeap(kViews, 64);
    EXPECT_EQ(small64->NumDescriptors(), 64u);
    EXPECT_EQ(large->NumDescriptors(), 192u);
    EXPECT_EQ(visible->NumDescriptors(), 64u);
    EXPECT_EQ(visible->GetGPUHandle(3).ptr - visible->GetGPUHandle(0).ptr,
              3u * Raw()->GetDescriptorHandleIncrementSize(kViews));
    ID3D12DescriptorHeap* const smallHeap = heapOf(small64);
    ID3D12DescriptorHeap* const largeHeap = heapOf(large);
    ID3D12DescriptorHeap* const visibleHeap = heapOf(visible);
    DescriptorPtr view = small64->CreateConstantBufferView(MakeBuffer(256));
    large.reset();
    small64.reset();
    visible.reset();
    EXPECT_NE(heapOf(m_pool->CreateCPUHeap(kViews, 1)), smallHeap) << "a descriptor holds it";
    view.reset();

    EXPECT_NE(heapOf(m_pool->CreateCPUHeap(kSamplers, 10)), smallHeap); // another type
    const auto tooLarge = m_pool->CreateCPUHeap(kViews, 193);
    EXPECT_NE(heapOf(tooLarge), largeHeap);
    const auto first = m_pool->CreateCPUHeap(kViews, 64);
    EXPECT_EQ(heapOf(first), smallHeap);
    const auto second = m_pool->CreateCPUHeap(kViews, 65);
    EXPECT_EQ(heapOf(second), largeHeap);
    EXPECT_EQ(heapOf(m_pool->CreateGPUHeap(kViews, 64)), visibleHeap);
}

TEST_F(D3D12DescriptorHeapTest, SharedHeapIsReplacedWhenFullAndRecycledLater) {
    const ResourcePtr texture = Make(Texture2D(1));
    const auto countReferences = [] { return (Raw()->AddRef(), Raw()->Release()); };
    m_pool.reset();
    const ULONG before = countReferences();
    m_pool.reset(new D12DescriptorHeapPool(RawPtr()));
    std::vector<DescriptorPtr> views;
    for (int i = 0; i < 64; ++i) {
        views.push_back(i % 2 == 0 ? m_pool->CreateRenderTargetView(texture)
                                   : m_pool->CreateRenderTargetView(texture, std::nullopt));
    }
    EXPECT_EQ(views[63]->GetIndex(), 63u);
    const SIZE_T firstHeapStart = views[0]->GetCPUHandle().ptr;
    DescriptorPtr next = m_pool->CreateRenderTargetView(texture);
    EXPECT_EQ(next->GetIndex(), 0u);
    EXPECT_NE(next->GetCPUHandle().ptr, firstHeapStart);
    EXPECT_EQ(m_pool->CreateTextureShaderResourceView(texture)->GetHeapType(), kViews);
    views[5].reset(); // its heap is no longer the shared one
    EXPECT_EQ(m_pool->CreateRenderTargetView(texture)->GetIndex(), 1u);
    views.clear();
    EXPECT_EQ(m_pool->CreateCPUHeap(kRtv, 64)->GetCPUHandle(0).ptr, firstHeapStart);
    m_pool.reset();
    next.reset();
    EXPECT_EQ(countReferences(), before);
}

TEST_F(D3D12DescriptorHeapTest, ThreadsShareTheSharedHeaps) {
    const ResourcePtr texture = Make(Texture2D(1));
    std::vector<std::vector<DescriptorPtr>> views(4);
    std::vector<std::thread> threads;
    for (auto& mine : views) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                mine.push_back(m_pool->CreateRenderTargetView(texture));
                m_pool->CreateTextureShaderResourceView(texture);
            }
        });
    }
    std::set<SIZE_T> handles;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        for (const auto& view : views[i]) {
            handles.insert(view->GetCPUHandle().ptr);
        }
    }
    EXPECT_EQ(handles.size(), 800u) << "two views in one slot";
}

TEST_F(D3D12DescriptorHeapTest, InputBuffersDescribeThemselves) {
    const ResourcePtr buffer = MakeBuffer(1024);
    const auto vertices = D12VertexBuffer::Create(buffer, 20, 6);
    EXPECT_EQ(vertices->GetView().BufferLocation, buffer->GetGPUVirtualAddress());
    EXPECT_EQ(vertices->GetView().SizeInBytes, 120u);
    EXPECT_EQ(vertices->GetStride(), 20u);
    EXPECT_EQ(vertices->GetCount(), 6u);
    const auto indices = D12IndexBuffer::Create(buffer, DXGI_FORMAT_R16_UINT, 6, 12);
    EXPECT_EQ(indices->GetView().BufferLocation, buffer->GetGPUVirtualAddress());
    EXPECT_EQ(indices->GetView().SizeInBytes, 12u);
    EXPECT_EQ(indices->GetFormat(), DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(indices->GetCount(), 6u);
}

} // namespace
} // namespace Norvex::DX
