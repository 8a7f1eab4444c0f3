#pragma once

// What the cases of Direct3D 12 draw with, and how somebody would draw it by hand. One thread.

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "bench/Twin.h"

namespace Norvex::Bench {

// A small source and target: it is recording that is measured.
struct Scene12 {
    Scene12();
    // Root signature and pipeline state, anew.
    void MakePipeline();

    boost::intrusive_ptr<DX::D12Device> device;
    boost::intrusive_ptr<DX::D12CommandQueue> queue;
    boost::intrusive_ptr<DX::D12Descriptor> source;
    boost::intrusive_ptr<DX::D12Descriptor> target;
    Proc::ColorAlphaConversionInfo conversion; // sRGB to Rec. 2020 PQ
    DX::Rect2DT<long> area = {0, 0, 2, 2};
    CComPtr<ID3D12RootSignature> rootSignature; // constants, texture
    CComPtr<ID3D12PipelineState> pipelineState; // the library's shaders
    CComPtr<ID3D12Resource> quad;
};

// A fence of the twin's own.
class Fence12 {
public:
    explicit Fence12(ID3D12Device* device);
    std::uint64_t Signal(ID3D12CommandQueue* queue);
    void Wait(std::uint64_t value);

private:
    CComPtr<ID3D12Fence> m_fence;
    std::uint64_t m_value = 0;
};

// A frame is one list; state is set once, constants lie in a ring, mapped for good.
class ExpertFrames12 {
public:
    explicit ExpertFrames12(const Scene12& scene);
    ~ExpertFrames12();
    ExpertFrames12(const ExpertFrames12&) = delete;
    ExpertFrames12& operator=(const ExpertFrames12&) = delete;
    void Draw(unsigned draws);

private:
    static constexpr unsigned kMostDraws = 256;
    struct Frame {
        CComPtr<ID3D12CommandAllocator> allocator;
        CComPtr<ID3D12GraphicsCommandList> list;
        CComPtr<ID3D12Resource> ring;
        std::uint8_t* mapped = nullptr;
        CComPtr<ID3D12DescriptorHeap> heap;
        std::uint64_t done = 0;
    };
    void SetState(Frame& frame);

    const Scene12& m_scene;
    Fence12 m_fence;
    std::array<Frame, kFramesInFlight> m_frames;
    unsigned m_next = 0;
};

// A list and a buffer of constants for each draw, with the calls that D12ImageDraw makes; another
// thread releases the buffers.
class FramesOfLists12 {
public:
    explicit FramesOfLists12(const Scene12& scene);
    ~FramesOfLists12();
    FramesOfLists12(const FramesOfLists12&) = delete;
    FramesOfLists12& operator=(const FramesOfLists12&) = delete;
    void Draw(unsigned draws);

private:
    struct Draw12 {
        CComPtr<ID3D12GraphicsCommandList> list;
        CComPtr<ID3D12DescriptorHeap> heap;
    };
    struct Frame {
        CComPtr<ID3D12CommandAllocator> allocator;
        std::vector<Draw12> draws;
        std::vector<CComPtr<ID3D12Resource>> buffers;
        std::uint64_t done = 0;
    };
    Draw12 MakeDraw(Frame& frame);
    void Record(Frame& frame, const Draw12& draw);
    void ReleaseBuffers();

    const Scene12& m_scene;
    Fence12 m_fence;
    std::array<Frame, kFramesInFlight> m_frames;
    unsigned m_next = 0;

    std::mutex m_lock;
    std::condition_variable m_wake;
    std::vector<std::vector<CComPtr<ID3D12Resource>>> m_released;
    bool m_ends = false;
    std::thread m_releaser;
};

} // namespace Norvex::Bench
