#pragma once

// `norvexdx info`. Called once, from the main thread.

namespace Norvex::App {

struct InfoOptions {
    bool json = false;
};

// Prints adapters, outputs, the devices of both generations and the compiler. What an adapter
// cannot do is told in its place; throws only when DXGI itself fails.
void RunInfo(const InfoOptions& options);

} // namespace Norvex::App
