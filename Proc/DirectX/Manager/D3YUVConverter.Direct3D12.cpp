#include "Proc/DirectX/Manager/D3YUVConverter.h"
#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"
#include "Proc/DirectX/Manager/Throw.h"
#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

YUVFormat GetFormat(DXGI_FORMAT format, const std::source_location& location) {
    const auto found = FindYUVFormat(format);
    ThrowUnless<DirectX12Exception>(found.has_value(), "Unsupported pixel format", location);
    return *found;
}

Size2DT<long> GetSize(ID3D12Resource* texture) {
    const D3D12_RESOURCE_DESC desc = Platform::GetDesc(texture);
    return {static_cast<long>(desc.Width), static_cast<long>(desc.Height)};
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

void SetArea(D12GraphicsCommandList& commandList, const Size2DT<long>& size) {
    commandList.RSSetViewports({Quad12::MakeViewport({0, 0, size.width, size.height})});
    commandList.RSSetScissorRects({RECT{0, 0, size.width, size.height}});
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
    : m_device(device),
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

const CComPtr<ID3D12PipelineState>&
D12YUVConverter::MakePipelineState(Pass& pass, const std::vector<DXGI_FORMAT>& formats) const {
    const bool changed = pass.parameters->SerializeRootSignature();
    if (pass.pipelineState == nullptr || changed || pass.desc.renderTargetFormats != formats) {
        pass.desc.rootSignature = pass.parameters->GetRootSignature();
        pass.desc.renderTargetFormats = formats;
        pass.pipelineState.Release();
        pass.pipelineState = m_device->CreateGraphicsPipelineState(pass.desc);
    }
    return pass.pipelineState;
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& destination, Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 2>& states) {
    const DXGI_FORMAT pixelFormat = Platform::GetDesc(destination).Format;
    const YUVFormat format = GetFormat(pixelFormat, std::source_location::current());
    const Size2DT<long> size = GetSize(destination);
    ConfigForDestination({pixelFormat, size, {size.width >> 1, size.height >> 1}, matrix});
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
    const YUVFormat planeFormat = GetFormat(format, std::source_location::current());
    ConfigForDestination({format, GetSize(luma), GetSize(chroma), matrix});
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

void D12YUVConverter::ConfigForDestination(const YUVDestination& destination) {
    if (m_destination == destination) {
        return;
    }
    m_destination.reset(); // should something below throw
    const YUVFormat format = GetFormat(destination.format, std::source_location::current());
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
    const auto list = allocator->CreateCommandList(MakePipelineState(
        m_yCbCrPass, {planes.luma->GetFormat(), m_intermediateTarget->GetFormat()}));
    EnsureQuads(*list);
    m_yCbCrPass.parameters->SetToCommandList(list);
    list->ResourceBarrier(barriers.before);
    list->OMSetRenderTargets({planes.luma, m_intermediateTarget}, nullptr);
    SetArea(*list, m_destination->size);
    list->IASetVertexBuffer(m_quad);
    list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    list->Draw(m_quad);

    list->ResourceBarrier({CD3DX12_RESOURCE_BARRIER::Transition(intermediate, kTarget, kSource)});
    m_resizePass.texture->SetView(0, 0, m_intermediateSource, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    list->SetPipelineState(MakePipelineState(m_resizePass, {planes.chroma->GetFormat()}));
    m_resizePass.parameters->SetToCommandList(list);
    list->OMSetRenderTarget(planes.chroma, nullptr);
    SetArea(*list, m_destination->chromaSize);
    list->IASetVertexBuffer(m_chromaQuad);
    list->Draw(m_chromaQuad);
    list->ResourceBarrier(barriers.after);
    list->Close();
}

} // namespace Norvex::DX
