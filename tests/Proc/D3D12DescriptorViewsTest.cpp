#include <cstring>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "tests/Proc/DescriptorHeapFixture.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;
namespace Slot = Norvex::Test::Slot;

// What the device is given, and what is expected of it, as bytes: a field that should be zero is
// seen too.
template <class Desc>
std::vector<unsigned char> BytesOf(const Desc& desc) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&desc);
    return {bytes, bytes + sizeof(Desc)};
}

template <class Desc>
Desc Zeroed() {
    Desc desc;
    std::memset(&desc, 0, sizeof(desc));
    return desc;
}

class ViewDerivationTest : public D3D12DescriptorHeapTest {
protected:
    struct Row {
        const char* name;
        D3D12_RESOURCE_DESC resource;
        D3D12_SRV_DIMENSION srv;
        std::vector<UINT> srvFields;
        D3D12_RTV_DIMENSION rtv;
        std::vector<UINT> rtvFields;
        D3D12_UAV_DIMENSION uav;
        std::vector<UINT> uavFields;
    };

    static std::vector<Row> Rows() {
        constexpr auto kFormat = DXGI_FORMAT_R8G8B8A8_UNORM;
        const auto texture1D = [](UINT16 array) {
            return CD3DX12_RESOURCE_DESC::Tex1D(kFormat, 64, array, 3, kAllowAll);
        };
        const auto texture2D = [](UINT16 array) {
            return CD3DX12_RESOURCE_DESC::Tex2D(kFormat, 64, 64, array, 3, 1, 0, kAllowAll);
        };
        const auto texture3D = CD3DX12_RESOURCE_DESC::Tex3D(kFormat, 64, 64, 9, 3, kAllowAll);
        return {
            {"1D",
             texture1D(1),
             D3D12_SRV_DIMENSION_TEXTURE1D,
             {0, 3},
             D3D12_RTV_DIMENSION_TEXTURE1D,
             {2},
             D3D12_UAV_DIMENSION_TEXTURE1D,
             {2}},
            {"1D array",
             texture1D(2),
             D3D12_SRV_DIMENSION_TEXTURE1DARRAY,
             {0, 3, 0, 2},
             D3D12_RTV_DIMENSION_TEXTURE1DARRAY,
             {2, 0, 2},
             D3D12_UAV_DIMENSION_TEXTURE1DARRAY,
             {2, 0, 2}},
            {"2D",
             texture2D(1),
             D3D12_SRV_DIMENSION_TEXTURE2D,
             {0, 3},
             D3D12_RTV_DIMENSION_TEXTURE2D,
             {2},
             D3D12_UAV_DIMENSION_TEXTURE2D,
             {2}},
            {"2D array",
             texture2D(6),
             D3D12_SRV_DIMENSION_TEXTURE2DARRAY,
             {0, 3, 0, 6},
             D3D12_RTV_DIMENSION_TEXTURE2DARRAY,
             {2, 0, 6},
             D3D12_UAV_DIMENSION_TEXTURE2DARRAY,
             {2, 0, 6}},
            {"3D",
             texture3D,
             D3D12_SRV_DIMENSION_TEXTURE3D,
             {0, 3},
             D3D12_RTV_DIMENSION_TEXTURE3D,
             {2, 0, 9},
             D3D12_UAV_DIMENSION_TEXTURE3D,
             {2, 0, 9}},
        };
    }

    // The fields of every member of the unions but Buffer are words.
    template <class Desc, class Dimension>
    static Desc Expected(Dimension dimension, const std::vector<UINT>& fields) {
        auto desc = Zeroed<Desc>();
        desc.Format = DXGI_FORMAT_R8G8B8A8_UNORM;
        desc.ViewDimension = dimension;
        if constexpr (requires { desc.Shader4ComponentMapping; }) {
            desc.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
        }
        std::memcpy(&desc.Buffer, fields.data(), fields.size() * sizeof(UINT));
        return desc;
    }

    // The description that reaches the device.
    template <std::size_t slot, class Desc, class Create>
    static Desc SeenBySlot(const Create& create) {
        auto seen = Zeroed<Desc>();
        const MethodPatch<slot, void(ID3D12Device*, ID3D12Resource*, const Desc*,
                                     D3D12_CPU_DESCRIPTOR_HANDLE)>
            patch(Raw(), [&](auto, auto, auto, const Desc* desc, auto) {
                std::memcpy(&seen, desc, sizeof(seen));
            });
        create();
        return seen;
    }
    template <class Create>
    static D3D12_SHADER_RESOURCE_VIEW_DESC SeenSrv(const Create& create) {
        return SeenBySlot<Slot::kDeviceCreateShaderResourceView, D3D12_SHADER_RESOURCE_VIEW_DESC>(
            create);
    }
    template <class Create>
    static D3D12_RENDER_TARGET_VIEW_DESC SeenRtv(const Create& create) {
        return SeenBySlot<Slot::kDeviceCreateRenderTargetView, D3D12_RENDER_TARGET_VIEW_DESC>(
            create);
    }
    template <class Create>
    static D3D12_UNORDERED_ACCESS_VIEW_DESC SeenUav(const Create& create) {
        using Desc = D3D12_UNORDERED_ACCESS_VIEW_DESC;
        auto seen = Zeroed<Desc>();
        const MethodPatch<Slot::kDeviceCreateUnorderedAccessView,
                          void(ID3D12Device*, ID3D12Resource*, ID3D12Resource*, const Desc*,
                               D3D12_CPU_DESCRIPTOR_HANDLE)>
            patch(Raw(), [&](auto, auto, auto, auto, const Desc* desc, auto) {
                std::memcpy(&seen, desc, sizeof(seen));
            });
        create();
        return seen;
    }
};

TEST_F(ViewDerivationTest, TextureViewsFollowTheResource) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    for (const Row& row : Rows()) {
        SCOPED_TRACE(row.name);
        const ResourcePtr texture = Make(row.resource);
        EXPECT_EQ(BytesOf(SeenSrv([&] { views->CreateTextureShaderResourceView(texture, false); })),
                  BytesOf(Expected<D3D12_SHADER_RESOURCE_VIEW_DESC>(row.srv, row.srvFields)));
        EXPECT_EQ(BytesOf(SeenRtv([&] { targets->CreateRenderTargetView(texture, 2); })),
                  BytesOf(Expected<D3D12_RENDER_TARGET_VIEW_DESC>(row.rtv, row.rtvFields)));
        EXPECT_EQ(BytesOf(SeenUav([&] { views->CreateTextureUnorderedAccessView(texture, 2); })),
                  BytesOf(Expected<D3D12_UNORDERED_ACCESS_VIEW_DESC>(row.uav, row.uavFields)));
    }
}

TEST_F(ViewDerivationTest, CubesAreCountedInWholeSixes) {
    const struct {
        UINT16 array;
        D3D12_SRV_DIMENSION dimension;
        std::vector<UINT> fields;
    } cases[] = {{6, D3D12_SRV_DIMENSION_TEXTURECUBE, {0, 1}},
                 {12, D3D12_SRV_DIMENSION_TEXTURECUBEARRAY, {0, 1, 0, 2}},
                 {13, D3D12_SRV_DIMENSION_TEXTURECUBEARRAY, {0, 1, 0, 2}}};
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    for (const auto& c : cases) {
        const ResourcePtr texture =
            Make(CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_R8G8B8A8_UNORM, 16, 16, c.array, 1));
        EXPECT_EQ(BytesOf(SeenSrv([&] { views->CreateTextureShaderResourceView(texture, true); })),
                  BytesOf(Expected<D3D12_SHADER_RESOURCE_VIEW_DESC>(c.dimension, c.fields)))
            << c.array;
    }
}

TEST_F(ViewDerivationTest, MultisampledTargetsHaveNoMipSlice) {
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    for (const UINT16 array : {UINT16{1}, UINT16{3}}) {
        const ResourcePtr texture =
            Make(CD3DX12_RESOURCE_DESC::Tex2D(DXGI_FORMAT_R8G8B8A8_UNORM, 16, 16, array, 1, 4, 0,
                                              D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET));
        const auto expected =
            array == 1
                ? Expected<D3D12_RENDER_TARGET_VIEW_DESC>(D3D12_RTV_DIMENSION_TEXTURE2DMS, {})
                : Expected<D3D12_RENDER_TARGET_VIEW_DESC>(D3D12_RTV_DIMENSION_TEXTURE2DMSARRAY,
                                                          {0, array});
        EXPECT_EQ(BytesOf(SeenRtv([&] { targets->CreateRenderTargetView(texture, 0); })),
                  BytesOf(expected));
    }
}

TEST_F(ViewDerivationTest, BufferViewsCountElements) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const ResourcePtr buffer = MakeBuffer(1000, D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS);
    for (const auto& [stride, count] :
         std::vector<std::pair<unsigned, unsigned>>{{0, 1000}, {16, 62}, {4, 250}}) {
        auto srv = Zeroed<D3D12_SHADER_RESOURCE_VIEW_DESC>();
        srv.ViewDimension = D3D12_SRV_DIMENSION_BUFFER;
        srv.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
        srv.Buffer.NumElements = count;
        srv.Buffer.StructureByteStride = stride;
        EXPECT_EQ(BytesOf(SeenSrv([&] { views->CreateBufferShaderResourceView(buffer, stride); })),
                  BytesOf(srv));
        auto uav = Zeroed<D3D12_UNORDERED_ACCESS_VIEW_DESC>();
        uav.ViewDimension = D3D12_UAV_DIMENSION_BUFFER;
        uav.Buffer.NumElements = count;
        uav.Buffer.StructureByteStride = stride;
        uav.Buffer.CounterOffsetInBytes = 4096;
        uav.Buffer.Flags = D3D12_BUFFER_UAV_FLAG_RAW;
        EXPECT_EQ(BytesOf(SeenUav([&] {
                      views->CreateBufferUnorderedAccessView(
                          buffer, stride, D3D12_BUFFER_UAV_FLAG_RAW, 4096, nullptr);
                  })),
                  BytesOf(uav));
    }
}

TEST_F(ViewDerivationTest, RefusesWhatTheResourceDoesNotAllow) {
    const auto views = m_pool->CreateCPUHeap(kViews, 1);
    const auto targets = m_pool->CreateCPUHeap(kRtv, 1);
    const ResourcePtr plain = MakeTexture(D3D12_RESOURCE_FLAG_NONE);
    const ResourcePtr depthOnly = Make(CD3DX12_RESOURCE_DESC::Tex2D(
        DXGI_FORMAT_D32_FLOAT, 16, 16, 1, 1, 1, 0,
        D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL | D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE));
    const ResourcePtr buffer = MakeBuffer(256);
    const auto srv = [&](const ResourcePtr& r) {
        views->CreateTextureShaderResourceView(r, false);
    };
    const auto rtv = [&](const ResourcePtr& r) { targets->CreateRenderTargetView(r, 0u); };
    const auto uav = [&](const ResourcePtr& r) { views->CreateTextureUnorderedAccessView(r, 0); };
    EXPECT_EQ(SentenceOf([&] { srv(depthOnly); }), "Resource created without support for SRV");
    EXPECT_EQ(SentenceOf([&] { rtv(plain); }), "Resource created without support for RTV");
    EXPECT_EQ(SentenceOf([&] { uav(plain); }), "Resource created without support for UAV");
    EXPECT_EQ(SentenceOf([&] { srv(buffer); }), "Unsupported resource");
    EXPECT_EQ(SentenceOf([&] { views->CreateBufferShaderResourceView(plain, 4); }),
              "Unsupported resource");
    EXPECT_EQ(SentenceOf([&] {
                  views->CreateBufferUnorderedAccessView(buffer, 4, D3D12_BUFFER_UAV_FLAG_NONE, 0,
                                                         nullptr);
              }),
              "Unsupported resource");

    // A resource of a kind that is not known yet.
    const MethodPatch<Slot::kResourceGetDesc,
                      D3D12_RESOURCE_DESC*(ID3D12Resource*, D3D12_RESOURCE_DESC*)>
        patch(plain, [](auto original, auto self, auto out) {
            original(self, out);
            out->Dimension = static_cast<D3D12_RESOURCE_DIMENSION>(5);
            out->Flags = kAllowAll;
            return out;
        });
    for (const auto& create : std::vector<std::function<void()>>{
             [&] { srv(plain); }, [&] { rtv(plain); }, [&] { uav(plain); }}) {
        EXPECT_EQ(SentenceOf(create), "Unknown resource");
    }
}

} // namespace
} // namespace Norvex::DX
