#pragma once

// One way to ask either generation for a drawing, so that a test is written once for both. One
// thread at a time.

#include <functional>
#include <memory>
#include <optional>

#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

struct Drawing {
    Pixels source;
    DXGI_FORMAT sourceFormat = DXGI_FORMAT_R8G8B8A8_UNORM;
    std::optional<DX::Size2DT<unsigned>> size = {}; // of the target; the source's
    DXGI_FORMAT targetFormat = DXGI_FORMAT_R8G8B8A8_UNORM;
    std::optional<Proc::ColorAlphaConversionInfo> conversion = {};
    std::optional<DX::Rect2DT<long>> rect = {};
    DX::AffineTransform transform = {};
    // When given, an image renderer draws, whose view state this sets; it keeps it.
    std::function<void(DX::D3ImageRenderer&)> view = {};
};

class Painter {
public:
    virtual ~Painter() = default;

    // Onto a new target that is transparent black, read back.
    virtual Pixels Draw(const Drawing& drawing) = 0;
};

// On the system's first adapter.
std::unique_ptr<Painter> MakePainter11();
std::unique_ptr<Painter> MakePainter12();

} // namespace Norvex::Test
