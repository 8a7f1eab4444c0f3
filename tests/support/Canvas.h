#pragma once

// A Direct3D 12 device with a queue, textures filled from pixels, and pixels read back: what
// drawing tests share. The device is the system's first adapter's; a system without one fails the
// test. Direct3D 11: Canvas11.h; what stands in both is used alike.

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

class Canvas {
public:
    using ImageDraw = DX::D12ImageDraw;
    using ImageRenderer = DX::D12ImageRenderer;

    Canvas();

    const boost::intrusive_ptr<DX::D12Device>& GetDevice() const { return m_device; }
    const boost::intrusive_ptr<DX::D12CommandQueue>& GetQueue() const { return m_queue; }

    // Formats as in Pixels.h.
    CComPtr<ID3D12Resource> MakeTexture(const Pixels& pixels, DXGI_FORMAT format);
    boost::intrusive_ptr<DX::D12Descriptor> MakeSource(const Pixels& pixels, DXGI_FORMAT format);
    // In the render-target state, cleared.
    boost::intrusive_ptr<DX::D12Descriptor>
    MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format, const Proc::ColorF& color = {});
    // Of the render-target state, which it leaves it in.
    Pixels Read(const CComPtr<ID3D12Resource>& texture);
    Pixels Read(const boost::intrusive_ptr<DX::D12Descriptor>& target) {
        return Read(target->GetFirstResource());
    }

    // Executes what the call records on the allocator that it is given.
    template <class Call>
    void Record(const Call& call) {
        const auto allocator = m_queue->CreateCommandAllocator();
        call(allocator);
        allocator->Execute();
    }

private:
    boost::intrusive_ptr<DX::D12Device> m_device;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
};

} // namespace Norvex::Test
