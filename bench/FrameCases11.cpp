// Frames of draws on Direct3D 11, recorded on the immediate context.

#include <array>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D11ImageDraw.h"
#include "bench/Cases.h"
#include "bench/Twin.h"

namespace Norvex::Bench {

namespace {

// States and shaders, as the library has them.
struct Pieces11 {
    explicit Pieces11(const boost::intrusive_ptr<DX::D11Device>& device)
        : vertexShader(std::make_shared<DX::D11VertexShader>(
              device, "VSMain", DX::D3ImageRenderer::GetVertexShader())),
          pixelShader(std::make_shared<DX::D11PixelShader>(device, "PSMain",
                                                           DX::D3ImageRenderer::GetPixelShader())),
          quad(DX::D11VertexBuffer::Create(device, kQuad.data(), sizeof(Vertex),
                                           static_cast<UINT>(kQuad.size()))),
          layout(device->CreateInputLayout(
              {{"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
               {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, D3D11_APPEND_ALIGNED_ELEMENT,
                D3D11_INPUT_PER_VERTEX_DATA, 0}},
              vertexShader)) {
        D3D11_RASTERIZER_DESC rasterizerDesc = {};
        rasterizerDesc.FillMode = D3D11_FILL_SOLID;
        rasterizerDesc.CullMode = D3D11_CULL_NONE;
        rasterizerDesc.DepthClipEnable = TRUE;
        rasterizer = device->CreateRasterizerState(rasterizerDesc);
        depthStencil = device->CreateDepthStencilState(CD3D11_DEPTH_STENCIL_DESC(
            FALSE, D3D11_DEPTH_WRITE_MASK_ALL, D3D11_COMPARISON_LESS, FALSE, 0xff, 0xff,
            D3D11_STENCIL_OP_KEEP, D3D11_STENCIL_OP_KEEP, D3D11_STENCIL_OP_KEEP,
            D3D11_COMPARISON_ALWAYS, D3D11_STENCIL_OP_KEEP, D3D11_STENCIL_OP_KEEP,
            D3D11_STENCIL_OP_KEEP, D3D11_COMPARISON_ALWAYS));
        sampler = device->CreateSamplerState(
            CD3D11_SAMPLER_DESC(D3D11_FILTER_MIN_MAG_MIP_LINEAR, D3D11_TEXTURE_ADDRESS_CLAMP,
                                D3D11_TEXTURE_ADDRESS_CLAMP, D3D11_TEXTURE_ADDRESS_CLAMP, 0, 1,
                                D3D11_COMPARISON_NEVER, nullptr, 0, D3D11_FLOAT32_MAX));
    }

    std::shared_ptr<DX::D11VertexShader> vertexShader;
    std::shared_ptr<DX::D11PixelShader> pixelShader;
    boost::intrusive_ptr<DX::D11VertexBuffer> quad;
    CComPtr<ID3D11InputLayout> layout;
    CComPtr<ID3D11SamplerState> sampler;
    CComPtr<ID3D11RasterizerState> rasterizer;
    CComPtr<ID3D11DepthStencilState> depthStencil;
};

class Frames11 {
public:
    Frames11() {
        const D3D11_BUFFER_DESC ring = {kBytesOfConstants,
                                        D3D11_USAGE_DYNAMIC,
                                        D3D11_BIND_CONSTANT_BUFFER,
                                        D3D11_CPU_ACCESS_WRITE,
                                        0,
                                        0};
        m_constants = m_device->CreateBuffer(ring, nullptr);
        m_device->Get()->GetImmediateContext(&m_context);
        for (auto& query : m_done) {
            const D3D11_QUERY_DESC desc = {D3D11_QUERY_EVENT, 0};
            Check(m_device->Get()->CreateQuery(&desc, &query));
            m_context->End(query);
        }
        m_conversion.target = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    }

    ID3D11Device* GetDevice() const { return m_device->Get(); }

    void DrawWithLibrary(unsigned draws) {
        WaitForFrame();
        m_device->Encode([&](const auto& context) {
            for (unsigned i = 0; i < draws; ++i) {
                m_drawer->Encode(context, m_source, m_target, m_conversion,
                                 DX::Rect2DT<long>{0, 0, 2, 2});
            }
        });
        EndFrame();
    }

    // What differs from draw to draw, in a buffer that is written anew.
    void DrawAsExpert(unsigned draws) {
        WaitForFrame();
        SetState();
        SetArguments(m_constants);
        for (unsigned i = 0; i < draws; ++i) {
            const auto constants = DX::D3ImageRenderer::MakeParams({}, m_conversion);
            D3D11_MAPPED_SUBRESOURCE mapped = {};
            Check(m_context->Map(m_constants, 0, D3D11_MAP_WRITE_DISCARD, 0, &mapped));
            std::memcpy(mapped.pData, &constants, sizeof(constants));
            m_context->Unmap(m_constants, 0);
            m_context->Draw(static_cast<UINT>(kQuad.size()), 0);
        }
        Unbind();
        EndFrame();
    }

    // The calls that D11ImageDraw makes, for each draw.
    void DrawWithSameCalls(unsigned draws) {
        WaitForFrame();
        for (unsigned i = 0; i < draws; ++i) {
            const auto params = DX::D3ImageRenderer::MakeParams({}, m_conversion);
            std::array<std::uint8_t, kBytesOfConstants> bytes = {};
            std::memcpy(bytes.data(), &params, sizeof(params));
            const D3D11_BUFFER_DESC desc = {
                kBytesOfConstants, D3D11_USAGE_DEFAULT, D3D11_BIND_CONSTANT_BUFFER, 0, 0, 0};
            const D3D11_SUBRESOURCE_DATA data = {bytes.data(), 0, 0};
            CComPtr<ID3D11Buffer> constants;
            Check(m_device->Get()->CreateBuffer(&desc, &data, &constants));
            SetState();
            SetArguments(constants);
            m_context->Draw(static_cast<UINT>(kQuad.size()), 0);
            Unbind();
        }
        EndFrame();
    }

private:
    void SetState() {
        m_context->RSSetState(m_pieces.rasterizer);
        m_context->OMSetDepthStencilState(m_pieces.depthStencil, 0);
        ID3D11RenderTargetView* const target = m_target->GetView();
        m_context->OMSetRenderTargets(1, &target, nullptr);
        m_context->OMSetBlendState(nullptr, nullptr, D3D11_DEFAULT_SAMPLE_MASK);
        const D3D11_VIEWPORT viewport = {0, 0, 2, 2, 0, 1};
        m_context->RSSetViewports(1, &viewport);
        ID3D11Buffer* const quad = m_pieces.quad->GetBuffer();
        const UINT stride = sizeof(Vertex);
        const UINT offset = 0;
        m_context->IASetVertexBuffers(0, 1, &quad, &stride, &offset);
        m_context->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
    }
    void SetArguments(ID3D11Buffer* constants) {
        m_context->VSSetConstantBuffers(0, 1, &constants);
        m_context->PSSetConstantBuffers(0, 1, &constants);
        ID3D11ShaderResourceView* const texture = m_source->GetView();
        m_context->PSSetShaderResources(0, 1, &texture);
        m_context->IASetInputLayout(m_pieces.layout);
        m_context->VSSetShader(m_pieces.vertexShader->GetShader(), nullptr, 0);
        m_context->PSSetShader(m_pieces.pixelShader->GetShader(), nullptr, 0);
        ID3D11SamplerState* const sampler = m_pieces.sampler;
        m_context->PSSetSamplers(0, 1, &sampler);
    }
    void Unbind() {
        m_context->OMSetBlendState(nullptr, nullptr, D3D11_DEFAULT_SAMPLE_MASK);
        ID3D11RenderTargetView* const none = nullptr;
        m_context->OMSetRenderTargets(1, &none, nullptr);
        m_context->OMSetDepthStencilState(nullptr, 0);
        m_context->RSSetState(nullptr);
    }
    void WaitForFrame() {
        BOOL isDone = FALSE;
        while (m_context->GetData(m_done.at(m_next % kFramesInFlight), &isDone, sizeof(isDone),
                                  0) != S_OK) {
            Sleep(1);
        }
    }
    void EndFrame() { m_context->End(m_done.at(m_next++ % kFramesInFlight)); }

    boost::intrusive_ptr<DX::D11Device> m_device = DX::D11Device::CreatePrimary();
    CComPtr<ID3D11DeviceContext> m_context;
    boost::intrusive_ptr<DX::D11ImageDraw> m_drawer{new DX::D11ImageDraw(m_device)};
    CD3D11_TEXTURE2D_DESC m_picture{
        DXGI_FORMAT_R8G8B8A8_UNORM, kPictureSize, kPictureSize, 1, 1, 0};
    boost::intrusive_ptr<DX::D11ShaderTexture2D> m_source =
        DX::D11ShaderTexture2D::Create(m_device, m_picture, nullptr);
    boost::intrusive_ptr<DX::D11RenderTexture2D> m_target =
        DX::D11RenderTexture2D::Create(m_device, m_picture);
    Proc::ColorAlphaConversionInfo m_conversion; // sRGB to Rec. 2020 PQ
    Pieces11 m_pieces{m_device};
    CComPtr<ID3D11Buffer> m_constants;
    std::array<CComPtr<ID3D11Query>, kFramesInFlight> m_done;
    unsigned m_next = 0;
};

Ways MakeFrames11(unsigned draws) {
    const auto all = std::make_shared<Frames11>();
    return {
        {MakeWay("Encode", [all, draws] { all->DrawWithLibrary(draws); }, {"same calls", "expert"}),
         MakeWay("same calls", [all, draws] { all->DrawWithSameCalls(draws); }),
         MakeWay("expert", [all, draws] { all->DrawAsExpert(draws); })},
        [all](const Work& work) {
            return Test::CountCalls<Test::CountedObjects11>(all->GetDevice(), work);
        }};
}

} // namespace

std::vector<Case> MakeFrameCases11() {
    std::vector<Case> cases;
    for (const unsigned draws : {1U, 16U, 256U}) {
        cases.push_back({fmt::format("d3d11/frame/{}", draws), Clock::Thread,
                         [draws] { return MakeFrames11(draws); }});
    }
    return cases;
}

} // namespace Norvex::Bench
