#pragma once

// How the drawers of both generations draw, internal: a quad over the viewport with the texture
// sampled linearly, and the fixed states that go with it. One thread at a time. Throws
// DirectX11Exception, DirectX12Exception. Geometry: D3Quad.h.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11Resource.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12DrawState.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "Proc/DirectX/Manager/D3Quad.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

// What one draw binds beside the states.
struct D11QuadDraw {
    std::span<ID3D11RenderTargetView* const> targets;
    Rect2DT<long> viewport;
    const std::shared_ptr<D11PixelShader>& shader;
    ID3D11ShaderResourceView* texture = nullptr;
    ID3D11Buffer* constants = nullptr; // of both stages
    ID3D11BlendState* blendState = nullptr;
    std::span<ID3D11ShaderResourceView* const> moreTextures = {}; // from t1 on
    ID3D11Buffer* moreConstants = nullptr;                        // b1 of the pixel shader
};

class D11QuadPipeline {
public:
    // Compiles the shader and makes quad and states.
    D11QuadPipeline(const boost::intrusive_ptr<D11Device>& device, const std::string& vertexShader);

    // With the whole texture, or the part that another quad covers.
    void Draw(D11DeviceContext& context, const D11QuadDraw& draw) const;
    void Draw(D11DeviceContext& context, const D11QuadDraw& draw,
              const boost::intrusive_ptr<D11VertexBuffer>& quad) const;
    // An event that debuggers show, while what is answered lives. A literal.
    [[nodiscard]] static D11DrawEvent BeginEvent(const D11DeviceContext& context, const char* name);
    // Unbinds what would hinder the next user: targets, blend, depth-stencil and rasterizer state.
    static void Unbind(D11DeviceContext& context);

    static boost::intrusive_ptr<D11VertexBuffer>
    CreateQuad(const boost::intrusive_ptr<D11Device>& device, const Size2DT<float>& extent);
    // A texture that one draw makes and the next reads.
    static CComPtr<ID3D11Texture2D> CreateIntermediate(D11Device& device, const Size2DT<long>& size,
                                                       DXGI_FORMAT format);

private:
    std::shared_ptr<D11VertexShader> m_vertexShader;
    boost::intrusive_ptr<D11VertexBuffer> m_quad;
    CComPtr<ID3D11InputLayout> m_inputLayout;
    CComPtr<ID3D11SamplerState> m_sampler;
    CComPtr<ID3D11RasterizerState> m_rasterizer;
    CComPtr<ID3D11DepthStencilState> m_depthStencil;
};

// The root signature, and for each pixel shader the one pipeline state for the target formats last
// drawn to, all made when they are needed. Targets of other formats rebuild a pipeline state.
class D12QuadPipeline {
public:
    using List = boost::intrusive_ptr<D12GraphicsCommandList>;
    using Target = boost::intrusive_ptr<D12Descriptor>;
    using Targets = std::vector<Target>;

    // Compiles the shaders. Blends as replace (ONE, ZERO, all channels). The name is what debuggers
    // show, a literal.
    D12QuadPipeline(const boost::intrusive_ptr<D12Device>& device, const char* name,
                    const std::string& vertexShader, const std::string& pixelShader);

    D12ShaderParameters& GetParameters() const { return *m_parameters; }
    // A table with one texture, t0 of the pixel shader, which samples it through s0; or with more,
    // from t0 on.
    boost::intrusive_ptr<D12ViewTable> AddTexture(unsigned count = 1);
    // Another pixel shader, for one conversion.
    void AddShader(const D3ConversionKey& key, std::shared_ptr<D12Shader> shader);
    std::size_t GetAddedShaderCount() const { return m_shaders.size() - 1; }
    // The next pipeline states are made with the shader of this conversion, if there is one, else
    // with the first. Whether there is one.
    bool UseShader(const D3ConversionKey& key);

    const D12BlendState& GetBlendState() const { return m_blendState; }
    void SetBlendState(const D12BlendState& blendState) { m_blendState = blendState; }

    // Begins the event of a draw into an open list, or of a list that is recorded.
    [[nodiscard]] D12DrawEvent BeginEvent(const D12DrawState& state) const {
        return state.BeginEvent(m_name);
    }

    // Records one list: the quad over the viewport, which lies inside the target; without one,
    // nothing.
    void Record(D12CommandAllocator& allocator, const boost::intrusive_ptr<D12Descriptor>& target,
                const std::optional<Rect2DT<long>>& viewport, Winding winding);

    // Draws it into an open list. setArguments() sets the root arguments.
    template <class SetArguments>
    void Draw(D12DrawState& state, D12DrawState::Targets targets, const Rect2DT<long>& viewport,
              const boost::intrusive_ptr<D12VertexBuffer>& quad, const SetArguments& setArguments) {
        state.SetPipelineState(GetPipelineState());
        state.SetRootSignature(m_parameters->GetRootSignature());
        setArguments();
        state.SetTargets(targets);
        state.SetViewport(MakeViewport<D3D12_VIEWPORT>(viewport), targets.front()->GetSize());
        state.SetQuad(quad);
        state.GetList().Draw(quad);
    }

    // Its steps, for lists with more in them. The pipeline state is the list's when it draws.
    const CComPtr<ID3D12PipelineState>& MakePipelineState(D12DrawState::Targets targets);
    void Draw(const List& list, D12DrawState::Targets targets, const Rect2DT<long>& viewport,
              const Size2DT<long>& scissor,
              const boost::intrusive_ptr<D12VertexBuffer>& quad) const;
    // The one made last.
    const CComPtr<ID3D12PipelineState>& GetPipelineState() const { return GetShader().state; }
    // Of the whole texture; kept.
    const boost::intrusive_ptr<D12VertexBuffer>& GetQuad(D12GraphicsCommandList& list,
                                                         Winding winding = Winding::Clockwise);
    static boost::intrusive_ptr<D12VertexBuffer> CreateQuad(D12GraphicsCommandList& list,
                                                            const Size2DT<float>& extent,
                                                            Winding winding = Winding::Clockwise);

private:
    struct PixelShader {
        std::optional<D3ConversionKey> key = {};
        std::shared_ptr<D12Shader> shader = {};
        CComPtr<ID3D12PipelineState> state = {}; // and what it was made of
        CComPtr<ID3D12RootSignature> rootSignature = {};
        D12BlendState blend = {};
        std::vector<DXGI_FORMAT> formats = {};
    };
    const PixelShader& GetShader() const { return m_shaders[m_used]; }

    boost::intrusive_ptr<D12Device> m_device;
    const char* m_name;
    boost::intrusive_ptr<D12ShaderParameters> m_parameters;
    D12GraphicsPipelineDesc m_desc;
    D12BlendState m_blendState;
    std::array<boost::intrusive_ptr<D12VertexBuffer>, 2> m_quads; // one a winding
    std::vector<PixelShader> m_shaders;                           // at least one
    std::size_t m_used = 0;
};

// In the upload heap, for the shaders' constants.
CComPtr<ID3D12Resource> CreateConstants(D12Device& device, std::span<const std::uint8_t> bytes,
                                        const wchar_t* name);

} // namespace Norvex::DX
