#pragma once

// The calling thread's stack as addresses, which costs about a microsecond, to be put into words
// later or never. For exceptions: GetCallStack in Host/Exception.h. Plain values, any thread.

#include <array>
#include <cstddef>
#include <string>

#include "Platform/Export.h"

namespace Norvex {

struct CallStack {
    // How many are kept at most.
    static constexpr std::size_t kMaxFrames = 24;

    std::array<const void*, kMaxFrames> frames{}; // return addresses, innermost first; then null

    friend auto operator<=>(const CallStack&, const CallStack&) = default;
};

// The innermost frames, its caller's first.
NORVEX_HOST_API CallStack CaptureCallStack() noexcept;
// In the form of GetCallStack. What was unloaded since is an address alone.
NORVEX_HOST_API std::string FormatCallStack(const CallStack& stack);

} // namespace Norvex
