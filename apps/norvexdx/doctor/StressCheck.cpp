#include "apps/norvexdx/doctor/StressCheck.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "apps/norvexdx/console/Stopwatch.h"

namespace Norvex::App {

namespace {

constexpr unsigned kThreads = 4;

Image MakeNoise(std::mt19937& random) {
    constexpr unsigned kLargestSide = 300;
    const auto side = [&] { return static_cast<long>(1 + random() % kLargestSide); };
    Image image = Image::Make({side(), side()}, 8);
    std::ranges::generate(image.pixels, [&] { return static_cast<std::uint8_t>(random()); });
    return image;
}

bool ComesBack(Graphics& graphics, const Image& image) {
    const auto picture = graphics.Upload(image);
    const auto canvas = graphics.MakeCanvas(image.GetSize(), image.bitsPerChannel);
    graphics.Draw(*picture, *canvas, {});
    return canvas->Download().pixels == image.pixels;
}

// What the threads share.
struct Work {
    Graphics& graphics;
    double milliseconds;
    Stopwatch stopwatch{};
    std::atomic<std::size_t> pictures{0};
    std::atomic<std::size_t> wrong{0};
    std::mutex lock{};
    std::exception_ptr failure{}; // the first
};

void Repeat(Work& work, unsigned seed) {
    try {
        std::mt19937 random(seed);
        while (work.stopwatch.GetMilliseconds() < work.milliseconds) {
            work.wrong += ComesBack(work.graphics, MakeNoise(random)) ? 0 : 1;
            ++work.pictures;
        }
    } catch (...) {
        const std::scoped_lock lock(work.lock);
        work.failure = work.failure ? work.failure : std::current_exception();
    }
}

} // namespace

StressResult RunStress(Graphics& graphics, double seconds) {
    Work work{.graphics = graphics, .milliseconds = seconds * 1000.0};
    {
        std::vector<std::jthread> threads;
        threads.reserve(kThreads);
        // New noise in every run: memory that an earlier one left must not pass for a picture.
        std::random_device seeds;
        for (unsigned i = 0; i < kThreads; ++i) {
            threads.emplace_back([&work, seed = seeds()] { Repeat(work, seed); });
        }
    }
    if (work.failure) {
        std::rethrow_exception(work.failure);
    }
    return {kThreads, work.pictures, work.wrong};
}

} // namespace Norvex::App
