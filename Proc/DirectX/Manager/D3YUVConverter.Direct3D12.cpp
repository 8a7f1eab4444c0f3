#include "Proc/DirectX/Manager/D3YUVConverter.h"

#include <cstdint>
#include <source_location>
#include <string>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
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

void CheckSource(ID3D12Resource* source, const std::source_location& location) {
    ThrowUnless<DirectX12Exception>(source != nullptr, "There is no source texture", location);
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
                                          const char* name, const std::string& pixelShader) {
    auto pass = std::make_unique<D12QuadPipeline>(device, name, std::string(Shaders::kQuadVertex),
                                                  pixelShader);
    pass->SetBlendState({}); // not every system blends in every format of a plane
    return pass;
}

constexpr auto kEvent = "YCbCr conversion"; // what debuggers show

// Root parameters, in the order in which they are added.
constexpr unsigned kYCbCrTextureIndex = 0;
constexpr unsigned kYCbCrParamsIndex = 1;

Rect2DT<long> RectOf(const Size2DT<long>& size) {
    return {0, 0, size.width, size.height};
}

constexpr auto kSource = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
constexpr auto kTarget = D3D12_RESOURCE_STATE_RENDER_TARGET;

} // namespace

struct D12YUVConverter::ResourceUse {
    ID3D12Resource* resource;
    D12ResourceStates states;
    D3D12_RESOURCE_STATES needed;
};

struct D12YUVConverter::Conversion {
    boost::intrusive_ptr<D12Descriptor> source;
    D12QuadPipeline::Targets firstTargets; // of the pass that computes
    boost::intrusive_ptr<D12Descriptor> chroma;
    std::vector<D3D12_RESOURCE_BARRIER> before = {};
    std::vector<D3D12_RESOURCE_BARRIER> after = {};
};

D12YUVConverter::D12YUVConverter(const boost::intrusive_ptr<D12Device>& device,
                                 Proc::AlphaType alphaType)
    : m_device(CheckDevice<DirectX12Exception>(device)),
      m_alphaType(alphaType),
      m_yCbCrPass(MakePass(m_device, kEvent, GetYUVPixelShader())),
      m_resizePass(MakePass(m_device, "chroma reduction", std::string(Shaders::kResizePixel))),
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
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    Record(*allocator, Prepare(source, destination, matrix, states, location));
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& destination, Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 2>& states) {
    const auto location = std::source_location::current();
    Record(D12DrawState::Of(list, location),
           Prepare(source, destination, matrix, states, location));
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& luma,
                             const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format,
                             Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 3>& states) {
    const auto location = std::source_location::current();
    ThrowUnless<DirectX12Exception>(allocator != nullptr, "There is no command allocator");
    Record(*allocator, Prepare(source, luma, chroma, format, matrix, states, location));
}

void D12YUVConverter::Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                             const CComPtr<ID3D12Resource>& source,
                             const CComPtr<ID3D12Resource>& luma,
                             const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format,
                             Conf::YCbCrMatrix matrix,
                             const std::array<D12ResourceStates, 3>& states) {
    const auto location = std::source_location::current();
    Record(D12DrawState::Of(list, location),
           Prepare(source, luma, chroma, format, matrix, states, location));
}

D12YUVConverter::Conversion D12YUVConverter::Prepare(const CComPtr<ID3D12Resource>& source,
                                                     const CComPtr<ID3D12Resource>& destination,
                                                     Conf::YCbCrMatrix matrix,
                                                     const std::array<D12ResourceStates, 2>& states,
                                                     const std::source_location& location) {
    const auto [pixelFormat, size] = Describe(destination);
    const auto format = GetYUVFormat<DirectX12Exception>(pixelFormat, location);
    CheckSource(source, location);
    ConfigForDestination({pixelFormat, size, {size.width >> 1, size.height >> 1}, matrix}, format);
    return Prepare(source,
                   m_device->CreateRenderTargetView(destination, MakeViewDesc(format.luma, 0)),
                   m_device->CreateRenderTargetView(destination, MakeViewDesc(format.chroma, 1)),
                   {{destination, states[1], kTarget}, {source, states[0], kSource}});
}

D12YUVConverter::Conversion D12YUVConverter::Prepare(const CComPtr<ID3D12Resource>& source,
                                                     const CComPtr<ID3D12Resource>& luma,
                                                     const CComPtr<ID3D12Resource>& chroma,
                                                     DXGI_FORMAT format, Conf::YCbCrMatrix matrix,
                                                     const std::array<D12ResourceStates, 3>& states,
                                                     const std::source_location& location) {
    const auto planeFormat = GetYUVFormat<DirectX12Exception>(format, location);
    const YUVPlane lumaPlane = Describe(luma);
    const YUVPlane chromaPlane = Describe(chroma);
    CheckYUVPlanes<DirectX12Exception>(planeFormat, lumaPlane, chromaPlane, location);
    CheckSource(source, location);
    ConfigForDestination({format, lumaPlane.size, chromaPlane.size, matrix}, planeFormat);
    return Prepare(
        source, m_device->CreateRenderTargetView(luma, MakeViewDesc(planeFormat.luma, 0)),
        m_device->CreateRenderTargetView(chroma, MakeViewDesc(planeFormat.chroma, 0)),
        {{luma, states[1], kTarget}, {chroma, states[2], kTarget}, {source, states[0], kSource}});
}

D12YUVConverter::Conversion D12YUVConverter::Prepare(
    const CComPtr<ID3D12Resource>& source, const boost::intrusive_ptr<D12Descriptor>& luma,
    const boost::intrusive_ptr<D12Descriptor>& chroma, const std::vector<ResourceUse>& uses) {
    const CComPtr<ID3D12Resource>& intermediate = m_intermediateTarget->GetFirstResource();
    Conversion conversion = {
        m_device->CreateTextureShaderResourceView(source), {luma, m_intermediateTarget}, chroma};
    for (const auto& [resource, states, needed] : uses) {
        AddTransition(conversion.before, resource, states.before, needed);
        AddTransition(conversion.after, resource, needed, states.after);
    }
    AddTransition(conversion.before, intermediate, D3D12_RESOURCE_STATE_COMMON, kTarget);
    AddTransition(conversion.after, intermediate, kSource, D3D12_RESOURCE_STATE_COMMON);
    return conversion;
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
    SetName(texture, "chroma of full size");
    m_intermediateSource = m_device->CreateTextureShaderResourceView(texture);
    m_intermediateTarget = m_device->CreateRenderTargetView(texture);
}

void D12YUVConverter::SetTextures(const Conversion& conversion) {
    m_yCbCrTexture->SetView(0, 0, conversion.source, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    m_resizeTexture->SetView(0, 0, m_intermediateSource, 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    m_yCbCrPass->MakePipelineState(conversion.firstTargets);
    m_resizePass->MakePipelineState({&conversion.chroma, 1});
}

void D12YUVConverter::MakeQuads(D12GraphicsCommandList& list) {
    m_yCbCrPass->GetQuad(list);
    if (m_chromaQuad == nullptr) {
        m_chromaQuad = D12QuadPipeline::CreateQuad(
            list, GetChromaExtent(m_destination->size, m_destination->chromaSize));
    }
}

D3D12_RESOURCE_BARRIER D12YUVConverter::MakeIntermediateBarrier() const {
    return CD3DX12_RESOURCE_BARRIER::Transition(m_intermediateTarget->GetFirstResource(), kTarget,
                                                kSource);
}

void D12YUVConverter::Record(D12CommandAllocator& allocator, const Conversion& conversion) {
    SetTextures(conversion);
    m_paramsView->SetBuffer(m_paramsBuffer);
    allocator.RecordList(m_yCbCrPass->GetPipelineState(), [&](const D12QuadPipeline::List& list) {
        MakeQuads(*list); // before anything is recorded: it may fail
        const D12DrawEvent event(list->GetGraphics(), kEvent);
        list->ResourceBarrier(conversion.before);
        m_yCbCrPass->Draw(list, conversion.firstTargets, RectOf(m_destination->size),
                          m_destination->size, m_yCbCrPass->GetQuad(*list));
        list->ResourceBarrier({MakeIntermediateBarrier()});
        list->SetPipelineState(m_resizePass->GetPipelineState());
        m_resizePass->Draw(list, {&conversion.chroma, 1}, RectOf(m_destination->chromaSize),
                           m_destination->chromaSize, m_chromaQuad);
        list->ResourceBarrier(conversion.after);
    });
}

void D12YUVConverter::Record(D12DrawState& state, const Conversion& conversion) {
    D12GraphicsCommandList& list = state.GetList();
    SetTextures(conversion); // asks the tables for their kind of view alone
    m_yCbCrTexture->Clear();
    m_resizeTexture->Clear();
    MakeQuads(list);
    const D12DrawEvent event = state.BeginEvent(kEvent);
    state.ReserveViews(2);
    const auto source = state.AddView(conversion.source);
    const auto intermediate = state.AddView(m_intermediateSource);
    list.TrackObject(m_paramsBuffer.p);
    list.ResourceBarrier(conversion.before);
    m_yCbCrPass->Draw(state, conversion.firstTargets, RectOf(m_destination->size),
                      m_yCbCrPass->GetQuad(list), [&] {
                          state.SetTable(kYCbCrTextureIndex, source);
                          state.SetConstants(kYCbCrParamsIndex,
                                             m_paramsBuffer->GetGPUVirtualAddress());
                      });
    list.ResourceBarrier({MakeIntermediateBarrier()});
    m_resizePass->Draw(state, {&conversion.chroma, 1}, RectOf(m_destination->chromaSize),
                       m_chromaQuad, [&] { state.SetTable(kYCbCrTextureIndex, intermediate); });
    list.ResourceBarrier(conversion.after);
}

} // namespace Norvex::DX
