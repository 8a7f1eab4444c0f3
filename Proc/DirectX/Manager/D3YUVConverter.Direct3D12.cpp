#include "Proc/DirectX/Manager/D3YUVConverter.h"

#include <cstdint>
#include <source_location>
#include <string>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/D3YUVFormat.h"
#include "Proc/DirectX/Manager/Throw.h"
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

std::unique_ptr<D12QuadPipeline> MakePass(const boost::intrusive_ptr<D12Device>& device,
                                          const std::string& pixelShader) {
    auto pass =
        std::make_unique<D12QuadPipeline>(device, std::string(Shaders::kQuadVertex), pixelShader);
    pass->SetBlendState({}); // not every system blends in every format of a plane
    return pass;
}

constexpr auto kSource = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

} // namespace

struct D12YUVConverter::ResourceUse {
    ID3D12Resource* resource;
    D12ResourceStates states;
    D3D12_RESOURCE_STATES needed;
};

D12YUVConverter::D12YUVConverter(const boost::intrusive_ptr<D12Device>& device,
                                 Proc::AlphaType alphaType)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_alphaType(alphaType),
      m_yCbCrPass(MakePass(m_device, GetYUVPixelShader())),
      m_resizePass(MakePass(m_device, std::string(Shaders::kResizePixel))),
      m_yCbCrTexture(m_yCbCrPass->AddTexture()),
      m_resizeTexture(m_resizePass->AddTexture()),
      m_paramsView(m_yCbCrPass->GetParameters().AddConstantBufferView(
          0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, D3D12_SHADER_VISIBILITY_PIXEL)) {}

D12YUVConverter::~D12YUVConverter() = default;

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& destination, Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 2>& states) {
    const auto location = std::source_location::current();
    const auto [pixelFormat, size] = Describe(destination);
    const auto format = GetYUVFormat<DirectX12Exception>(pixelFormat, location);
    CheckArguments(allocator.get(), source, location);
    ConfigForDestination({pixelFormat, size, {size.width >> 1, size.height >> 1}, matrix}, format);
    Record(allocator, source,
           m_device->CreateRenderTargetView(destination, MakeViewDesc(format.luma, 0)),
           m_device->CreateRenderTargetView(destination, MakeViewDesc(format.chroma, 1)),
           {{destination, states[1], kTarget}, {source, states[0], kSource}});
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
    Record(
        allocator, source,
        m_device->CreateRenderTargetView(luma, MakeViewDesc(planeFormat.luma, 0)),
        m_device->CreateRenderTargetView(chroma, MakeViewDesc(planeFormat.chroma, 0)),
        {{luma, states[1], kTarget}, {chroma, states[2], kTarget}, {source, states[0], kSource}});
}

void D12YUVConverter::ConfigForDestination(const YUVDestination& destination,
                                           const YUVFormat& format) {
    if (m_destination != nullptr && *m_destination == destination) {
        return;
    }
    m_destination.reset(); // should something below throw
    m_paramsBuffer =
        CreateConstants(*m_device, MakeYUVParams(m_alphaType, destination.matrix, format.bitDepth),
                        L"YCbCr params buffer");
    CreateIntermediate(destination.size, format.chroma);
    m_chromaQuad.reset();
    m_destination = std::make_unique<YUVDestination>(destination);
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

void D12YUVConverter::Record(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const boost::intrusive_ptr<D12Descriptor>& luma,
                             const boost::intrusive_ptr<D12Descriptor>& chroma,
                             const std::vector<ResourceUse>& uses) {
    const CComPtr<ID3D12Resource>& intermediate = m_intermediateTarget->GetFirstResource();
    std::vector<D3D12_RESOURCE_BARRIER> before;
    std::vector<D3D12_RESOURCE_BARRIER> after;
    for (const auto& [resource, states, needed] : uses) {
        AddTransition(before, resource, states.before, needed);
        AddTransition(after, resource, needed, states.after);
    }
    AddTransition(before, intermediate, D3D12_RESOURCE_STATE_COMMON, kTarget);
    AddTransition(after, intermediate, kSource, D3D12_RESOURCE_STATE_COMMON);

    m_paramsView->SetBuffer(m_paramsBuffer);
    m_yCbCrTexture->SetView(0, 0, m_device->CreateTextureShaderResourceView(source), 0,
                            D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    m_resizeTexture->SetView(0, 0, m_intermediateSource, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    const D12QuadPipeline::Targets targets = {luma, m_intermediateTarget};
    const auto& yCbCrState = m_yCbCrPass->MakePipelineState(targets);
    const auto& resizeState = m_resizePass->MakePipelineState({chroma});
    allocator->RecordList(yCbCrState, [&](const D12QuadPipeline::List& list) {
        const Size2DT<long> size = m_destination->size;
        const Size2DT<long> chromaSize = m_destination->chromaSize;
        const auto& quad = m_yCbCrPass->GetQuad(*list); // before anything is recorded: it may fail
        if (m_chromaQuad == nullptr) {
            m_chromaQuad = D12QuadPipeline::CreateQuad(*list, GetChromaExtent(size, chromaSize));
        }
        list->ResourceBarrier(before);
        m_yCbCrPass->Draw(list, targets, {0, 0, size.width, size.height}, size, quad);
        list->ResourceBarrier(
            {CD3DX12_RESOURCE_BARRIER::Transition(intermediate, kTarget, kSource)});
        list->SetPipelineState(resizeState);
        m_resizePass->Draw(list, {chroma}, {0, 0, chromaSize.width, chromaSize.height}, chromaSize,
                           m_chromaQuad);
        list->ResourceBarrier(after);
    });
}

} // namespace Norvex::DX
