#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

YUVPlane Describe(ID3D12Resource* texture) {
    const D3D12_RESOURCE_DESC desc =
        texture != nullptr ? Platform::GetDesc(texture) : D3D12_RESOURCE_DESC{};
    return {desc.Format, {static_cast<long>(desc.Width), static_cast<long>(desc.Height)}};
}

void CheckArguments(const D12CommandAllocator* allocator, ID3D12Resource* source,
                    const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(source != nullptr, "There is no source texture", location);
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator",
                                    location);
}

D3D12_RENDER_TARGET_VIEW_DESC MakeViewDesc(DXGI_FORMAT format, unsigned plane) {
    D3D12_RENDER_TARGET_VIEW_DESC desc = {};
    desc.Format = format;
    desc.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2D;
    desc.Texture2D.PlaneSlice = plane;
    return desc;
}

void AddTransition(std::vector<D3D12_RESOURCE_BARRIER>& barriers, ID3D12Resource* resource,
                   D3D12_RESOURCE_STATES before, D3D12_RESOURCE_STATES after) {
    if (before != after) {
        barriers.push_back(CD3DX12_RESOURCE_BARRIER::Transition(resource, before, after));
    }
}

boost::intrusive_ptr<D12VertexBuffer> CreateQuad(D12GraphicsCommandList& commandList,
                                                 const Size2DT<float>& extent) {
    const auto quad = MakeQuad(extent);
    return commandList.CreateVertexBuffer(quad.data(), sizeof(QuadVertex),
                                          static_cast<unsigned>(quad.size()));
}

} // namespace

D12YUVConverter::D12YUVConverter(const boost::intrusive_ptr<D12Device>& device,
                                 Proc::AlphaType alphaType)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_alphaType(alphaType),
      m_yCbCrPass(MakePass(GetYUVPixelShader())),
      m_resizePass(MakePass(std::string(Shaders::kResizePixel))) {
    m_paramsView = m_yCbCrPass.parameters->AddConstantBufferView(
        0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, D3D12_SHADER_VISIBILITY_PIXEL);
}

D12YUVConverter::~D12YUVConverter() = default;

D12YUVConverter::Pass D12YUVConverter::MakePass(const std::string& pixelShader) const {
    Pass pass;
    pass.parameters = m_device->CreateShaderParameters();
    pass.texture = pass.parameters->AddViewTable(1, D3D12_SHADER_VISIBILITY_PIXEL);
    pass.parameters->AddSampler(Quad12::MakeLinearSampler());
    pass.parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    pass.desc.vertexShader = D12Shader::CreateVertex("VSMain", std::string(Shaders::kQuadVertex));
    pass.desc.pixelShader = D12Shader::CreatePixel("PSMain", pixelShader);
    pass.desc.rasterizer = Quad12::MakeRasterizer();
    pass.desc.depthStencil = Quad12::MakeDepthStencil();
    pass.desc.inputLayout = Quad12::MakeInputElements();
    pass.desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    return pass;
}

void D12YUVConverter::MakePipelineState(Pass& pass, const std::vector<DXGI_FORMAT>& formats) const {
    const bool changed = pass.parameters->SerializeRootSignature();
    if (pass.pipelineState == nullptr || changed || pass.desc.renderTargetFormats != formats) {
        pass.desc.rootSignature = pass.parameters->GetRootSignature();
        pass.desc.renderTargetFormats = formats;
        pass.pipelineState.Release();
        pass.pipelineState = m_device->CreateGraphicsPipelineState(pass.desc);
    }
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& destination, Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 2>& states) {
    const auto location = std::source_location::current();
    const auto [pixelFormat, size] = Describe(destination);
    const auto format = GetYUVFormat<DirectX12Exception>(pixelFormat, location);
    CheckArguments(allocator.get(), source, location);
    ConfigForDestination({pixelFormat, size, {size.width >> 1, size.height >> 1}, matrix}, format);
    const Planes planes = {
        m_device->CreateRenderTargetView(destination, MakeViewDesc(format.luma, 0)),
        m_device->CreateRenderTargetView(destination, MakeViewDesc(format.chroma, 1))};
    Barriers barriers;
    AddTransition(barriers.before, destination, states[1].before,
                  D3D12_RESOURCE_STATE_RENDER_TARGET);
    AddTransition(barriers.after, destination, D3D12_RESOURCE_STATE_RENDER_TARGET, states[1].after);
    Record(allocator, source, states[0], planes, std::move(barriers));
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& luma,
                             const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format,
                             Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 3>& states) {
    const auto location = std::source_location::current();
    const auto planeFormat = GetYUVFormat<DirectX12Exception>(format, location);
    const YUVPlane lumaPlane = Describe(luma);
    const YUVPlane chromaPlane = Describe(chroma);
    CheckYUVPlanes<DirectX12Exception>(planeFormat, lumaPlane, chromaPlane, location);
    CheckArguments(allocator.get(), source, location);
    ConfigForDestination({format, lumaPlane.size, chromaPlane.size, matrix}, planeFormat);
    const Planes planes = {
        m_device->CreateRenderTargetView(luma, MakeViewDesc(planeFormat.luma, 0)),
        m_device->CreateRenderTargetView(chroma, MakeViewDesc(planeFormat.chroma, 0))};
    Barriers barriers;
    AddTransition(barriers.before, luma, states[1].before, D3D12_RESOURCE_STATE_RENDER_TARGET);
    AddTransition(barriers.before, chroma, states[2].before, D3D12_RESOURCE_STATE_RENDER_TARGET);
    AddTransition(barriers.after, luma, D3D12_RESOURCE_STATE_RENDER_TARGET, states[1].after);
    AddTransition(barriers.after, chroma, D3D12_RESOURCE_STATE_RENDER_TARGET, states[2].after);
    Record(allocator, source, states[0], planes, std::move(barriers));
}

void D12YUVConverter::ConfigForDestination(const YUVDestination& destination,
                                           const YUVFormat& format) {
    if (m_destination == destination) {
        return;
    }
    m_destination.reset(); // should something below throw
    const auto bytes = MakeYUVParams(m_alphaType, destination.matrix, format.bitDepth);
    D12BufferDesc desc;
    desc.heapType = D3D12_HEAP_TYPE_UPLOAD;
    desc.size = bytes.size();
    desc.initialState = D3D12_RESOURCE_STATE_GENERIC_READ;
    desc.initialData = bytes.data();
    m_paramsBuffer.Release();
    m_paramsBuffer = m_device->CreateBuffer(desc);
    m_paramsBuffer->SetName(L"YCbCr params buffer");
    CreateIntermediate(destination.size, format.chroma);
    m_chromaQuad.reset();
    m_destination = destination;
}

void D12YUVConverter::CreateIntermediate(const Size2DT<long>& size, DXGI_FORMAT format) {
    D12Texture2DDesc desc;
    desc.width = static_cast<std::uint64_t>(size.width);
    desc.height = static_cast<std::uint32_t>(size.height);
    desc.format = format;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    const auto texture = m_device->CreateTexture2D(desc);
    m_intermediateSource = m_device->CreateTextureShaderResourceView(texture);
    m_intermediateTarget = m_device->CreateRenderTargetView(texture);
}

void D12YUVConverter::EnsureQuads(D12GraphicsCommandList& commandList) {
    if (m_quad == nullptr) {
        m_quad = CreateQuad(commandList, {1.0F, 1.0F});
    }
    if (m_chromaQuad == nullptr) {
        m_chromaQuad = CreateQuad(commandList,
                                  GetChromaExtent(m_destination->size, m_destination->chromaSize));
    }
}

void D12YUVConverter::Record(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const D12ResourceStates& sourceStates, const Planes& planes,
                             Barriers barriers) {
    constexpr auto kSource = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;
    const CComPtr<ID3D12Resource>& intermediate = m_intermediateTarget->GetFirstResource();
    AddTransition(barriers.before, source, sourceStates.before, kSource);
    AddTransition(barriers.before, intermediate, D3D12_RESOURCE_STATE_COMMON, kTarget);
    AddTransition(barriers.after, source, kSource, sourceStates.after);
    AddTransition(barriers.after, intermediate, kSource, D3D12_RESOURCE_STATE_COMMON);

    m_paramsView->SetBuffer(m_paramsBuffer);
    m_yCbCrPass.texture->SetView(0, 0, m_device->CreateTextureShaderResourceView(source), 0,
                                 D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    m_resizePass.texture->SetView(0, 0, m_intermediateSource, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    MakePipelineState(m_yCbCrPass, {planes.luma->GetFormat(), m_intermediateTarget->GetFormat()});
    MakePipelineState(m_resizePass, {planes.chroma->GetFormat()});
    const auto record = [&](const boost::intrusive_ptr<D12GraphicsCommandList>& list) {
        EnsureQuads(*list);
        list->ResourceBarrier(barriers.before);
        list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
        DrawPass(list, m_yCbCrPass, {planes.luma, m_intermediateTarget}, m_quad,
                 m_destination->size);
        list->ResourceBarrier(
            {CD3DX12_RESOURCE_BARRIER::Transition(intermediate, kTarget, kSource)});
        list->SetPipelineState(m_resizePass.pipelineState);
        DrawPass(list, m_resizePass, {planes.chroma}, m_chromaQuad, m_destination->chromaSize);
        list->ResourceBarrier(barriers.after);
    };
    allocator->RecordList(m_yCbCrPass.pipelineState, record);
}

void D12YUVConverter::DrawPass(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                               const Pass& pass,
                               const std::vector<boost::intrusive_ptr<D12Descriptor>>& targets,
                               const boost::intrusive_ptr<D12VertexBuffer>& quad,
                               const Size2DT<long>& size) {
    pass.parameters->SetToCommandList(list);
    list->OMSetRenderTargets(targets, nullptr);
    list->RSSetViewports({Quad12::MakeViewport({0, 0, size.width, size.height})});
    list->RSSetScissorRects({RECT{0, 0, size.width, size.height}});
    list->IASetVertexBuffer(quad);
    list->Draw(quad);
}

} // namespace Norvex::DX
