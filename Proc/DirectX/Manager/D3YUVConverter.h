#pragma once

// RGB textures into the two planes of Y'CbCr: NV12, P010, P016. Two passes: luma, and chroma in
// full resolution into a texture of the converter's; then the chroma halved, each sample the mean
// of 2 x 2. What the values are and where the chroma lies: docs/colour.md. The parameters and the
// intermediate texture are kept while destination format, size and matrix stay. One thread at a
// time. Throws DirectX11Exception, DirectX12Exception ("There is no device", and what Encode says)
// and has recorded nothing then. Next: D3D12Renderer.h, D11ImageDraw.h.

#include <array>
#include <memory>
#include <source_location>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/DirectXShader.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// The state that a resource is in when a call begins, and in which the call leaves it.
struct D12ResourceStates {
    D3D12_RESOURCE_STATES before = D3D12_RESOURCE_STATE_COMMON; // when the call begins
    D3D12_RESOURCE_STATES after = D3D12_RESOURCE_STATE_COMMON;  // when it ends
};

class D11QuadPipeline;
class D12DrawState;
class D12QuadPipeline;
struct YUVDestination;
struct YUVFormat;

class NORVEX_DX_API D12YUVConverter : public LiveObject {
public:
    // Compiles the shaders. alphaType: of the sources; straight alpha is composed over black.
    D12YUVConverter(const boost::intrusive_ptr<D12Device>& device, Proc::AlphaType alphaType);
    ~D12YUVConverter() override;
    D12YUVConverter(const D12YUVConverter&) = delete;
    D12YUVConverter& operator=(const D12YUVConverter&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }

    // Records one closed list, or throws and leaves the allocator as it was. The source, a 2-D
    // texture, is stretched over the destination, which allows render targets. states: of the
    // source, of the destination; barriers are recorded only where they differ from the reading and
    // drawing states. Lists of one converter draw to one intermediate texture: submit them to one
    // queue, or have one wait for the other. "Unsupported pixel format" (also for a null texture),
    // "There is no source texture", "There is no command allocator".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const CComPtr<ID3D12Resource>& source, const CComPtr<ID3D12Resource>& destination,
                Conf::YCbCrMatrix matrix, const std::array<D12ResourceStates, 2>& states);
    // Into an open list, or throws and draws nothing; what it replaces there: D3D12Renderer.h.
    // "There is no command list", "The command list is closed".
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const CComPtr<ID3D12Resource>& source, const CComPtr<ID3D12Resource>& destination,
                Conf::YCbCrMatrix matrix, const std::array<D12ResourceStates, 2>& states);
    // Into two separate textures, for devices without planar ones: format says how they are to be
    // taken together. Luma: R8_UNORM, or R16_UNORM for P010 and P016, of any size; chroma:
    // R8G8_UNORM or R16G16_UNORM, half the luma's width and height, rounded up or down; where
    // rounded up, the edge is repeated. Typeless textures of these families serve as well. states:
    // of the source, the luma, the chroma. As above, and "The chroma plane is expected to have half
    // the size of the luma plane".
    void Encode(const boost::intrusive_ptr<D12CommandAllocator>& allocator,
                const CComPtr<ID3D12Resource>& source, const CComPtr<ID3D12Resource>& luma,
                const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format, Conf::YCbCrMatrix matrix,
                const std::array<D12ResourceStates, 3>& states);
    void Encode(const boost::intrusive_ptr<D12GraphicsCommandList>& list,
                const CComPtr<ID3D12Resource>& source, const CComPtr<ID3D12Resource>& luma,
                const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format, Conf::YCbCrMatrix matrix,
                const std::array<D12ResourceStates, 3>& states);

private:
    struct ResourceUse; // states of a resource, and the one that it is needed in
    struct Conversion;  // views and barriers of one Encode

    // Views of what is converted; the parameters and the intermediate texture fit it then.
    Conversion Prepare(const CComPtr<ID3D12Resource>& source,
                       const CComPtr<ID3D12Resource>& destination, Conf::YCbCrMatrix matrix,
                       const std::array<D12ResourceStates, 2>& states,
                       const std::source_location& location);
    Conversion Prepare(const CComPtr<ID3D12Resource>& source, const CComPtr<ID3D12Resource>& luma,
                       const CComPtr<ID3D12Resource>& chroma, DXGI_FORMAT format,
                       Conf::YCbCrMatrix matrix, const std::array<D12ResourceStates, 3>& states,
                       const std::source_location& location);
    // uses: of the resources but the intermediate texture.
    Conversion Prepare(const CComPtr<ID3D12Resource>& source,
                       const boost::intrusive_ptr<D12Descriptor>& luma,
                       const boost::intrusive_ptr<D12Descriptor>& chroma,
                       const std::vector<ResourceUse>& uses);
    void ConfigForDestination(const YUVDestination& destination, const YUVFormat& format);
    void CreateIntermediate(const Size2DT<long>& size, DXGI_FORMAT format);
    void SetTextures(const Conversion& conversion);
    void MakeQuads(D12GraphicsCommandList& list);
    D3D12_RESOURCE_BARRIER MakeIntermediateBarrier() const;
    void Record(D12CommandAllocator& allocator, const Conversion& conversion);
    void Record(D12DrawState& state, const Conversion& conversion);

    boost::intrusive_ptr<D12Device> m_device;
    Proc::AlphaType m_alphaType;
    std::unique_ptr<D12QuadPipeline> m_yCbCrPass;
    std::unique_ptr<D12QuadPipeline> m_resizePass;
    boost::intrusive_ptr<D12ViewTable> m_yCbCrTexture;
    boost::intrusive_ptr<D12ViewTable> m_resizeTexture;
    boost::intrusive_ptr<D12ConstantBufferView> m_paramsView;
    std::unique_ptr<YUVDestination> m_destination; // that everything below is for
    CComPtr<ID3D12Resource> m_paramsBuffer;
    boost::intrusive_ptr<D12Descriptor> m_intermediateSource;
    boost::intrusive_ptr<D12Descriptor> m_intermediateTarget;
    boost::intrusive_ptr<D12VertexBuffer> m_chromaQuad;
};

class NORVEX_DX_API D11YUVConverter : public LiveObject {
public:
    // Compiles the shaders and makes the states. alphaType: as for D12YUVConverter.
    D11YUVConverter(const boost::intrusive_ptr<D11Device>& device, Proc::AlphaType alphaType);
    ~D11YUVConverter() override;
    D11YUVConverter(const D11YUVConverter&) = delete;
    D11YUVConverter& operator=(const D11YUVConverter&) = delete;

    // What it was made on.
    const boost::intrusive_ptr<D11Device>& GetDevice() const { return m_device; }

    // Inside D11Device::Encode. The source needs D3D11_BIND_SHADER_RESOURCE, the destination
    // D3D11_BIND_RENDER_TARGET. What of the context's state is replaced: as of
    // D11ImageDraw::Encode, but no shader resource stays bound. "Unsupported pixel format" (also
    // for a null texture), "There is no source texture", "There is no device context".
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const CComPtr<ID3D11Texture2D>& source, const CComPtr<ID3D11Texture2D>& destination,
                Conf::YCbCrMatrix matrix);
    // Into two separate textures, as of D12YUVConverter.
    void Encode(const boost::intrusive_ptr<D11DeviceContext>& context,
                const CComPtr<ID3D11Texture2D>& source, const CComPtr<ID3D11Texture2D>& luma,
                const CComPtr<ID3D11Texture2D>& chroma, DXGI_FORMAT format,
                Conf::YCbCrMatrix matrix);

private:
    void ConfigForDestination(const YUVDestination& destination, const YUVFormat& format);
    void Record(D11DeviceContext& context, const D11ShaderTexture2D& source,
                const D11RenderTexture2D& luma, const D11RenderTexture2D& chroma);

    boost::intrusive_ptr<D11Device> m_device;
    Proc::AlphaType m_alphaType;
    std::unique_ptr<D11QuadPipeline> m_pipeline;
    std::shared_ptr<D11PixelShader> m_yCbCrShader;
    std::shared_ptr<D11PixelShader> m_resizeShader;
    std::unique_ptr<YUVDestination> m_destination; // that everything below is for
    boost::intrusive_ptr<D11VertexBuffer> m_chromaQuad;
    CComPtr<ID3D11Buffer> m_paramsBuffer;
    boost::intrusive_ptr<D11ShaderTexture2D> m_intermediateSource;
    boost::intrusive_ptr<D11RenderTexture2D> m_intermediateTarget;
};

} // namespace Norvex::DX
