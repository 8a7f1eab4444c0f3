// Entry point of the DLL.

#include "Platform/Direct3D.h"
#include "Proc/DirectX/Manager/DispatchThreads.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* reserved) {
    if (reason == DLL_PROCESS_DETACH) {
        // A non-null pointer says that the process ends.
        Norvex::DX::ReleaseDispatchThreads(reserved != nullptr);
    }
    return TRUE;
}
