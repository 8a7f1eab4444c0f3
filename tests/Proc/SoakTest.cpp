// Frame after frame leaves nothing: no object of Direct3D, no memory of the library's, no handle.
// NORVEX_STEPS: how many frames.

#include <bit>

#include <fmt/format.h>

#include "tests/Proc/Direct3D12Fixture.h"
#include "tests/support/Canvas11.h"

namespace Norvex::Test {
namespace {

auto Noting(std::atomic<int>& count, int change) {
    return [&count, change](auto original, auto... arguments) {
        count += change;
        return original(arguments...);
    };
}

// What the library's DLL takes from operator new and does not give back.
struct Memory {
    std::atomic<int> count{0};
    MethodPatch<0, void*(std::size_t)> taken{FindImport(L"NorvexDX.dll", "_Znwy", "malloc"),
                                             Noting(count, 1)};
    MethodPatch<0, void(void*, std::size_t)> given{FindImport(L"NorvexDX.dll", "_ZdlPvy", "free"),
                                                   Noting(count, -1)};
};

// Of the process, one after the other: not every system tells their number.
long long CountHandles() {
    long long count = 0;
    for (std::uintptr_t value = 4; value < 1U << 16; value += 4) {
        DWORD flags = 0;
        count += GetHandleInformation(std::bit_cast<HANDLE>(value), &flags) != FALSE ? 1 : 0;
    }
    return count;
}

template <class AnyCanvas>
struct SoakTest : testing::Test {};
TYPED_TEST_SUITE(SoakTest, BothCanvases, CanvasName);

TYPED_TEST(SoakTest, AFrameLeavesNothing) {
    TypeParam canvas;
    const auto& device = canvas.GetDevice();
    const Pixels pixels = MakePixels(8, 4, [](unsigned x, unsigned) { return Color{x / 7.0}; });
    const auto target = canvas.MakeTarget(8, 4, DXGI_FORMAT_R8G8B8A8_UNORM);
    const boost::intrusive_ptr draw(new typename TypeParam::ImageDraw(device));
    const Memory memory;
    const auto run = [&](unsigned frames) {
        for (unsigned frame = 0; frame < frames; ++frame) {
            const auto source = canvas.MakeSource(pixels, DXGI_FORMAT_R8G8B8A8_UNORM);
            canvas.Record([&](const auto& on) { draw->Encode(on, source, target, {}, {}); });
            if (frame % 16 == 0) { // so that no more are in flight, on a busy machine too
                canvas.Read(target);
                DX::D12CommandAllocator::WaitAllComplete();
            }
        }
        DX::D12CommandAllocator::WaitAllComplete();
        device->Get()->AddRef();
        return std::array<long long, 3>{device->Get()->Release(), memory.count, CountHandles()};
    };
    const auto before = run(1000); // pools and caches have their sizes then
    const unsigned frames = FromEnvironment("NORVEX_STEPS", 2000);
    const auto after = run(frames);
    for (std::size_t i = 0; i < before.size(); ++i) {
        constexpr const char* kNames[] = {"objects", "pieces of memory", "handles"};
        fmt::print("{}: {} before, {} after {} frames\n", kNames[i], before[i], after[i], frames);
        EXPECT_LE(after[i], before[i] + 200) << kNames[i]; // as pools happen to stand
    }
}

} // namespace
} // namespace Norvex::Test
