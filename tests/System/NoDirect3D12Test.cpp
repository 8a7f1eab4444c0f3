// A system without d3d12.dll: everything else still works, and Direct3D 12 says that it is not
// there.

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/Painter.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ThrownBy;

TEST(NoDirect3D12Test, DevicesAreRefusedAndTheRestWorks) {
    API& api = API::GetInstance();
    EXPECT_TRUE(api.IsWindows10OrGreater());
    EXPECT_FALSE(api.IsD12Loaded());
    EXPECT_FALSE(D12Device::IsAvailable());
    CComPtr<ID3D12Device> device;
    EXPECT_EQ(api.CreateDevice(nullptr, D3D_FEATURE_LEVEL_11_1, device), API::E_DELAY_LOAD_FAILED);
    CComPtr<ID3D12Debug> debug;
    EXPECT_EQ(api.GetDebugInterface(debug), API::E_DELAY_LOAD_FAILED);
    const D3D12_VERSIONED_ROOT_SIGNATURE_DESC desc = {};
    CComPtr<ID3D10Blob> blob;
    CComPtr<ID3D10Blob> errors;
    EXPECT_EQ(api.SerializeRootSignature(&desc, D3D_ROOT_SIGNATURE_VERSION_1_1, blob, errors),
              API::E_DELAY_LOAD_FAILED);

    const auto factory = DXGIFactory::Create();
    const auto thrown = ThrownBy([&] { D12Device::Create(factory->GetPrimaryAdapter()); });
    EXPECT_EQ(thrown.sentence, "DirectX 12 device interface is not supported on this system");
    EXPECT_EQ(thrown.result, DXGI_ERROR_UNSUPPORTED);
    EXPECT_EQ(thrown.function, "Create");
    EXPECT_FALSE(factory->EnumerateAdapterDescriptions(false).empty());
}

TEST(NoDirect3D12Test, Direct3D11Draws) {
    const Norvex::Test::Color color = {1.0, 0.2, 0.0, 1.0};
    const auto picture = Norvex::Test::MakePixels(4, 4, [&](unsigned, unsigned) { return color; });
    EXPECT_THAT(Norvex::Test::MakePainter11()->Draw({.source = picture}).colors,
                testing::Each(color));
}

} // namespace
} // namespace Norvex::DX
