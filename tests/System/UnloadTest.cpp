// A plug-in of a host that is unloaded, and the library with it: not while a background thread runs
// the library's code, and then for good. And the end of the process meanwhile. This program itself
// does not link the library.

#include <chrono>
#include <cstdlib>
#include <thread>

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

// Also when the threads have had nothing to do for so long that they ended, in a long run.
TEST(UnloadTest, TheLibraryStaysWhileItsThreadsMayRun) {
    EXPECT_FALSE(IsLibraryLoaded());
    // The system's own threads may outlive the device.
    ASSERT_NE(LoadLibraryW(L"d3d12.dll"), nullptr);
    constexpr int kIdleSeconds = 32;
    for (const int idle : {0, std::getenv("NORVEX_SECONDS") != nullptr ? kIdleSeconds : 0}) {
        CComPtr<ID3D12Fence> fence;
        fence.Attach(Plugin().Call("Submit"));
        EXPECT_TRUE(IsLibraryLoaded()) << "a thread waits in it";
        EXPECT_EQ(fence.p->Signal(1), S_OK);
        fence.Release();
        std::this_thread::sleep_for(std::chrono::seconds(idle));
        EXPECT_TRUE(IsLibraryLoaded()) << "nobody has waited for the threads";
        Plugin().Call("Drain");
        EXPECT_FALSE(IsLibraryLoaded()) << "the plug-in was the last";
    }
}

// While a thread waits for work that never ends.
TEST(UnloadTest, TheProcessMayEndAnyWay) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process each
    const auto end = [](const auto& way) {
        EXPECT_EXIT(
            {
                const Plugin plugin;
                plugin.Call("Submit");
                way();
            },
            testing::ExitedWithCode(7), "");
    };
    end([] { std::exit(7); });
    end([] { ExitProcess(7); });
    end([] { std::jthread([] { std::exit(7); }).join(); });
    end([] { std::jthread([] { ExitProcess(7); }).join(); });
}

// The last test: the process returns from main.
TEST(UnloadTest, TheProcessMayReturn) {
    Plugin().Call("Submit");
    EXPECT_TRUE(IsLibraryLoaded());
}

} // namespace
