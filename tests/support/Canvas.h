#pragma once

// A device with a queue, textures filled from pixels, and pixels read back: what drawing tests
// share. The device is the system's first adapter's; a system without one fails the test.

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"

namespace Norvex::Test {

using Color = std::array<double, 4>;

// RGBA pixels row by row, in the range of the format they are for.
struct Pixels {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<Color> colors;

    const Color& At(unsigned x, unsigned y) const { return colors[std::size_t{y} * width + x]; }
};

Pixels MakePixels(unsigned width, unsigned height,
                  const std::function<Color(unsigned x, unsigned y)>& colorAt);

float HalfToFloat(std::uint16_t half);
std::uint16_t FloatToHalf(float value);

class Canvas {
public:
    Canvas();

    const boost::intrusive_ptr<DX::D12Device>& GetDevice() const { return m_device; }
    const boost::intrusive_ptr<DX::D12CommandQueue>& GetQueue() const { return m_queue; }

    // R8G8B8A8_UNORM, R16G16B16A16_UNORM, R16G16B16A16_FLOAT, R32G32B32A32_FLOAT. Values are
    // quantised as the format does, so MakeTexture and Read give back what the GPU sees.
    CComPtr<ID3D12Resource> MakeTexture(const Pixels& pixels, DXGI_FORMAT format);
    boost::intrusive_ptr<DX::D12Descriptor> MakeSource(const Pixels& pixels, DXGI_FORMAT format);
    // In the render-target state, cleared.
    boost::intrusive_ptr<DX::D12Descriptor>
    MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format, const Proc::ColorF& color = {});
    // Leaves the resource in the render-target state.
    Pixels Read(const boost::intrusive_ptr<DX::D12Descriptor>& target);

private:
    boost::intrusive_ptr<DX::D12Device> m_device;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
};

// The values as a texture of that format holds them.
Pixels Quantize(const Pixels& pixels, DXGI_FORMAT format);

} // namespace Norvex::Test
