#pragma once

// Runs the function on so many threads at once, with the number of each; returns when all have
// ended.

#include <thread>
#include <vector>

namespace Norvex::Test {

template <class Function>
void RunThreads(unsigned count, const Function& function) {
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < count; ++i) {
        threads.emplace_back([&function, i] { function(i); });
    }
}

} // namespace Norvex::Test
