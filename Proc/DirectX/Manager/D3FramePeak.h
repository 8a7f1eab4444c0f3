#pragma once

// The brightest light in a frame, measured on the device: the largest channel of any pixel, as
// MaxCLL of CTA-861.3 counts it, by passes that each leave one pixel of 16 x 16. For
// ColorConversionInfo::sourcePeakLuminance of clips whose metadata say nothing; a clip's is the
// largest of its frames', and one that changes from frame to frame flickers. One thread at a time;
// on Direct3D 11 inside D11Device::Encode. Throws DirectX11Exception, DirectX12Exception. Next:
// D3ToneMapping.h.

#include <memory>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D11Device;
class D11QuadPipeline;

class NORVEX_DX_API D12FramePeak : public LiveObject {
public:
    // Shaders are compiled when a kind of layout first needs them. "There is no device".
    explicit D12FramePeak(const boost::intrusive_ptr<D12Device>& device);
    ~D12FramePeak() override;
    D12FramePeak(const D12FramePeak&) = delete;
    D12FramePeak& operator=(const D12FramePeak&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }

    // Records one closed list, or throws and leaves the allocator as it was. The frame is in PQ,
    // its textures are readable by the pixel shader; textures in between are kept for frames of
    // that size, so that lists follow each other on one queue. What is wrong with a frame: as of
    // D12FrameDraw; "The frame is not in PQ", "There is no command allocator".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator, const D12Frame& source);
    // Into an open list, or throws and draws nothing; what it replaces there: D3D12Renderer.h.
    // "There is no command list", "The command list is closed".
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list, const D12Frame& source);

    // Of the last list that was executed, cd/m2, 0 to 10,000. Blocks until the queue, the same as
    // the list's, has come to it. "No frame was measured", "Command queue is null", and what
    // downloading throws.
    float Read(const boost::intrusive_ptr<D12CommandQueue>& queue) const;

private:
    struct Passes;

    boost::intrusive_ptr<D12Device> m_device;
    std::unique_ptr<Passes> m_passes;
};

class NORVEX_DX_API D11FramePeak : public LiveObject {
public:
    // As D12FramePeak.
    explicit D11FramePeak(const boost::intrusive_ptr<D11Device>& device);
    ~D11FramePeak() override;
    D11FramePeak(const D11FramePeak&) = delete;
    D11FramePeak& operator=(const D11FramePeak&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }

    // Inside D11Device::Encode. What of the context's state is replaced: as of
    // D11FrameDraw::Encode. What is wrong: as of D12FramePeak, and "There is no device context".
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context, const D11Frame& source);

    // Of the last frame, cd/m2, 0 to 10,000, inside D11Device::Encode. Blocks until the device has
    // come to it. "No frame was measured", "There is no device context".
    float Read(const boost::intrusive_ptr<D11DeviceContext>& context) const;

private:
    struct Passes;

    boost::intrusive_ptr<D11Device> m_device;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::unique_ptr<Passes> m_passes;
};

} // namespace Norvex::DX
