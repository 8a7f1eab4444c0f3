#pragma once

// A Direct3D 12 device with a queue, textures filled from pixels, and pixels read back: what
// drawing tests share. The device is the system's first adapter's; a system without one fails the
// test. Direct3D 11: Canvas11.h; what stands in both is used alike.

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Renderer.h"
#include "Proc/DirectX/Manager/D3FrameDraw.h"
#include "Proc/DirectX/Manager/D3FramePeak.h"
#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

class Canvas {
public:
    using FillDraw = DX::D12FillDraw;
    using ImageDraw = DX::D12ImageDraw;
    using ImageRenderer = DX::D12ImageRenderer;
    using Converter = DX::D12YUVConverter;
    using Frame = DX::D12Frame;
    using FrameDraw = DX::D12FrameDraw;
    using FramePeak = DX::D12FramePeak;
    using Texture = CComPtr<ID3D12Resource>;
    using View = boost::intrusive_ptr<DX::D12Descriptor>;

    static constexpr auto kName = "D3D12";
    static constexpr auto kKind = "DirectX 12 exception"; // what() of the generation's failures

    const boost::intrusive_ptr<DX::D12Device>& GetDevice() const { return m_device; }
    const boost::intrusive_ptr<DX::D12CommandQueue>& GetQueue() const { return m_queue; }

    static Texture TextureOf(const View& view) { return view->GetFirstResource(); }
    // A source and one or two planes, which stay in the states that they are used in.
    template <class... Arguments>
    static void Convert(Converter& converter, const Arguments&... arguments) {
        constexpr auto kRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
        constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
        std::array<DX::D12ResourceStates, sizeof...(arguments) / 2> states;
        states.fill({kDrawn, kDrawn});
        states[0] = {kRead, kRead};
        converter.Encode(arguments..., states);
    }

    // Formats as in Pixels.h.
    Texture MakeTexture(const Pixels& pixels, DXGI_FORMAT format) {
        const auto texture =
            MakeTexture(pixels.width, pixels.height, format, {}, D3D12_RESOURCE_STATE_COPY_DEST);
        const std::vector<std::uint8_t> bytes = EncodePixels(pixels, format);
        DX::D12UploadResourceParams params;
        params.destination = texture;
        params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
        params.subresources = {{bytes.data(), bytes.size() / pixels.height, bytes.size()}};
        m_queue->UploadResource(params);
        return texture;
    }
    View MakeSource(const Pixels& pixels, DXGI_FORMAT format) {
        return m_device->CreateTextureShaderResourceView(MakeTexture(pixels, format));
    }
    // In the render-target state, cleared.
    View MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format,
                    const Proc::ColorF& color = {}) {
        auto target = m_device->CreateRenderTargetView(
            MakeTexture(width, height, format, D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET,
                        D3D12_RESOURCE_STATE_RENDER_TARGET));
        Record([&](const auto& allocator) { allocator->ClearRenderTargetView(target, color, {}); });
        return target;
    }
    // Of the render-target state, which it leaves it in.
    Pixels Read(const View& target) {
        const Texture texture = TextureOf(target);
        const D3D12_RESOURCE_DESC desc = Platform::GetDesc(texture);
        const auto width = static_cast<unsigned>(desc.Width);
        const std::uint64_t pitch = std::uint64_t{width} * BytesPerPixel(desc.Format);
        std::vector<std::uint8_t> bytes(pitch * desc.Height);
        DX::D12DownloadResourceParams params;
        params.source = texture;
        params.stateBefore = D3D12_RESOURCE_STATE_RENDER_TARGET;
        params.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
        params.subresources = {{bytes.data(), pitch, bytes.size()}};
        m_queue->DownloadResource(params);
        return DecodePixels(bytes.data(), pitch, width, desc.Height, desc.Format);
    }

    // Executes what the call records on the allocator that it is given.
    template <class Call>
    void Record(const Call& call) {
        const auto allocator = m_queue->CreateCommandAllocator();
        call(allocator);
        allocator->Execute();
    }

    float Measure(FramePeak& peak, const Frame& frame) {
        Record([&](const auto& allocator) {
            allocator->RecordList(nullptr, [&](const auto& list) { peak.Encode(list, frame); });
            peak.Encode(allocator, frame);
        });
        return peak.Read(m_queue);
    }

private:
    Texture MakeTexture(unsigned width, unsigned height, DXGI_FORMAT format,
                        D3D12_RESOURCE_FLAGS flags, D3D12_RESOURCE_STATES state) {
        DX::D12Texture2DDesc desc;
        desc.width = width;
        desc.height = height;
        desc.format = format;
        desc.resourceFlags = flags;
        desc.initialState = state;
        return m_device->CreateTexture2D(desc);
    }

    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
};

} // namespace Norvex::Test
