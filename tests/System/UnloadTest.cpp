// A plug-in of a host that is unloaded, and the library with it: not while a background thread runs
// the library's code, and then for good. This program itself does not link the library.

#include <gtest/gtest.h>

#include "Platform/ComPtr.h"

namespace {

class Plugin {
public:
    ~Plugin() { FreeLibrary(m_module); }

    // "Submit": submits work that waits for the fence that it answers to reach 1, and drops
    // everything. "Drain": waits for all work.
    ID3D12Fence* Call(const char* name) const {
        return reinterpret_cast<ID3D12Fence* (*)()>(
            reinterpret_cast<void*>(GetProcAddress(m_module, name)))();
    }

private:
    HMODULE m_module = LoadLibraryW(L"UnloadPlugin.dll");
};

bool IsLibraryLoaded() {
    return GetModuleHandleW(L"NorvexDX.dll") != nullptr;
}

TEST(UnloadTest, TheLibraryStaysWhileItsThreadsMayRun) {
    EXPECT_FALSE(IsLibraryLoaded());
    // The system's own threads may outlive the device.
    ASSERT_NE(LoadLibraryW(L"d3d12.dll"), nullptr);
    CComPtr<ID3D12Fence> fence;
    fence.Attach(Plugin().Call("Submit"));
    EXPECT_TRUE(IsLibraryLoaded()) << "a thread waits in it";
    EXPECT_EQ(fence.p->Signal(1), S_OK);
    fence.Release();
    Plugin().Call("Drain");
    EXPECT_FALSE(IsLibraryLoaded()) << "the plug-in was the last";
}

// The last test: the process ends while a thread waits for work that never ends.
TEST(UnloadTest, TheProcessMayEndWhileAThreadWaits) {
    Plugin().Call("Submit");
    EXPECT_TRUE(IsLibraryLoaded());
}

} // namespace
