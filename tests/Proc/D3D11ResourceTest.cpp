// Direct3D 11 resources, and the context that records on them.

#include "Proc/DirectX/Manager/D3D11Resource.h"

#include <array>
#include <atomic>
#include <chrono>
#include <semaphore>
#include <thread>
#include <vector>

#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "tests/support/Canvas11.h"
#include "tests/support/Device11.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/Thrown.h"
#include "tests/support/Words.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using testing::ElementsAre;

constexpr auto kRgba8 = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr UINT kDrawAndRead = D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET;

class D3D11ResourceTest : public Device11Test {
protected:
    template <class Function>
    static void Encode(const Function& function) {
        s_device->Encode([&](const auto& context) { function(*context); });
    }
    static CComPtr<ID3D11Texture2D> MakeTexture(UINT bindFlags = 0, DXGI_FORMAT format = kRgba8,
                                                UINT arraySize = 1, UINT mipLevels = 1) {
        D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, format);
        desc.BindFlags = bindFlags;
        desc.ArraySize = arraySize;
        desc.MipLevels = mipLevels;
        return s_device->CreateTexture2D(desc, nullptr);
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

// Of the resource, the format, the mip level and the slices asked for.
TEST_F(D3D11ResourceTest, ViewsAreOfTheirResourceAndDescription) {
    const auto check = [](auto view, ID3D11Resource* resource, const auto& expected) {
        CComPtr<ID3D11Resource> of;
        view->GetResource(&of);
        EXPECT_TRUE(of.IsEqualObject(resource));
        auto made = expected;
        view->GetDesc(&made);
        EXPECT_EQ(WordsOf(&made), WordsOf(&expected));
    };
    const auto typeless = MakeTexture(kDrawAndRead, DXGI_FORMAT_R8G8B8A8_TYPELESS, 1, 2);
    constexpr auto kSrgb = DXGI_FORMAT_R8G8B8A8_UNORM_SRGB;
    check(D11RenderTexture2D(typeless, kSrgb).GetView(), typeless,
          D3D11_RENDER_TARGET_VIEW_DESC{kSrgb, D3D11_RTV_DIMENSION_TEXTURE2D, {}});
    D3D11_SHADER_RESOURCE_VIEW_DESC oneLevel = {kRgba8, D3D11_SRV_DIMENSION_TEXTURE2D, {}};
    oneLevel.Texture2D.MipLevels = 1;
    check(D11ShaderTexture2D(typeless, kRgba8).GetView(), typeless, oneLevel);

    const auto slices = MakeTexture(kDrawAndRead, kRgba8, 3);
    constexpr auto kShaderArray = D3D11_SRV_DIMENSION_TEXTURE2DARRAY;
    const CD3D11_SHADER_RESOURCE_VIEW_DESC shader(kShaderArray, kRgba8, 0, 1, 1, 2);
    check(s_device->CreateShaderResourceView(slices, shader), slices, shader);
    check(s_device->CreateShaderResourceView(slices), slices,
          CD3D11_SHADER_RESOURCE_VIEW_DESC(kShaderArray, kRgba8, 0, 1, 0, 3));
    const CD3D11_RENDER_TARGET_VIEW_DESC target(D3D11_RTV_DIMENSION_TEXTURE2DARRAY, kRgba8, 0, 1,
                                                2);
    check(s_device->CreateRenderTargetView(slices, target), slices, target);
    constexpr auto kDepthFormat = DXGI_FORMAT_D24_UNORM_S8_UINT;
    const auto depth = MakeTexture(D3D11_BIND_DEPTH_STENCIL, kDepthFormat, 3);
    D3D11_DEPTH_STENCIL_VIEW_DESC stencil = {
        kDepthFormat, D3D11_DSV_DIMENSION_TEXTURE2DARRAY, 0, {}};
    stencil.Texture2DArray = {0, 2, 1};
    check(s_device->CreateDepthStencilView(depth, stencil), depth, stencil);
}

// What sharing adds to a texture, which this system lacks: a keyed mutex and a handle.
struct FakeSharing : FakeObject {
    FakeSharing() {
        Set(&IDXGIKeyedMutex::AcquireSync, [](FakeSharing* self, UINT64 key, DWORD time) {
            self->acquired = {key, time};
            self->isAcquired.release();
            return self->answer;
        });
        Set(&IDXGIKeyedMutex::ReleaseSync, [](FakeSharing* self, UINT64 key) {
            self->released = key;
            return self->answer;
        });
        Set(&IDXGIResource1::CreateSharedHandle,
            [](FakeSharing* self, const SECURITY_ATTRIBUTES*, DWORD access, LPCWSTR, HANDLE* out) {
                *out = access == 9 ? self : nullptr;
                return self->answer;
            });
    }

    HRESULT answer = S_OK;
    std::pair<UINT64, DWORD> acquired;
    std::counting_semaphore<> isAcquired{0};
    std::atomic<UINT64> released = 0;
};

TEST_F(D3D11ResourceTest, SharedTexturesPassFlagsKeyTimeAndAccess) {
    const auto texture = MakeTexture();
    std::vector<UINT> miscFlags;
    const MethodPatch<&ID3D11Device::CreateTexture2D> create(
        Raw(), [&](auto, auto*, const auto* desc, auto*, ID3D11Texture2D** out) {
            miscFlags.push_back(desc->MiscFlags);
            return CComPtr<ID3D11Texture2D>(texture).CopyTo(out);
        });
    FakeSharing sharing;
    InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex, IDXGIResource1> patch(texture, &sharing);
    const auto older = D11Device::Attach(MakeRawDevice11(D3D_FEATURE_LEVEL_11_0));
    NORVEX_EXPECT_REFUSED11("Shared texture not supported", D11SharedTexture2D::Create(older, {}));
    auto shared = D11SharedTexture2D::Create(s_device, {});
    EXPECT_EQ(shared->GetSize(), (Size2DT<long>{8, 8}));
    const auto acquire = [&] { shared->AcquireSync(7, 250); };
    const auto release = [&] { shared->ReleaseSync(8); };
    const auto share = [&] { EXPECT_EQ(shared->CreateSharedHandle(9), &sharing); };
    for (const HRESULT answer : {HRESULT{WAIT_TIMEOUT}, HRESULT{WAIT_ABANDONED}, HRESULT{S_OK}}) {
        sharing.answer = answer;
        EXPECT_EQ(SentenceOf(acquire), "(nothing)");
        sharing.isAcquired.acquire();
    }
    EXPECT_EQ(sharing.acquired, std::pair(UINT64{7}, DWORD{250}));
    share();
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

    sharing.answer = E_ACCESSDENIED;
    ExpectFailure11(acquire, "Failed to acquire texture key mutex", "AcquireSync", E_ACCESSDENIED);
    ExpectFailure11(release, "Failed to release texture key mutex", "ReleaseSync", E_ACCESSDENIED);
    ExpectFailure11(share, "Failed to create shared handle", "CreateSharedHandle", E_ACCESSDENIED);
    patch.fake = nullptr;
    ExpectFailure11(share, "Failed to query interface", "CreateSharedHandle", E_NOINTERFACE);
    ExpectFailure11([&] { D11SharedTexture2D::Create(s_device, {}); },
                    "Failed to get texture key mutex", "GetKeyedMutex", E_NOINTERFACE);
    EXPECT_THAT(miscFlags, ElementsAre(0x900u, 0x900u)) << "nothing was made for the older";
    shared.reset();
    EXPECT_EQ(sharing.GetReferences(), 0);
}

TEST_F(D3D11ResourceTest, BuffersAreAsLargeAsTheirContents) {
    const auto check = [](const auto& made, UINT size, UINT bindFlags, UINT count) {
        D3D11_BUFFER_DESC desc = {};
        made->GetBuffer()->GetDesc(&desc);
        EXPECT_EQ(WordsOf(&desc), fmt::format("{} 0 {}", size, bindFlags));
        EXPECT_EQ(made->GetCount(), count);
        return made;
    };
    const std::vector<std::uint8_t> bytes(60);
    const auto vertices = D11VertexBuffer::Create(s_device, bytes.data(), 20, 3);
    EXPECT_EQ(check(vertices, 60, D3D11_BIND_VERTEX_BUFFER, 3)->GetStride(), 20u);
    const auto narrow = D11IndexBuffer::Create(s_device, std::vector<std::uint16_t>(6));
    EXPECT_EQ(check(narrow, 12, D3D11_BIND_INDEX_BUFFER, 6)->GetFormat(), DXGI_FORMAT_R16_UINT);
    const auto wide = D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>(6));
    EXPECT_EQ(check(wide, 24, D3D11_BIND_INDEX_BUFFER, 6)->GetFormat(), DXGI_FORMAT_R32_UINT);
    const auto refuse = [&](const char* size, const auto& create) {
        ExpectFailure11(create, std::string("Failed to create ID3D11Buffer: byteWidth = ") + size,
                        "Create", E_INVALIDARG);
    };
    const auto vertexBuffer = [](const void* data, UINT stride, UINT count) {
        return [=] { D11VertexBuffer::Create(s_device, data, stride, count); };
    };
    refuse("4295032832", vertexBuffer(bytes.data(), 65536, 65537)); // 65536 in 32 bits
    refuse("0", vertexBuffer(bytes.data(), 20, 0));
    refuse("60", vertexBuffer(nullptr, 20, 3));
    refuse("0", [] { D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>()); });
}

TEST_F(D3D11ResourceTest, NullIsRefusedByName) {
    const auto texture = MakeTexture();
    const boost::intrusive_ptr<D11Device> none;
    constexpr auto kNoDevice = "DirectX 11 device is null";
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11RenderTexture2D::Create(none, {}));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11ShaderTexture2D::Create(none, {}, nullptr));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11SharedTexture2D::Create(none, {}));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11VertexBuffer::Create(none, "", 1, 1));
    NORVEX_EXPECT_REFUSED11(kNoDevice, D11IndexBuffer::Create(none, std::vector<UINT16>(3)));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11RenderTexture2D(nullptr, {}));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11ShaderTexture2D(nullptr, {}));
    NORVEX_EXPECT_REFUSED11("Texture is null", D11SharedTexture2D(nullptr));
    NORVEX_EXPECT_REFUSED11("Shader bytecode is null", s_device->CreateInputLayout({}, nullptr));
    Encode([&](D11DeviceContext& c) {
        constexpr auto kNoResource = "Resource is null";
        NORVEX_EXPECT_REFUSED11(kNoResource, c.Map(nullptr, 0, D3D11_MAP_READ, {}));
        NORVEX_EXPECT_REFUSED11(kNoResource, c.Unmap(nullptr, 0));
        NORVEX_EXPECT_REFUSED11(kNoResource, c.CopyResource(texture, nullptr));
        NORVEX_EXPECT_REFUSED11(kNoResource, c.CopyResource(nullptr, texture));
        NORVEX_EXPECT_REFUSED11(kNoResource, c.UpdateSubresource(nullptr, 0, nullptr, "", 1, 1));
        NORVEX_EXPECT_REFUSED11("Invalid upload data",
                                c.UpdateSubresource(texture, 0, nullptr, nullptr, 1, 1));
        NORVEX_EXPECT_REFUSED11("View is null",
                                c.ClearDepthStencilView(nullptr, D3D11_CLEAR_DEPTH, 0, 0));
        NORVEX_EXPECT_REFUSED11("View is null", c.ClearRenderTargetView(nullptr, {}));
        NORVEX_EXPECT_REFUSED11("Vertex buffer is null", c.Draw(nullptr));
        NORVEX_EXPECT_REFUSED11("Index buffer is null", c.DrawIndexed(nullptr));
    });
}

TEST_F(D3D11ResourceTest, MapPassesItsFlagsAndThrows) {
    const auto unmappable = MakeTexture();
    Encode([&](D11DeviceContext& context) {
        const auto map = [&] { context.Map(unmappable, 0, D3D11_MAP_READ, {}); };
        EXPECT_LT(ThrownBy(map).result, 0) << "not for the CPU";
        const MethodPatch<&ID3D11DeviceContext::Map> patch(
            GetImmediateContext(Raw()), [](auto, auto*, auto*, UINT, auto, UINT flags, auto*) {
                return flags == D3D11_MAP_FLAG_DO_NOT_WAIT ? S_OK : E_ACCESSDENIED;
            });
        ExpectFailure11(map, "Failed to map resource", "Map", E_ACCESSDENIED);
        context.Map(unmappable, 0, D3D11_MAP_READ, D3D11_MAP_FLAG_DO_NOT_WAIT);
    });
}

TEST_F(D3D11ResourceTest, BindersReplaceWhatIsBound) {
    const auto raw = GetImmediateContext(Raw());
    // Strides and offsets of two vertex buffers; format and offset of the index buffer; the stencil
    // reference; what of state, target and depth view there is.
    const auto bound = [&raw] {
        CComPtr<ID3D11Buffer> buffers[3];
        CComPtr<ID3D11DepthStencilState> state;
        CComPtr<ID3D11RenderTargetView> target;
        CComPtr<ID3D11DepthStencilView> depthView;
        std::array<UINT, 7> words = {};
        DXGI_FORMAT format = {};
        raw->IAGetVertexBuffers(0, 2, &buffers[0], &words[0], &words[2]);
        raw->IAGetIndexBuffer(&buffers[2], &format, &words[5]);
        raw->OMGetDepthStencilState(&state, &words[6]);
        raw->OMGetRenderTargets(1, &target, &depthView);
        words[4] = static_cast<UINT>(format);
        return fmt::format("{}, {} {} {}", fmt::join(words, " "), !!state, !!target, !!depthView);
    };
    const auto two = D11VertexBuffer::Create(s_device, "abcd", 2, 1);
    const auto four = D11VertexBuffer::Create(s_device, "abcd", 4, 1);
    constexpr auto kDepthFormat = DXGI_FORMAT_D24_UNORM_S8_UINT;
    const auto depth =
        s_device->CreateDepthStencilView(MakeTexture(D3D11_BIND_DEPTH_STENCIL, kDepthFormat),
                                         {kDepthFormat, D3D11_DSV_DIMENSION_TEXTURE2D, 0, {}});
    const auto state = s_device->CreateDepthStencilState(CD3D11_DEPTH_STENCIL_DESC(D3D11_DEFAULT));
    Encode([&](D11DeviceContext& context) {
        context.ClearState();
        EXPECT_EQ(bound(), "0 0 0 0 0 0 0, false false false");
        context.IASetVertexBuffers({two, four});
        context.IASetIndexBuffer(D11IndexBuffer::Create(s_device, std::vector<UINT16>(3)));
        context.OMSetDepthStencilState(state, 3);
        context.OMSetRenderTargets({Canvas11(s_device).MakeTarget(8, 8, kRgba8)->GetView()}, depth);
        EXPECT_EQ(bound(), "2 4 0 0 57 0 3, true true true");
        context.IASetVertexBuffer(nullptr);
        context.IASetVertexBuffers({});
        context.IASetIndexBuffer(D11IndexBuffer::Create(s_device, std::vector<UINT32>(3)));
        context.OMSetRenderTargets({}, nullptr);
        EXPECT_EQ(bound(), "0 4 0 0 42 0 3, true false false");
        context.IASetVertexBuffers({two, nullptr});
        context.IASetIndexBuffer(nullptr);
        EXPECT_EQ(bound(), "2 0 0 0 0 0 3, true false false");
        context.VSSetShader(nullptr);
        context.PSSetShader(nullptr);
        context.ClearState();
    });
}

// Forwards that drawing an image does not use.
TEST_F(D3D11ResourceTest, ArgumentsReachTheContext) {
    Canvas11 canvas(s_device);
    const auto target = canvas.MakeTarget(4, 4, kRgba8);
    const std::array<std::uint32_t, 5> pixels = {0xff0000ff, 0xffff0000, 0, 0xff00ff00, 0xffffffff};
    const auto raw = GetImmediateContext(Raw());
    std::string calls;
    const MethodPatch<&ID3D11DeviceContext::ClearDepthStencilView> clear(
        raw, [&](auto, auto*, auto*, UINT flags, FLOAT depth, UINT8 stencil) {
            calls += fmt::format("clear {} {} {}; ", flags, depth, stencil);
        });
    const MethodPatch<&ID3D11DeviceContext::DrawIndexed> draw(
        raw, [&](auto, auto*, UINT count, UINT start, INT base) {
            calls += fmt::format("draw {} {} {}", count, start, base);
        });
    Encode([&](D11DeviceContext& context) {
        const D3D11_BOX box = {1, 2, 0, 3, 4, 1};
        context.UpdateSubresource(target->GetTexture(), 0, &box, pixels.data(), 12, 0);
        context.OMSetBlendState(nullptr, {0.1F, 0.2F, 0.3F, 0.4F});
        CComPtr<ID3D11BlendState> bound;
        std::array<float, 4> factor = {};
        UINT mask = 0;
        raw->OMGetBlendState(&bound, factor.data(), &mask);
        EXPECT_THAT(factor, ElementsAre(0.1F, 0.2F, 0.3F, 0.4F));
        EXPECT_EQ(mask, 0xffffffffu);
        FakeObject view;
        context.ClearDepthStencilView(view.As<ID3D11DepthStencilView>(), D3D11_CLEAR_STENCIL, 0.5F,
                                      3);
        context.DrawIndexed(D11IndexBuffer::Create(s_device, std::vector<UINT16>(6)));
    });
    EXPECT_EQ(calls, "clear 2 0.5 3; draw 6 0 0");
    const auto drawn = canvas.Read(target->GetTexture());
    const std::array corner = {drawn.At(1, 2), drawn.At(2, 2), drawn.At(1, 3), drawn.At(2, 3)};
    EXPECT_THAT(corner, ElementsAre(Color{1, 0, 0, 1}, Color{0, 0, 1, 1}, Color{0, 1, 0, 1},
                                    Color{1, 1, 1, 1}));
    EXPECT_EQ(drawn.At(3, 2), Color{});
}

} // namespace
} // namespace Norvex::DX
