// A system whose dxgi.dll has no CreateDXGIFactory2: the loader is told so before it is made.

#include <cstring>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/SwapChain11.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ImportPatch;

FARPROC WINAPI GetProcAddressWithoutFactory2(HMODULE module, const char* name) {
    return std::strcmp(name, "CreateDXGIFactory2") == 0 ? nullptr : GetProcAddress(module, name);
}

using CreateSwapChain =
    Norvex::Test::MethodPatch<10, HRESULT(IDXGIFactory*, IUnknown*, DXGI_SWAP_CHAIN_DESC*,
                                          IDXGISwapChain**)>;

TEST(OldFactoryTest, TheFactoryOfDxgi11Serves) {
    const ImportPatch patch(L"NorvexDX.dll", "GetProcAddress", &GetProcAddressWithoutFactory2);
    EXPECT_FALSE(API::GetInstance().IsFactory2Available());
    CComPtr<IDXGIFactory2> factory2;
    EXPECT_EQ(API::GetInstance().CreateFactory2(0, factory2), API::E_DELAY_LOAD_FAILED);

    const auto factory = DXGIFactory::Create();
    const DXGIVersion version = factory->GetVersion();
    EXPECT_TRUE(version == DXGIVersion::DXGI_1_1 || version >= DXGIVersion::DXGI_1_3)
        << "of what the factory itself does not answer only 1.2 and 1.4 are left out";
    const LUID luid = factory->GetPrimaryAdapter().GetDescription()->adapterLuid;
    EXPECT_TRUE(IsSameLuid(factory->GetAdapter(luid).GetDescription()->adapterLuid, luid));
    // Without a result: the search found nothing.
    Norvex::Test::ExpectFailure([&] { factory->GetAdapter(LUID{0x7FFFFFF0, 0x7FFFFFF0}); },
                                "Failed to obtain adapter", "GetAdapter");

    CComPtr<IDXGIFactory> raw;
    ASSERT_EQ(factory->GetPrimaryAdapter().Get()->GetParent(IID_PPV_ARGS(&raw)), S_OK);
    DXGI_SWAP_CHAIN_DESC made = {};
    const CreateSwapChain create(raw, [&made](auto original, IDXGIFactory* self, IUnknown* device,
                                              DXGI_SWAP_CHAIN_DESC* desc, IDXGISwapChain** out) {
        made = *desc;
        return original(self, device, desc, out);
    });
    Norvex::Test::DrawAndPresent(*D11Device::CreatePrimary());
    EXPECT_EQ(made.BufferDesc.Width, 160U);
    EXPECT_EQ(made.BufferDesc.Height, 90U);
    EXPECT_EQ(made.BufferDesc.Format, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(made.BufferDesc.RefreshRate.Numerator, 60U);
    EXPECT_EQ(made.BufferCount, 2U);
    EXPECT_EQ(made.SwapEffect, DXGI_SWAP_EFFECT_FLIP_DISCARD);
    EXPECT_EQ(made.BufferUsage, UINT{DXGI_USAGE_RENDER_TARGET_OUTPUT});
    EXPECT_EQ(made.Windowed, TRUE);
}

} // namespace
} // namespace Norvex::DX
