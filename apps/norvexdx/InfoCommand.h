#pragma once

// `norvexdx info`. Called once, from the main thread.

namespace Norvex::App {

struct InfoOptions {
    bool json = false;
};

// Prints adapters, outputs, Direct3D 12 devices and the compiler. What an adapter cannot do is told
// in its place; throws only when DXGI itself fails.
void RunInfo(const InfoOptions& options);

} // namespace Norvex::App
