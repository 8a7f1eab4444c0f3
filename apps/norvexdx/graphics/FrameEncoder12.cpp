#include "apps/norvexdx/graphics/FrameEncoder12.h"

#include <cstring>

#include <boost/throw_exception.hpp>

#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "Proc/DirectX/Manager/D3Scaler.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/graphics/Pieces12.h"

namespace Norvex::App {

namespace {

// The states in which textures wait in their pools.
constexpr auto kSourceState = D3D12_RESOURCE_STATE_COPY_DEST;
constexpr auto kCanvasState = D3D12_RESOURCE_STATE_RENDER_TARGET;
constexpr auto kPlaneState = D3D12_RESOURCE_STATE_COPY_SOURCE;
constexpr auto kReadable = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;

D3D12_RESOURCE_BARRIER Transition(ID3D12Resource* resource, D3D12_RESOURCE_STATES before,
                                  D3D12_RESOURCE_STATES after) {
    return CD3DX12_RESOURCE_BARRIER::Transition(resource, before, after);
}

class FrameEncoder12 : public FrameEncoder {
public:
    FrameEncoder12(const boost::intrusive_ptr<DX::D12Device>& device, const EncoderParams& params,
                   const EncoderTextures& textures)
        : FrameEncoder(params, textures),
          m_device(device),
          m_queue(MakeQueue12(device)),
          m_canvasPool(DX::D12Texture2DPool::Create(
              device, MakeTextureDesc12(params.size, textures.canvasFormat, kCanvasState, true))) {
        MakeConverters();
        MakePlanePools();
        PlacePlanes();
        m_queue->Get()->GetTimestampFrequency(&m_ticksPerSecond);
        for (Slot& slot : m_slots) {
            slot.begin = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
            slot.end = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
        }
    }

private:
    using Texture = boost::intrusive_ptr<DX::D12Texture2D>;
    using List = boost::intrusive_ptr<DX::D12GraphicsCommandList>;

    // What one frame holds while it is in flight. What the device uses of it, the allocator keeps
    // alive.
    struct Work {
        std::array<Texture, 3> source; // a picture, or a plane each
        Texture canvas;                // null when the frame is not drawn
        std::array<Texture, 3> planes; // of a planar texture only the first
        boost::intrusive_ptr<DX::D12Buffer> readback;
        boost::intrusive_ptr<DX::D12CommandAllocator> allocator;
    };

    struct Slot {
        boost::intrusive_ptr<DX::D12Query> begin;
        boost::intrusive_ptr<DX::D12Query> end;
        Work work;
    };

    void MakeConverters() {
        const EncoderParams& params = GetParams();
        if (params.onePass) {
            m_onePass.reset(new DX::D12FrameConverter(m_device));
            if (const auto& lut = params.onePass->stages.lut) {
                m_onePass->SetColorLut(boost::intrusive_ptr(new DX::D12ColorLut(m_queue, *lut)));
            }
            return;
        }
        m_draw.reset(new DX::D12ImageDraw(m_device));
        m_converter.reset(new DX::D12YUVConverter(m_device, params.alpha));
        if (params.conversion) {
            m_draw->Specialize(params.conversion);
        }
    }

    void MakePlanePools() {
        const VideoFormat& format = GetParams().format;
        const auto make = [&](const DX::Size2DT<long>& size, DXGI_FORMAT plane) {
            return DX::D12Texture2DPool::Create(m_device,
                                                MakeTextureDesc12(size, plane, kPlaneState, true));
        };
        const DX::Size2DT<long>& size = GetParams().size;
        if (GetParams().onePass) {
            const DX::D3FrameDesc& target = GetParams().onePass->target;
            for (unsigned i = 0; i < target.GetPlaneCount(); ++i) {
                m_planePools[i] = make(target.GetPlane(i).size, target.GetPlane(i).format);
            }
        } else if (IsPlanar()) {
            m_planePools[0] = make(size, format.planar);
        } else {
            m_planePools[0] = make(size, format.luma);
            m_planePools[1] = make(GetChromaSize(size), format.chroma);
        }
    }

    // Where the planes lie in a readback buffer.
    void PlacePlanes() {
        for (const auto& pool : m_planePools) {
            if (pool == nullptr) {
                continue;
            }
            const auto desc = CD3DX12_RESOURCE_DESC::Tex2D(pool->GetDesc().format, pool->GetWidth(),
                                                           pool->GetHeight(), 1, 1);
            std::vector<DX::D12PlacedSubResourceFootprint> places;
            std::uint64_t size = 0;
            m_readbackSize += D3D12_TEXTURE_DATA_PLACEMENT_ALIGNMENT - 1;
            m_readbackSize -= m_readbackSize % D3D12_TEXTURE_DATA_PLACEMENT_ALIGNMENT;
            m_device->GetCopyableFootprints(desc, 0, IsPlanar() ? 2 : 1, m_readbackSize, places,
                                            size);
            m_places.insert(m_places.end(), places.begin(), places.end());
            m_readbackSize += size;
        }
    }

    void Begin(std::size_t slot, const ClipFrame& frame) override {
        Slot& place = m_slots[slot];
        Work work;
        ObtainSource(frame, work);
        work.canvas = IsDrawn(frame) ? m_canvasPool->ObtainTexture() : nullptr;
        if (work.canvas && GetParams().onePass && !m_scaler) {
            m_scaler.reset(new DX::D12Scaler(m_device));
        }
        for (std::size_t i = 0; i < work.planes.size(); ++i) {
            work.planes[i] = m_planePools[i] ? m_planePools[i]->ObtainTexture() : nullptr;
        }
        work.readback = m_device->CreateReadbackBuffer(m_readbackSize);
        work.allocator = m_queue->CreateCommandAllocator();
        work.allocator->RecordList(nullptr, [&](const List& list) {
            list->EndQuery(place.begin);
            RecordUpload(*list, work, frame);
            if (GetParams().onePass) {
                RecordOnePass(list, work, frame);
            } else {
                RecordTwoPasses(list, work, frame);
            }
            RecordReadback(*list, work);
            list->EndQuery(place.end);
        });
        work.allocator->Execute();
        place.work = std::move(work);
    }

    std::optional<double> End(std::size_t slot, std::uint8_t* planes) override {
        Slot& place = m_slots[slot];
        place.work.allocator->WaitComplete();
        CheckDevice();
        place.work.readback->Read(0, m_readbackSize, [&](const std::uint8_t* data) {
            for (const auto& plane : m_places) {
                for (std::uint32_t row = 0; row < plane.NumRows; ++row) {
                    std::memcpy(planes,
                                data + plane.Offset + std::uint64_t{row} * plane.Footprint.RowPitch,
                                plane.RowSizeInBytes);
                    planes += plane.RowSizeInBytes;
                }
            }
        });
        place.work = {};
        const std::uint64_t ticks = place.end->GetUint64Stats() - place.begin->GetUint64Stats();
        constexpr double kMsPerSecond = 1000.0;
        return m_ticksPerSecond != 0 ? std::optional(static_cast<double>(ticks) * kMsPerSecond /
                                                     static_cast<double>(m_ticksPerSecond))
                                     : std::nullopt;
    }

    // The fence of a lost device counts as reached, but its planes are not there.
    void CheckDevice() {
        const long reason = m_device->GetDeviceRemovedReason();
        if (reason != S_OK) {
            DX::DirectX12Exception failure;
            failure << ErrorDescription("The device was lost during the conversion of a frame")
                    << HResult(reason, m_device->Get());
            boost::throw_exception(failure);
        }
    }

    // Pictures of one clip may differ in size; each size has its pool.
    void ObtainSource(const ClipFrame& frame, Work& work) {
        const std::vector<PlaneRows> planes = GetPlaneRows(frame);
        for (std::size_t i = 0; i < planes.size(); ++i) {
            const auto desc =
                MakeTextureDesc12(planes[i].size, planes[i].format, kSourceState, false);
            auto& pool = m_sourcePools[i];
            if (!pool || pool->GetDesc().width != desc.width ||
                pool->GetDesc().height != desc.height || pool->GetDesc().format != desc.format) {
                pool = DX::D12Texture2DPool::Create(m_device, desc);
            }
            work.source[i] = pool->ObtainTexture();
        }
    }

    static void RecordUpload(DX::D12GraphicsCommandList& list, const Work& work,
                             const ClipFrame& frame) {
        const std::vector<PlaneRows> planes = GetPlaneRows(frame);
        for (std::size_t i = 0; i < planes.size(); ++i) {
            const PlaneRows& plane = planes[i];
            DX::D12UploadResourceParams params;
            params.destination = work.source[i]->GetResource();
            params.stateBefore = kSourceState;
            params.stateAfter = kReadable;
            params.subresources = {{plane.data, plane.rowBytes,
                                    plane.rowBytes * static_cast<std::size_t>(plane.size.height)}};
            list.UploadResource(params);
        }
    }

    static DX::D12Frame MakeFrame(const DX::D3FrameDesc& desc,
                                  const std::array<Texture, 3>& planes) {
        DX::D12Frame frame;
        frame.desc = desc;
        for (std::size_t i = 0; i < planes.size() && planes[i]; ++i) {
            frame.textures[i] = planes[i]->GetResource();
        }
        return frame;
    }

    void RecordOnePass(const List& list, const Work& work, const ClipFrame& frame) {
        constexpr DX::D12ResourceStates kPlaneStates = {kPlaneState, kPlaneState};
        const DX::D12Frame source = MakeFrame(DescribeSource(frame), work.source);
        const DX::D12Frame target = MakeFrame(DescribeTarget(), work.planes);
        if (work.canvas) {
            RecordScaling(list, work, frame, source);
            m_onePass->Encode(list, MakeFrame(DescribeScaled(frame), {work.canvas}), target,
                              {{{kCanvasState, kCanvasState}, kPlaneStates}}, GetConversion());
        } else {
            m_onePass->Encode(list, source, target, {{{kReadable, kSourceState}, kPlaneStates}},
                              GetConversion());
        }
    }

    void RecordScaling(const List& list, const Work& work, const ClipFrame& frame,
                       const DX::D12Frame& source) {
        const auto target = m_device->CreateRenderTargetView(work.canvas->GetResource());
        list->ClearRenderTargetView(target, kBlack, {});
        m_scaler->Encode(list, source, target, GetScaling(frame));
    }

    void RecordTwoPasses(const List& list, const Work& work, const ClipFrame& frame) {
        if (work.canvas) {
            RecordDraw(list, work, frame.GetSize());
        }
        RecordConversion(list, work);
    }

    void RecordDraw(const List& list, const Work& work, const DX::Size2DT<long>& sourceSize) {
        const auto target = m_device->CreateRenderTargetView(work.canvas->GetResource());
        const Placement placement = PlacePicture({}, sourceSize, GetParams().size);
        list->ClearRenderTargetView(target, kBlack, {});
        auto source = m_device->CreateTextureShaderResourceView(work.source[0]->GetResource());
        for (unsigned i = Graphics::CountHalvings(sourceSize, placement.scale); i > 0; --i) {
            source = RecordHalving(list, source);
        }
        m_draw->Encode(list, source, target, placement.transform, GetParams().conversion,
                       std::nullopt);
    }

    // So that a picture that gets much smaller does not alias.
    boost::intrusive_ptr<DX::D12Descriptor>
    RecordHalving(const List& list, const boost::intrusive_ptr<DX::D12Descriptor>& source) {
        const DX::Size2DT<long> size = source->GetSize();
        const auto half = m_device->CreateTexture2D(
            MakeTextureDesc12({(size.width + 1) / 2, (size.height + 1) / 2},
                              GetTextures().canvasFormat, kCanvasState, true));
        m_draw->Encode(list, source, m_device->CreateRenderTargetView(half), {}, std::nullopt,
                       std::nullopt);
        list->ResourceBarrier({Transition(half, kCanvasState, kReadable)});
        return m_device->CreateTextureShaderResourceView(half);
    }

    void RecordConversion(const List& list, const Work& work) {
        const auto& source = work.canvas ? work.canvas : work.source[0];
        const DX::D12ResourceStates sourceStates =
            work.canvas ? DX::D12ResourceStates{kCanvasState, kCanvasState}
                        : DX::D12ResourceStates{kReadable, kSourceState};
        constexpr DX::D12ResourceStates kPlaneStates = {kPlaneState, kPlaneState};
        const EncoderParams& params = GetParams();
        if (IsPlanar()) {
            m_converter->Encode(list, source->GetResource(), work.planes[0]->GetResource(),
                                params.matrix, {{sourceStates, kPlaneStates}});
        } else {
            m_converter->Encode(list, source->GetResource(), work.planes[0]->GetResource(),
                                work.planes[1]->GetResource(), params.format.planar, params.matrix,
                                {{sourceStates, kPlaneStates, kPlaneStates}});
        }
    }

    void RecordReadback(DX::D12GraphicsCommandList& list, const Work& work) const {
        for (unsigned i = 0; i < m_places.size(); ++i) {
            const Texture& plane = work.planes[IsPlanar() ? 0 : i];
            list.CopyTextureRegion(
                CD3DX12_TEXTURE_COPY_LOCATION(work.readback->GetResource(),
                                              {m_places[i].Offset, m_places[i].Footprint}),
                0, 0, 0, CD3DX12_TEXTURE_COPY_LOCATION(plane->GetResource(), IsPlanar() ? i : 0),
                nullptr);
        }
        for (std::size_t i = 0; work.canvas && i < work.source.size() && work.source[i]; ++i) {
            list.ResourceBarrier(
                {Transition(work.source[i]->GetResource(), kReadable, kSourceState)});
        }
    }

    boost::intrusive_ptr<DX::D12Device> m_device;
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue;
    boost::intrusive_ptr<DX::D12ImageDraw> m_draw;         // of two passes, as the next
    boost::intrusive_ptr<DX::D12YUVConverter> m_converter; // null in one
    boost::intrusive_ptr<DX::D12FrameConverter> m_onePass; // null in two
    boost::intrusive_ptr<DX::D12Scaler> m_scaler;          // null before it is needed
    std::array<boost::intrusive_ptr<DX::D12Texture2DPool>, 3> m_sourcePools; // of the last frame
    boost::intrusive_ptr<DX::D12Texture2DPool> m_canvasPool;
    std::array<boost::intrusive_ptr<DX::D12Texture2DPool>, 3> m_planePools;
    std::vector<DX::D12PlacedSubResourceFootprint> m_places; // of the planes
    std::uint64_t m_readbackSize = 0;                        // bytes
    std::uint64_t m_ticksPerSecond = 0;
    std::array<Slot, kSlots> m_slots;
};

} // namespace

std::unique_ptr<FrameEncoder> MakeFrameEncoder12(const boost::intrusive_ptr<DX::D12Device>& device,
                                                 const EncoderParams& params,
                                                 const EncoderTextures& textures) {
    return std::make_unique<FrameEncoder12>(device, params, textures);
}

} // namespace Norvex::App
