// Direct3D 11 resources, and the context that records on them.

#include "Proc/DirectX/Manager/D3D11Resource.h"

#include <array>
#include <cstring>
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

class D3D11ResourceTest : public Device11Test {
protected:
    template <class Function>
    static void Encode(const Function& function) {
        s_device->Encode([&](const auto& context) { function(*context); });
    }
};

TEST_F(D3D11ResourceTest, TexturesAddTheirBindFlagAndDieWithTheirWrapper) {
    constexpr UINT kBoth = D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET;
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(20, 10, kRgba8);
    D3D11_TEXTURE2D_DESC made = {};
    desc.MipLevels = 2;
    desc.BindFlags = D3D11_BIND_SHADER_RESOURCE;
    auto render = D11RenderTexture2D::Create(s_device, desc);
    render->GetDesc(&made);
    EXPECT_EQ(made.BindFlags, kBoth);
    EXPECT_EQ(render->GetSize(), (Size2DT<long>{20, 10}));
    EXPECT_EQ(render->GetRect(), (Rect2DT<long>{0, 0, 20, 10}));
    desc.BindFlags = D3D11_BIND_RENDER_TARGET;
    auto shader = D11ShaderTexture2D::Create(s_device, desc, nullptr);
    shader->GetDesc(&made);
    EXPECT_EQ(made.BindFlags, kBoth);
    EXPECT_EQ(shader->GetSize(), (Size2DT<long>{20, 10}));
    D3D11_SHADER_RESOURCE_VIEW_DESC view = {};
    shader->GetView()->GetDesc(&view);
    EXPECT_EQ(view.Texture2D.MipLevels, 1u);

    const LifeProbe renderProbe(render->GetTexture());
    const LifeProbe shaderProbe(shader->GetTexture());
    render.reset();
    shader.reset();
    EXPECT_FALSE(renderProbe.IsAlive() || shaderProbe.IsAlive());
}

TEST_F(D3D11ResourceTest, ViewsTakeTheFormatTheyAreGiven) {
    D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(8, 8, DXGI_FORMAT_R8G8B8A8_TYPELESS);
    desc.BindFlags = D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET;
    const auto texture = s_device->CreateTexture2D(desc, nullptr);
    D3D11_RENDER_TARGET_VIEW_DESC renderView = {};
    D11RenderTexture2D(texture, DXGI_FORMAT_R8G8B8A8_UNORM_SRGB).GetViewDesc(&renderView);
    EXPECT_EQ(renderView.Format, DXGI_FORMAT_R8G8B8A8_UNORM_SRGB);
    D3D11_SHADER_RESOURCE_VIEW_DESC shaderView = {};
    D11ShaderTexture2D(texture, kRgba8).GetView()->GetDesc(&shaderView);
    EXPECT_EQ(shaderView.Format, kRgba8);

    const FailingMethod<Slot::kDevice11CreateRenderTargetView> noRender(Raw(), E_ACCESSDENIED);
    const FailingMethod<Slot::kDevice11CreateShaderResourceView> noShader(Raw(), E_ACCESSDENIED);
    const auto thrown = ExpectFailure11([&] { D11RenderTexture2D(texture, {}); },
                                        "Failed to create render rarget view",
                                        "CreateRenderTargetView", E_ACCESSDENIED);
    EXPECT_THAT(thrown.details, HasSubstr("Adapter name: "));
    ExpectFailure11([&] { D11ShaderTexture2D(texture, {}); },
                    "Failed to create shader resource view", "CreateShaderResourceView",
                    E_ACCESSDENIED);
}

struct FakeKeyedMutex : FakeObject {
    FakeKeyedMutex() {
        Set(Slot::kKeyedMutexAcquireSync, [](FakeKeyedMutex* self, UINT64 key, DWORD time) {
            self->acquired = {key, time};
            return self->answer;
        });
        Set(Slot::kKeyedMutexReleaseSync, [](FakeKeyedMutex* self, UINT64 key) {
            self->released = key;
            return self->answer;
        });
    }

    HRESULT answer = S_OK;
    std::pair<UINT64, DWORD> acquired;
    UINT64 released = 0;
};

struct FakeSharedResource : FakeObject {
    FakeSharedResource() {
        Set(Slot::kResource1CreateSharedHandle,
            [](FakeSharedResource* self, const SECURITY_ATTRIBUTES*, DWORD asked, LPCWSTR,
               HANDLE* handle) {
                self->access = asked;
                *handle = self;
                return self->answer;
            });
    }

    HRESULT answer = S_OK;
    DWORD access = 0;
};

TEST_F(D3D11ResourceTest, SharedTexturesNeedLevel11_1AndAKeyedMutex) {
    const D3D11_TEXTURE2D_DESC desc = MakeTextureDesc11(20, 10, kRgba8);
    const auto texture = s_device->CreateTexture2D(desc, nullptr);
    std::vector<UINT> miscFlags;
    const MethodPatch<Slot::kDevice11CreateTexture2D,
                      HRESULT(ID3D11Device*, const D3D11_TEXTURE2D_DESC*,
                              const D3D11_SUBRESOURCE_DATA*, ID3D11Texture2D**)>
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
    FakeKeyedMutex mutex;
    const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex> patch(texture, &mutex);
    EXPECT_EQ(D11SharedTexture2D::Create(s_device, desc)->GetSize(), (Size2DT<long>{20, 10}));
    EXPECT_EQ(mutex.GetReferences(), 0);
}

TEST_F(D3D11ResourceTest, ASharedTexturePassesKeyTimeAndAccess) {
    const auto texture = s_device->CreateTexture2D(MakeTextureDesc11(8, 8, kRgba8), nullptr);
    FakeKeyedMutex mutex;
    const auto shared = [&] {
        const InterfacePatch<ID3D11Texture2D, IDXGIKeyedMutex> patch(texture, &mutex);
        return boost::intrusive_ptr(new D11SharedTexture2D(texture));
    }();
    const auto acquire = [&] { shared->AcquireSync(7, 250); };
    for (const HRESULT answer : {HRESULT{S_OK}, HRESULT{WAIT_TIMEOUT}, HRESULT{WAIT_ABANDONED}}) {
        mutex.answer = answer;
        EXPECT_EQ(SentenceOf(acquire), "(nothing)");
    }
    EXPECT_EQ(mutex.acquired, std::pair(UINT64{7}, DWORD{250}));
    shared->ReleaseSync(8);
    EXPECT_EQ(mutex.released, 8u);
    mutex.answer = E_ACCESSDENIED;
    ExpectFailure11(acquire, "Failed to acquire texture key mutex", "AcquireSync", E_ACCESSDENIED);
    ExpectFailure11([&] { shared->ReleaseSync(0); }, "Failed to release texture key mutex",
                    "ReleaseSync", E_ACCESSDENIED);

    const auto share = [&] { EXPECT_NE(shared->CreateSharedHandle(7), nullptr); };
    {
        const InterfacePatch<ID3D11Texture2D, IDXGIResource1> none(texture, nullptr);
        ExpectFailure11(share, "Failed to query interface", "CreateSharedHandle", E_NOINTERFACE);
    }
    FakeSharedResource resource;
    const InterfacePatch<ID3D11Texture2D, IDXGIResource1> patch(texture, &resource);
    share();
    EXPECT_EQ(resource.access, 7u);
    resource.answer = E_ACCESSDENIED;
    ExpectFailure11(share, "Failed to create shared handle", "CreateSharedHandle", E_ACCESSDENIED);
}

TEST_F(D3D11ResourceTest, BuffersAreAsLargeAsTheirContents) {
    const std::vector<std::uint8_t> bytes(60);
    const auto vertices = D11VertexBuffer::Create(s_device, bytes.data(), 20, 3);
    EXPECT_EQ(vertices->GetStride(), 20u);
    EXPECT_EQ(vertices->GetCount(), 3u);
    const auto indices16 = D11IndexBuffer::Create(s_device, std::vector<std::uint16_t>(6));
    EXPECT_EQ(indices16->GetFormat(), DXGI_FORMAT_R16_UINT);
    EXPECT_EQ(indices16->GetCount(), 6u);
    const auto indices32 = D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>(6));
    EXPECT_EQ(indices32->GetFormat(), DXGI_FORMAT_R32_UINT);
    EXPECT_EQ(indices32->GetCount(), 6u);
    const std::tuple<ID3D11Buffer*, UINT, UINT> cases[] = {
        {vertices->GetBuffer(), 60, D3D11_BIND_VERTEX_BUFFER},
        {indices16->GetBuffer(), 12, D3D11_BIND_INDEX_BUFFER},
        {indices32->GetBuffer(), 24, D3D11_BIND_INDEX_BUFFER}};
    for (const auto& [buffer, size, bindFlags] : cases) {
        D3D11_BUFFER_DESC desc = {};
        buffer->GetDesc(&desc);
        const D3D11_BUFFER_DESC expected = {size, D3D11_USAGE_DEFAULT, bindFlags, 0, 0, 0};
        EXPECT_EQ(std::memcmp(&desc, &expected, sizeof(desc)), 0) << size;
    }
}

TEST_F(D3D11ResourceTest, MapPassesItsFlagsAndThrows) {
    const auto unmappable = s_device->CreateTexture2D(MakeTextureDesc11(8, 8, kRgba8), nullptr);
    Encode([&](D11DeviceContext& context) {
        const auto map = [&] { context.Map(unmappable, 0, D3D11_MAP_READ, {}); };
        EXPECT_LT(ThrownBy(map).result, 0) << "not for the CPU";
        std::vector<UINT> flags;
        const MethodPatch<Slot::kContext11Map, HRESULT(ID3D11DeviceContext*, ID3D11Resource*, UINT,
                                                       D3D11_MAP, UINT, D3D11_MAPPED_SUBRESOURCE*)>
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

TEST_F(D3D11ResourceTest, IndicesOfBothSizesDraw) {
    constexpr auto kSource = "struct V { float4 p : SV_POSITION; float4 c : COLOR; };\n"
                             "V VsMain(float2 p : POSITION, float4 c : COLOR) {\n"
                             "    V v; v.p = float4(p, 0, 1); v.c = c; return v;\n"
                             "}\n"
                             "float4 PsMain(V v) : SV_TARGET { return v.c; }\n";
    const auto vertexShader = std::make_shared<D11VertexShader>(s_device, "VsMain", kSource);
    const auto pixelShader = std::make_shared<D11PixelShader>(s_device, "PsMain", kSource);
    const auto layout = s_device->CreateInputLayout(
        {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
         {"COLOR", 0, DXGI_FORMAT_R32G32B32A32_FLOAT, 1, 0, D3D11_INPUT_PER_VERTEX_DATA, 0}},
        vertexShader);
    const float corners[][2] = {{-1, -1}, {-1, 1}, {1, -1}, {1, 1}};
    const std::vector<std::array<float, 4>> orange(4, {1, 0.2F, 0, 1});
    const auto places = D11VertexBuffer::Create(s_device, corners, sizeof(corners[0]), 4);
    const auto colors = D11VertexBuffer::Create(s_device, orange.data(), sizeof(orange[0]), 4);
    Canvas11 canvas(s_device);
    for (const auto& indices :
         {D11IndexBuffer::Create(s_device, std::vector<std::uint16_t>{0, 1, 2, 2, 1, 3}),
          D11IndexBuffer::Create(s_device, std::vector<std::uint32_t>{0, 1, 2, 2, 1, 3})}) {
        const auto target = canvas.MakeTarget(8, 8, kRgba8);
        Encode([&](D11DeviceContext& context) {
            context.ClearState();
            context.OMSetRenderTargets({target->GetView()}, nullptr);
            context.RSSetViewports({{0, 0, 8, 8, 0, 1}});
            context.IASetInputLayout(layout);
            context.IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
            context.IASetVertexBuffer(colors);
            context.IASetVertexBuffers({places, colors});
            context.IASetIndexBuffer(indices);
            context.IASetVertexBuffer(nullptr); // no slot, and so nothing else
            context.VSSetShader(vertexShader);
            context.PSSetShader(pixelShader);
            context.DrawIndexed(indices);
            context.ClearState();
        });
        EXPECT_THAT(canvas.Read(target->GetTexture()).colors,
                    testing::Each(Color{1.0, 0.2, 0.0, 1.0}));
    }
}

// Forwards that drawing an image does not use.
TEST_F(D3D11ResourceTest, UpdatesAndBlendFactorsReachTheContext) {
    Canvas11 canvas(s_device);
    const auto target = canvas.MakeTarget(4, 4, kRgba8);
    const std::uint8_t bytes[] = {255, 0, 0, 255, 0, 0, 255, 255};
    Encode([&](D11DeviceContext& context) {
        const D3D11_BOX box = {1, 2, 0, 3, 3, 1};
        context.UpdateSubresource(target->GetTexture(), 0, &box, bytes, sizeof(bytes), 0);
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
    EXPECT_EQ(drawn.At(3, 2), (Color{0, 0, 0, 0}));
}

} // namespace
} // namespace Norvex::DX
