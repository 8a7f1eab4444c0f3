#pragma once

// Pictures on the device: a source uploaded for the shader, and a canvas to draw on and read back.
// Any thread; a canvas is used by one thread at a time. Throws what the library throws, and
// Failure. Next: PictureDrawer.h.

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "apps/norvexdx/GraphicsDevice.h"
#include "apps/norvexdx/Image.h"

namespace Norvex::App {

// Uploads as R8G8B8A8_UNORM or R16G16B16A16_UNORM and waits for it. A view for pixel shaders.
boost::intrusive_ptr<DX::D12Descriptor> UploadImage(const GraphicsDevice& graphics,
                                                    const Image& image);

// R8G8B8A8_UNORM for 8 bits; for 16 R16G16B16A16_UNORM where the device draws and blends on it,
// else R16G16B16A16_FLOAT. Failure when the device has neither.
DXGI_FORMAT ChooseTargetFormat(const DX::D12Device& device, unsigned bitsPerChannel);

// "R8G8B8A8_UNORM" of the formats that are used here, else "another format".
const char* GetFormatName(DXGI_FORMAT format);

// A texture that is drawn on: in the render-target state until it is read back.
class Canvas {
public:
    Canvas(const GraphicsDevice& graphics, const DX::Size2DT<long>& size, unsigned bitsPerChannel);

    const boost::intrusive_ptr<DX::D12Descriptor>& GetTarget() const { return m_target; }
    DXGI_FORMAT GetFormat() const { return m_target->GetFormat(); }
    DX::Size2DT<long> GetSize() const { return m_target->GetSize(); }

    // Ends drawing: waits for the queue's work on the canvas and gives the pixels, with the depth
    // asked for at construction.
    Image Download();

private:
    GraphicsDevice m_graphics;
    unsigned m_bitsPerChannel;
    boost::intrusive_ptr<DX::D12Descriptor> m_target;
};

} // namespace Norvex::App
