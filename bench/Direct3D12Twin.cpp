#include "bench/Direct3D12Twin.h"

#include <cstring>
#include <utility>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::Bench {

namespace {

constexpr auto kFormat = DXGI_FORMAT_R8G8B8A8_UNORM;
constexpr unsigned kConstantsIndex = 0;
constexpr unsigned kTextureIndex = 1;
constexpr unsigned kSmallHeap = 64; // what the library rounds up to

boost::intrusive_ptr<DX::D12ShaderParameters> MakeParameters(const Scene12& scene) {
    auto parameters = scene.device->CreateShaderParameters();
    parameters->AddConstantBufferView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE,
                                      D3D12_SHADER_VISIBILITY_ALL);
    D3D12_STATIC_SAMPLER_DESC sampler = {};
    sampler.Filter = D3D12_FILTER_MIN_MAG_MIP_LINEAR;
    sampler.AddressU = sampler.AddressV = sampler.AddressW = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
    sampler.MaxAnisotropy = 1;
    sampler.ComparisonFunc = D3D12_COMPARISON_FUNC_NEVER;
    sampler.MaxLOD = D3D12_FLOAT32_MAX;
    sampler.ShaderVisibility = D3D12_SHADER_VISIBILITY_PIXEL;
    parameters->AddSampler(sampler);
    parameters->AddViewTable(1, D3D12_SHADER_VISIBILITY_PIXEL)
        ->SetView(0, 0, scene.source, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    parameters->SerializeRootSignature();
    return parameters;
}

CComPtr<ID3D12PipelineState> MakePipelineState(const Scene12& scene) {
    DX::D12GraphicsPipelineDesc desc;
    desc.rootSignature = scene.rootSignature;
    desc.vertexShader =
        DX::D12Shader::CreateVertex("VSMain", DX::D3ImageRenderer::GetVertexShader());
    desc.pixelShader = DX::D12Shader::CreatePixel("PSMain", DX::D3ImageRenderer::GetPixelShader());
    desc.rasterizer.FillMode = D3D12_FILL_MODE_SOLID;
    desc.rasterizer.CullMode = D3D12_CULL_MODE_BACK;
    desc.rasterizer.DepthClipEnable = TRUE;
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0,
                         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0},
                        {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D12_APPEND_ALIGNED_ELEMENT,
                         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.blend.targets = {DX::D12RenderTargetBlend{}};
    desc.renderTargetFormats = {kFormat};
    return scene.device->CreateGraphicsPipelineState(desc);
}

CComPtr<ID3D12Resource> MakeUploadBuffer(DX::D12Device& device, std::uint64_t size,
                                         const void* data = nullptr) {
    DX::D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.size = size;
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.initialData = static_cast<const std::uint8_t*>(data);
    return device.CreateBuffer(desc);
}

CComPtr<ID3D12DescriptorHeap> MakeHeap(ID3D12Device* device) {
    const D3D12_DESCRIPTOR_HEAP_DESC desc = {D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV, kSmallHeap,
                                             D3D12_DESCRIPTOR_HEAP_FLAG_SHADER_VISIBLE, 0};
    CComPtr<ID3D12DescriptorHeap> heap;
    Check(device->CreateDescriptorHeap(&desc, IID_PPV_ARGS(&heap)));
    return heap;
}

CComPtr<ID3D12CommandAllocator> MakeAllocator(ID3D12Device* device) {
    CComPtr<ID3D12CommandAllocator> allocator;
    Check(device->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT, IID_PPV_ARGS(&allocator)));
    return allocator;
}

CComPtr<ID3D12GraphicsCommandList> MakeClosedList(ID3D12Device* device,
                                                  ID3D12CommandAllocator* allocator) {
    CComPtr<ID3D12GraphicsCommandList> list;
    Check(device->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, allocator, nullptr,
                                    IID_PPV_ARGS(&list)));
    Check(list->Close());
    return list;
}

void SetTargetAndGeometry(const Scene12& scene, ID3D12GraphicsCommandList* list) {
    const D3D12_CPU_DESCRIPTOR_HANDLE target = scene.target->GetCPUHandle();
    list->OMSetRenderTargets(1, &target, FALSE, nullptr);
    const D3D12_VIEWPORT viewport = {
        0, 0, static_cast<float>(scene.area.right), static_cast<float>(scene.area.bottom), 0, 1};
    list->RSSetViewports(1, &viewport);
    const RECT scissor = {0, 0, kPictureSize, kPictureSize};
    list->RSSetScissorRects(1, &scissor);
    const D3D12_VERTEX_BUFFER_VIEW quad = {scene.quad->GetGPUVirtualAddress(), sizeof(kQuad),
                                           sizeof(Vertex)};
    list->IASetVertexBuffers(0, 1, &quad);
    list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
}

void CopyView(const Scene12& scene, ID3D12DescriptorHeap* heap) {
    scene.device->Get()->CopyDescriptorsSimple(1, Platform::GetCPUStart(heap),
                                               scene.source->GetCPUHandle(),
                                               D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV);
}

} // namespace

Scene12::Scene12()
    : device(DX::D12Device::CreatePrimary()),
      queue(new DX::D12CommandQueue(device, {})) {
    DX::D12Texture2DDesc desc;
    desc.width = kPictureSize;
    desc.height = kPictureSize;
    desc.format = kFormat;
    desc.initialState = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    source = device->CreateTextureShaderResourceView(device->CreateTexture2D(desc));
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    target = device->CreateRenderTargetView(device->CreateTexture2D(desc));
    conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    MakePipeline();
    quad = MakeUploadBuffer(*device, sizeof(kQuad), kQuad.data());
}

void Scene12::MakePipeline() {
    rootSignature = MakeParameters(*this)->GetRootSignature();
    pipelineState = MakePipelineState(*this);
}

Fence12::Fence12(ID3D12Device* device) {
    Check(device->CreateFence(0, D3D12_FENCE_FLAG_NONE, IID_PPV_ARGS(&m_fence)));
}

std::uint64_t Fence12::Signal(ID3D12CommandQueue* queue) {
    Check(queue->Signal(m_fence, ++m_value));
    return m_value;
}

void Fence12::Wait(std::uint64_t value) {
    if (m_fence->GetCompletedValue() < value) {
        Check(m_fence->SetEventOnCompletion(value, nullptr));
    }
}

ExpertFrames12::ExpertFrames12(const Scene12& scene)
    : m_scene(scene),
      m_fence(scene.device->Get()) {
    ID3D12Device* const device = scene.device->Get();
    for (Frame& frame : m_frames) {
        frame.allocator = MakeAllocator(device);
        frame.list = MakeClosedList(device, frame.allocator);
        frame.ring = MakeUploadBuffer(*scene.device, std::uint64_t{kBytesOfConstants} * kMostDraws);
        void* mapped = nullptr;
        Check(frame.ring->Map(0, nullptr, &mapped));
        frame.mapped = static_cast<std::uint8_t*>(mapped);
        frame.heap = MakeHeap(device);
    }
}

ExpertFrames12::~ExpertFrames12() {
    m_fence.Wait(m_fence.Signal(m_scene.queue->Get()));
}

void ExpertFrames12::SetState(Frame& frame) {
    ID3D12GraphicsCommandList* const list = frame.list;
    list->SetGraphicsRootSignature(m_scene.rootSignature);
    ID3D12DescriptorHeap* const heap = frame.heap;
    list->SetDescriptorHeaps(1, &heap);
    CopyView(m_scene, heap);
    list->SetGraphicsRootDescriptorTable(kTextureIndex, Platform::GetGPUStart(heap));
    SetTargetAndGeometry(m_scene, list);
}

void ExpertFrames12::Draw(unsigned draws) {
    Frame& frame = m_frames.at(m_next++ % kFramesInFlight);
    m_fence.Wait(frame.done);
    Check(frame.allocator->Reset());
    Check(frame.list->Reset(frame.allocator, m_scene.pipelineState));
    SetState(frame);
    const D3D12_GPU_VIRTUAL_ADDRESS ring = frame.ring->GetGPUVirtualAddress();
    for (unsigned i = 0; i < draws; ++i) {
        const auto constants = DX::D3ImageRenderer::MakeParams({}, m_scene.conversion);
        const std::uint64_t offset = std::uint64_t{i} * kBytesOfConstants;
        std::memcpy(frame.mapped + offset, &constants, sizeof(constants));
        frame.list->SetGraphicsRootConstantBufferView(kConstantsIndex, ring + offset);
        frame.list->DrawInstanced(static_cast<UINT>(kQuad.size()), 1, 0, 0);
    }
    Check(frame.list->Close());
    ID3D12CommandList* const list = frame.list;
    m_scene.queue->Get()->ExecuteCommandLists(1, &list);
    frame.done = m_fence.Signal(m_scene.queue->Get());
}

FramesOfLists12::FramesOfLists12(const Scene12& scene)
    : m_scene(scene),
      m_fence(scene.device->Get()),
      m_releaser([this] { ReleaseBuffers(); }) {
    for (Frame& frame : m_frames) {
        frame.allocator = MakeAllocator(scene.device->Get());
    }
}

FramesOfLists12::~FramesOfLists12() {
    m_fence.Wait(m_fence.Signal(m_scene.queue->Get()));
    {
        const std::lock_guard guard(m_lock);
        m_ends = true;
    }
    m_wake.notify_one();
    m_releaser.join();
}

void FramesOfLists12::ReleaseBuffers() {
    std::unique_lock lock(m_lock);
    while (!m_ends) {
        m_wake.wait(lock, [this] { return m_ends || !m_released.empty(); });
        auto released = std::exchange(m_released, {});
        lock.unlock();
        released.clear();
        lock.lock();
    }
}

FramesOfLists12::Draw12 FramesOfLists12::MakeDraw(Frame& frame) {
    ID3D12Device* const device = m_scene.device->Get();
    return {MakeClosedList(device, frame.allocator), MakeHeap(device)};
}

void FramesOfLists12::Record(Frame& frame, const Draw12& draw) {
    const auto constants = DX::D3ImageRenderer::MakeParams({}, m_scene.conversion);
    const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_UPLOAD);
    const auto desc = CD3DX12_RESOURCE_DESC::Buffer(kBytesOfConstants);
    CComPtr<ID3D12Resource> buffer;
    Check(m_scene.device->Get()->CreateCommittedResource(&heap, D3D12_HEAP_FLAG_NONE, &desc,
                                                         D3D12_RESOURCE_STATE_GENERIC_READ, nullptr,
                                                         IID_PPV_ARGS(&buffer)));
    void* mapped = nullptr;
    Check(buffer->Map(0, nullptr, &mapped));
    std::memcpy(mapped, &constants, sizeof(constants));
    buffer->Unmap(0, nullptr);
    buffer->SetName(L"Matrix Buffer");

    ID3D12GraphicsCommandList* const list = draw.list;
    Check(list->Reset(frame.allocator, m_scene.pipelineState));
    list->SetGraphicsRootSignature(m_scene.rootSignature);
    ID3D12DescriptorHeap* const views = draw.heap;
    list->SetDescriptorHeaps(1, &views);
    list->SetGraphicsRootConstantBufferView(kConstantsIndex, buffer->GetGPUVirtualAddress());
    CopyView(m_scene, views);
    list->SetGraphicsRootDescriptorTable(kTextureIndex, Platform::GetGPUStart(views));
    SetTargetAndGeometry(m_scene, list);
    list->DrawInstanced(static_cast<UINT>(kQuad.size()), 1, 0, 0);
    Check(list->Close());
    frame.buffers.push_back(std::move(buffer));
}

void FramesOfLists12::Draw(unsigned draws) {
    Frame& frame = m_frames.at(m_next++ % kFramesInFlight);
    m_fence.Wait(frame.done);
    if (!frame.buffers.empty()) {
        const std::lock_guard guard(m_lock);
        m_released.push_back(std::exchange(frame.buffers, {}));
        m_wake.notify_one();
    }
    Check(frame.allocator->Reset());
    std::vector<ID3D12CommandList*> lists;
    for (unsigned i = 0; i < draws; ++i) {
        if (i == frame.draws.size()) {
            frame.draws.push_back(MakeDraw(frame));
        }
        Record(frame, frame.draws[i]);
        lists.push_back(frame.draws[i].list);
    }
    m_scene.queue->Get()->ExecuteCommandLists(static_cast<UINT>(lists.size()), lists.data());
    frame.done = m_fence.Signal(m_scene.queue->Get());
}

} // namespace Norvex::Bench
