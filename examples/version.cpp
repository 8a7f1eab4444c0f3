// Which library a host runs with, compiled with the headers of which, and on what device. Needs
// both DLLs, and nothing else.

#include <cstdio>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "Proc/DirectX/Manager/Version.h"

using namespace Norvex;

int main() {
    try {
        const auto device = DX::D12Device::CreatePrimary();
        std::printf("NorvexDX %s, headers %s, scale %.2f, level %s\n", DX::GetVersionString(),
                    NORVEX_DX_VERSION_STRING, double{Proc::ColorConversionInfo().GetLinearScale()},
                    device->GetLevelName().c_str());
    } catch (const DX::DirectXException& e) {
        std::printf("%s\n", e.GetErrorDescription().c_str());
        return 1;
    }
    return 0;
}
