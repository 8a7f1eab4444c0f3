// Direct3D 11 resources, and the context that records on them.

#include "Proc/DirectX/Manager/D3D11Resource.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <semaphore>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/DirectXShader.h"
#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr UINT kDrawAndRead = D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET;

class D3D11ResourceTest : public Device11Test {
protected:
    template <class Function>
    static void Encode(const Function& function) {
        s_device->Encode([&](const auto& context) { function(*context); });
    }
};

TEST_F(D3D11ResourceTest, TexturesAddTheirBindFlagAndDieWithTheirWrapper) {
    const auto check = [](auto texture) {
        D3D11_TEXTURE2D_DESC made = {};
        texture->GetDesc(&made);
        EXPECT_EQ(made.BindFlags, kDrawAndRead);
        EXPECT_EQ(texture->GetSize(), (Size2DT<long>{20, 10}));
        const LifeProbe probe(texture->GetTexture());
        texture.reset();
        EXPECT_FALSE(probe.IsAlive());
    };
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(20, 10, kRgba8);
    desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    check(D11RenderTexture2D::Create(s_device, desc));
    desc.BindFlags = D3D11_BIND_RENDER_TARGET;
    check(D11ShaderTexture2D::Create(s_device, desc, nullptr));
    EXPECT_EQ(D11RenderTexture2D::Create(s_device, desc)->GetRect(), (Rect2DT<long>{0, 0, 20, 10}));
}

TEST_F(D3D11ResourceTest, ViewsTakeTheFormatTheyAreGiven) {
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, DXGI_FORMAT_R8G8B8A8_TYPELESS);
    desc.BindFlags = kDrawAndRead;
    desc.MipLevels = 2;
    const auto texture = s_device->CreateTexture2D(desc, nullptr);
    D3D11_RENDER_TARGET_VIEW_DESC renderView = {};
    D11RenderTexture2D(texture, DXGI_FORMAT_R8G8B8A8_UNORM_SRGB).GetViewDesc(&renderView);
    EXPECT_EQ(renderView.Format, DXGI_FORMAT_R8G8B8A8_UNORM_SRGB);
    D3D11_SHADER_RESOURCE_VIEW_DESC shaderView = {};
    D11ShaderTexture2D(texture, kRgba8).GetView()->GetDesc(&shaderView);
    EXPECT_EQ(shaderView.Format, kRgba8);
    EXPECT_EQ(shaderView.Texture2D.MipLevels, 1u);

    const FailingMethod<&ID3D11Device::CreateRenderTargetView> noRender(Raw(), E_ACCESSDENIED);
    const FailingMethod<&ID3D11Device::CreateShaderResourceView> noShader(Raw(), E_ACCESSDENIED);
    const auto thrown = ExpectFailure11([&] { D11RenderTexture2D(texture, {}); },
                                        "Failed to create render rarget view",
                                        "CreateRenderTargetView", E_ACCESSDENIED);
    EXPECT_THAT(thrown.details, HasSubstr("Adapter name: "));
    ExpectFailure11([&] { D11ShaderTexture2D(texture, {}); },
                    "Failed to create shader resource view", "CreateShaderResourceView",
                    E_ACCESSDENIED);
}

// What sharing adds to a texture, which this system lacks: a keyed mutex and a handle.
struct FakeSharing : FakeObject {
    FakeSharing() {
        Set(SlotOf(&IDXGIKeyedMutex::AcquireSync), [](FakeSharing* self, UINT64 key, DWORD time) {
            self->acquired = {key, time};
            self->isAcquired.release();
            return self->answer;
        });
        Set(SlotOf(&IDXGIKeyedMutex::ReleaseSync), [](FakeSharing* self, UINT64 key) {
            self->released = key;
            return self->answer;
        });
        Set(SlotOf(&IDXGIResource1::CreateSharedHandle), [](FakeSharing* self, const SECURITY_ATTRIBUTES*,
                                                   DWORD asked, LPCWSTR, HANDLE* handle) {
            self->access = asked;
            *handle = self;
            return self->answer;
        });
    }

    HRESULT answer = S_OK;
    std::pair<UINT64, DWORD> acquired;
    std::counting_semaphore<> isAcquired{0};
    std::atomic<UINT64> released = 0;
    DWORD access = 0;
};

TEST_F(D3D11ResourceTest, SharedTexturesNeedLevel11_1AndAKeyedMutex) {
    const D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(20, 10, kRgba8);
    const auto texture = s_device->CreateTexture2D(desc, nullptr);
    std::vector<UINT> miscFlags;
    const MethodPatch<&ID3D11Device::CreateTexture2D>
        create(Raw(), [&](auto original, ID3D11Device* self, const D3D11_TEXTURE2D_DESC* asked,
                          const D3D11_SUBRESOURCE_DATA* data, ID3D11Texture2D** out) {
            miscFlags.push_back(asked->MiscFlags);
            return original(self, &desc, data, out); // sharing is not the system's here
        });
    const auto older = D11Device::Attach(MakeRawDevice11(D3D_FEATURE_LEVEL_11_0));
    ExpectFailure11([&] { D11SharedTexture2D::Create(older, desc); },
                    "Shared texture not supported", "Create");
    EXPECT_TRUE(miscFlags.empty()) << "nothing was made";
    {
        const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex> none(texture, nullptr);
        ExpectFailure11([&] { D11SharedTexture2D::Create(s_device, desc); },
                        "Failed to get texture key mutex", "GetKeyedMutex", E_NOINTERFACE);
        EXPECT_THAT(miscFlags, ElementsAre(0x900u));
    }
    FakeSharing mutex;
    const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex> patch(texture, &mutex);
    EXPECT_EQ(D11SharedTexture2D::Create(s_device, desc)->GetSize(), (Size2DT<long>{20, 10}));
    EXPECT_EQ(mutex.GetReferences(), 0);
}

TEST_F(D3D11ResourceTest, ASharedTexturePassesKeyTimeAndAccess) {
    const auto texture = s_device->CreateTexture2D(MakeTextureDesc11(8, 8, kRgba8), nullptr);
    FakeSharing sharing;
    const auto shared = [&] {
        const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex> patch(texture, &sharing);
        return boost::intrusive_ptr(new D11SharedTexture2D(texture));
    }();
    const auto acquire = [&] { shared->AcquireSync(7, 250); };
    const auto release = [&] { shared->ReleaseSync(8); };
    const auto share = [&] { EXPECT_NE(shared->CreateSharedHandle(9), nullptr); };
    for (const HRESULT answer : {HRESULT{S_OK}, HRESULT{WAIT_TIMEOUT}, HRESULT{WAIT_ABANDONED}}) {
        sharing.answer = answer;
        EXPECT_EQ(SentenceOf(acquire), "(nothing)");
        sharing.isAcquired.acquire();
    }
    EXPECT_EQ(sharing.acquired, std::pair(UINT64{7}, DWORD{250}));
    std::jthread other;
    Encode([&](D11DeviceContext&) {
        other = std::jthread([&] {
            acquire();
            release();
        });
        sharing.isAcquired.acquire(); // without a turn on the context
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(sharing.released, 0u) << "the context was used by two threads";
        shared->ReleaseSync(1);
        EXPECT_EQ(sharing.released, 1u);
    });
    other.join();
    EXPECT_EQ(sharing.released, 8u);
    {
        const InterfacePatch<ID3D11Texture2D, IDXGIResource1> none(texture, nullptr);
        ExpectFailure11(share, "Failed to query interface", "CreateSharedHandle", E_NOINTERFACE);
    }
    const InterfacePatch<ID3D11Texture2D, IDXGIResource1> patch(texture, &sharing);
    share();
    EXPECT_EQ(sharing.access, 9u);
    sharing.answer = E_ACCESSDENIED;
    ExpectFailure11(acquire, "Failed to acquire texture key mutex", "AcquireSync", E_ACCESSDENIED);
    ExpectFailure11(release, "Failed to release texture key mutex", "ReleaseSync", E_ACCESSDENIED);
    ExpectFailure11(share, "Failed to create shared handle", "CreateSharedHandle", E_ACCESSDENIED);
}

TEST_F(D3D11ResourceTest, BuffersAreAsLargeAsTheirContents) {
    const auto check = [](const auto& made, UINT size, UINT bindFlags, UINT count) {
        D3D11_BUFFER_DESC desc = {};
        made->GetBuffer()->GetDesc(&desc);
        const D3D11_BUFFER_DESC expected = {size, D3D11_USAGE_DEFAULT, bindFlags, 0, 0, 0};
        EXPECT_EQ(std::memcmp(&desc, &expected, sizeof(desc)), 0) << size;
        EXPECT_EQ(made->GetCount(), count);
        return made;
    };
    const std::vector<std::uint8_t> bytes(60);
    const std::vector<std::uint16_t> narrow(6);
    const std::vector<std::uint32_t> wide(6);
    EXPECT_EQ(check(D11VertexBuffer::Create(s_device, bytes.data(), 20, 3), 60,
                    D3D11_BIND_VERTEX_BUFFER, 3)
                  ->GetStride(),
              20u);
    EXPECT_EQ(check(D11IndexBuffer::Create(s_device, narrow), 12, D3D11_BIND_INDEX_BUFFER, 6)
                  ->GetFormat(),
              DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(
        check(D11IndexBuffer::Create(s_device, wide), 24, D3D11_BIND_INDEX_BUFFER, 6)->GetFormat(),
        DXGI_FORMAT_R32_UINT);
    const auto refuse = [&](const char* size, const void* data, UINT stride, UINT count) {
        ExpectFailure11([&] { D11VertexBuffer::Create(s_device, data, stride, count); },
                        std::string("Failed to create ID3D11Buffer: byteWidth = ") + size, "Create",
                        E_INVALIDARG);
    };
    refuse("4295032832", bytes.data(), 65536, 65537); // 65536 in 32 bits
    refuse("0", bytes.data(), 20, 0);
    refuse("60", nullptr, 20, 3);
    ExpectFailure11([&] { D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>()); },
                    "Failed to create ID3D11Buffer: byteWidth = 0", "Create", E_INVALIDARG);
}

TEST_F(D3D11ResourceTest, NullIsRefusedByName) {
    const auto texture = s_device->CreateTexture2D(MakeTextureDesc11(8, 8, kRgba8), nullptr);
    const D3D11_TEXTURE2D_DESC desc = {};
    const boost::intrusive_ptr<D11Device> none;
    const auto on = [](auto operation) {
        return [operation] { Encode([&](D11DeviceContext& context) { operation(context); }); };
    };
    constexpr auto kDevice = "DirectX 11 device is null";
    const std::tuple<const char*, const char*, std::function<void()>> cases[] = {
        {"Resource is null", "Map", on([](auto& c) { c.Map(nullptr, 0, D3D11_MAP_READ, {}); })},
        {"Resource is null", "Unmap", on([](auto& c) { c.Unmap(nullptr, 0); })},
        {"Resource is null", "CopyResource",
         on([=](auto& c) { c.CopyResource(texture, nullptr); })},
        {"Resource is null", "CopyResource",
         on([=](auto& c) { c.CopyResource(nullptr, texture); })},
        {"Resource is null", "UpdateSubresource",
         on([](auto& c) { c.UpdateSubresource(nullptr, 0, nullptr, "", 1, 1); })},
        {"Invalid upload data", "UpdateSubresource",
         on([=](auto& c) { c.UpdateSubresource(texture, 0, nullptr, nullptr, 1, 1); })},
        {"View is null", "ClearDepthStencilView",
         on([](auto& c) { c.ClearDepthStencilView(nullptr, D3D11_CLEAR_DEPTH, 0, 0); })},
        {"View is null", "ClearRenderTargetView",
         on([](auto& c) { c.ClearRenderTargetView(nullptr, {}); })},
        {"Vertex buffer is null", "Draw", on([](auto& c) { c.Draw(nullptr); })},
        {"Index buffer is null", "DrawIndexed", on([](auto& c) { c.DrawIndexed(nullptr); })},
        {"Shader bytecode is null", "CreateInputLayout",
         [] { s_device->CreateInputLayout({}, nullptr); }},
        {kDevice, "Create", [&] { D11RenderTexture2D::Create(none, desc); }},
        {kDevice, "Create", [&] { D11ShaderTexture2D::Create(none, desc, nullptr); }},
        {kDevice, "Create", [&] { D11SharedTexture2D::Create(none, desc); }},
        {kDevice, "Create", [&] { D11VertexBuffer::Create(none, "", 1, 1); }},
        {kDevice, "Create", [&] { D11IndexBuffer::Create(none, std::vector<std::uint16_t>(3)); }},
        {"Texture is null", "D11RenderTexture2D", [] { D11RenderTexture2D(nullptr, {}); }},
        {"Texture is null", "D11ShaderTexture2D", [] { D11ShaderTexture2D(nullptr, {}); }},
        {"Texture is null", "D11SharedTexture2D", [] { D11SharedTexture2D{nullptr}; }},
    };
    for (const auto& [sentence, function, call] : cases) {
        ExpectFailure11(call, sentence, function);
    }
}

TEST_F(D3D11ResourceTest, MapPassesItsFlagsAndThrows) {
    const auto unmappable = s_device->CreateTexture2D(MakeTextureDesc11(8, 8, kRgba8), nullptr);
    Encode([&](D11DeviceContext& context) {
        const auto map = [&] { context.Map(unmappable, 0, D3D11_MAP_READ, {}); };
        EXPECT_LT(ThrownBy(map).result, 0) << "not for the CPU";
        std::vector<UINT> flags;
        const MethodPatch<&ID3D11DeviceContext::Map>
            patch(GetImmediateContext(Raw()),
                  [&flags](auto, ID3D11DeviceContext*, ID3D11Resource*, UINT, D3D11_MAP, UINT flag,
                           D3D11_MAPPED_SUBRESOURCE*) {
                      flags.push_back(flag);
                      return flag == 0 ? E_ACCESSDENIED : S_OK;
                  });
        ExpectFailure11(map, "Failed to map resource", "Map", E_ACCESSDENIED);
        context.Map(unmappable, 0, D3D11_MAP_READ, D3D11_MAP_FLAG_DO_NOT_WAIT);
        EXPECT_THAT(flags, ElementsAre(0u, UINT{D3D11_MAP_FLAG_DO_NOT_WAIT}));
    });
}

// What the device was asked for, by what it made.
TEST_F(D3D11ResourceTest, ViewsAreOfTheirResourceAndDescription) {
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, kRgba8);
    desc.ArraySize = 3;
    desc.BindFlags = kDrawAndRead;
    const auto texture = s_device->CreateTexture2D(desc, nullptr);
    desc.Format = DXGI_FORMAT_D24_UNORM_S8_UINT;
    desc.BindFlags = D3D11_BIND_DEPTH_STENCIL;
    const auto depth = s_device->CreateTexture2D(desc, nullptr);
    const auto check = [](auto view, auto made, ID3D11Resource* resource, UINT slice, UINT count) {
        CComPtr<ID3D11Resource> of;
        view->GetResource(&of);
        EXPECT_TRUE(of.IsEqualObject(resource));
        view->GetDesc(&made);
        EXPECT_EQ(made.Texture2DArray.FirstArraySlice, slice);
        EXPECT_EQ(made.Texture2DArray.ArraySize, count);
    };
    D3D11_SHADER_RESOURCE_VIEW_DESC shader = {kRgba8, D3D11_SRV_DIMENSION_TEXTURE2DARRAY, {}};
    shader.Texture2DArray = {0, 1, 1, 2};
    check(s_device->CreateShaderResourceView(texture), shader, texture, 0, 3);
    check(s_device->CreateShaderResourceView(texture, shader), shader, texture, 1, 2);
    D3D11_RENDER_TARGET_VIEW_DESC target = {kRgba8, D3D11_RTV_DIMENSION_TEXTURE2DARRAY, {}};
    target.Texture2DArray = {0, 1, 2};
    check(s_device->CreateRenderTargetView(texture, target), target, texture, 1, 2);
    D3D11_DEPTH_STENCIL_VIEW_DESC stencil = {
        desc.Format, D3D11_DSV_DIMENSION_TEXTURE2DARRAY, 0, {}};
    stencil.Texture2DArray = {0, 2, 1};
    check(s_device->CreateDepthStencilView(depth, stencil), stencil, depth, 2, 1);
}

// A square whose depth grows from left to right, over a depth of one half and a stencil of 3.
TEST_F(D3D11ResourceTest, IndicesDepthAndStencilChooseWhatIsDrawn) {
    constexpr auto kSource = "struct V { float4 p : SV_POSITION; float4 c : COLOR; };\n"
                             "V VsMain(float3 p : POSITION, float4 c : COLOR) {\n"
                             "    V v; v.p = float4(p, 1); v.c = c; return v;\n"
                             "}\n"
                             "float4 PsMain(V v) : SV_TARGET { return v.c; }\n";
    const auto vertexShader = std::make_shared<D11VertexShader>(s_device, "VsMain", kSource);
    const auto pixelShader = std::make_shared<D11PixelShader>(s_device, "PsMain", kSource);
    const auto layout = s_device->CreateInputLayout(
        {{"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
         {"COLOR", 0, DXGI_FORMAT_R32G32B32A32_FLOAT, 1, 0, D3D11_INPUT_PER_VERTEX_DATA, 0}},
        vertexShader);
    const float corners[][3] = {{-1, -1, 0}, {-1, 1, 0}, {1, -1, 1}, {1, 1, 1}};
    const std::vector<std::array<float, 4>> orange(4, {1, 0.2F, 0, 1});
    const auto places = D11VertexBuffer::Create(s_device, corners, sizeof(corners[0]), 4);
    const auto colors = D11VertexBuffer::Create(s_device, orange.data(), sizeof(orange[0]), 4);
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, DXGI_FORMAT_D24_UNORM_S8_UINT);
    desc.BindFlags = D3D11_BIND_DEPTH_STENCIL;
    const auto depthView =
        s_device->CreateDepthStencilView(s_device->CreateTexture2D(desc, nullptr),
                                         {desc.Format, D3D11_DSV_DIMENSION_TEXTURE2D, 0, {}});
    CD3D11_DEPTH_STENCIL_DESC stateDesc(D3D11_DEFAULT);
    stateDesc.StencilEnable = TRUE;
    stateDesc.FrontFace.StencilFunc = stateDesc.BackFace.StencilFunc = D3D11_COMPARISON_EQUAL;
    const auto state = s_device->CreateDepthStencilState(stateDesc);
    Canvas11 canvas(s_device);
    const auto narrow =
        D11IndexBuffer::Create(s_device, std::vector<std::uint16_t>{0, 1, 2, 2, 1, 3});
    const auto wide =
        D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>{0, 1, 2, 2, 1, 3});
    const std::tuple<boost::intrusive_ptr<D11IndexBuffer>, UINT, bool> cases[] = {
        {narrow, 3, true}, {wide, 3, true}, {wide, 2, false}};
    for (const auto& [indices, stencilRef, isDrawn] : cases) {
        const auto target = canvas.MakeTarget(8, 8, kRgba8);
        Encode([&](D11DeviceContext& context) {
            context.ClearState();
            context.ClearDepthStencilView(
                depthView, D3D11_CLEAR_FLAG(D3D11_CLEAR_DEPTH | D3D11_CLEAR_STENCIL), 0.5F, 3);
            context.OMSetRenderTargets({target->GetView()}, depthView);
            context.OMSetDepthStencilState(state, stencilRef);
            context.RSSetViewports({{0, 0, 8, 8, 0, 1}});
            context.IASetInputLayout(layout);
            context.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
            context.IASetVertexBuffers({places, colors});
            context.IASetIndexBuffer(indices);
            context.VSSetShader(vertexShader);
            context.PSSetShader(pixelShader);
            context.DrawIndexed(indices);
            context.ClearState();
        });
        const auto drawn = canvas.Read(target->GetTexture());
        const Color left = isDrawn ? Color{1.0, 0.2, 0.0, 1.0} : Color{};
        for (unsigned i = 0; i < 8; ++i) {
            EXPECT_EQ(drawn.At(i, 7 - i), i < 4 ? left : Color{}) << i;
        }
    }
}

TEST_F(D3D11ResourceTest, NullUnbindsAndAnEmptyVectorLeavesWhatIsBound) {
    const auto buffer = D11VertexBuffer::Create(s_device, "abcd", 4, 1);
    const auto indices = D11IndexBuffer::Create(s_device, std::vector<std::uint16_t>(3));
    const auto target = Canvas11(s_device).MakeTarget(4, 4, kRgba8);
    const auto raw = GetImmediateContext(Raw());
    const auto bound = [&raw] {
        CComPtr<ID3D11Buffer> buffers[3];
        CComPtr<ID3D11RenderTargetView> view;
        UINT numbers[2] = {};
        DXGI_FORMAT format = {};
        raw->IAGetVertexBuffers(0, 1, &buffers[0], &numbers[0], &numbers[1]);
        raw->IAGetVertexBuffers(1, 1, &buffers[1], &numbers[0], &numbers[1]);
        raw->IAGetIndexBuffer(&buffers[2], &format, &numbers[0]);
        raw->OMGetRenderTargets(1, &view, nullptr);
        return std::array{buffers[0] != nullptr, buffers[1] != nullptr, buffers[2] != nullptr,
                          view != nullptr};
    };
    Encode([&](D11DeviceContext& context) {
        context.IASetVertexBuffers({buffer, buffer});
        context.IASetIndexBuffer(indices);
        context.OMSetRenderTargets({target->GetView()}, nullptr);
        EXPECT_THAT(bound(), ElementsAre(true, true, true, true));
        context.IASetVertexBuffer(nullptr);
        context.IASetVertexBuffers({});
        context.OMSetRenderTargets({}, nullptr);
        EXPECT_THAT(bound(), ElementsAre(false, true, true, false));
        context.IASetVertexBuffers({buffer, nullptr});
        context.IASetIndexBuffer(nullptr);
        EXPECT_THAT(bound(), ElementsAre(true, false, false, false));
        context.VSSetShader(nullptr);
        context.PSSetShader(nullptr);
        context.ClearState();
    });
}

// Forwards that drawing an image does not use.
TEST_F(D3D11ResourceTest, UpdatesAndBlendFactorsReachTheContext) {
    Canvas11 canvas(s_device);
    const auto target = canvas.MakeTarget(4, 4, kRgba8);
    const std::array<std::uint32_t, 5> pixels = {0xff0000ff, 0xffff0000, 0, 0xff00ff00, 0xffffffff};
    Encode([&](D11DeviceContext& context) {
        const D3D11_BOX box = {1, 2, 0, 3, 4, 1};
        context.UpdateSubresource(target->GetTexture(), 0, &box, pixels.data(), 12, 0);
        context.OMSetBlendState(nullptr, {0.1F, 0.2F, 0.3F, 0.4F});
        CComPtr<ID3D11BlendState> bound;
        std::array<float, 4> factor = {};
        UINT mask = 0;
        GetImmediateContext(Raw())->OMGetBlendState(&bound, factor.data(), &mask);
        EXPECT_THAT(factor, ElementsAre(0.1F, 0.2F, 0.3F, 0.4F));
        EXPECT_EQ(mask, 0xffffffffu);
    });
    const auto drawn = canvas.Read(target->GetTexture());
    EXPECT_EQ(drawn.At(1, 2), (Color{1, 0, 0, 1}));
    EXPECT_EQ(drawn.At(2, 2), (Color{0, 0, 1, 1}));
    EXPECT_EQ(drawn.At(1, 3), (Color{0, 1, 0, 1}));
    EXPECT_EQ(drawn.At(2, 3), (Color{1, 1, 1, 1}));
    EXPECT_EQ(drawn.At(3, 2), (Color{0, 0, 0, 0}));
}

} // namespace
} // namespace Norvex::DX
