// A host of one source: says which library it runs with, and uses both DLLs. With a number it acts
// as if it had been compiled with the headers of that version.

#include <cstdio>
#include <cstdlib>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/Exceptions.h"

using namespace Norvex;

int main(int count, char** arguments) {
    NORVEX_DX_BUILT_AS(count > 1 ? std::atoi(arguments[1]) : NORVEX_DX_VERSION);
    try {
        const auto device = DX::D12Device::CreatePrimary();
        std::printf("NorvexDX %s, headers %s, scale %.2f, level %s\n", DX::GetVersionString(),
                    NORVEX_DX_VERSION_STRING, Proc::ColorConversionInfo().GetLinearScale() * 1.0,
                    device->GetLevelName().c_str());
    } catch (const DX::DirectXException& e) {
        std::printf("%s\n", e.GetErrorDescription().c_str());
        return 1;
    }
    return 0;
}
