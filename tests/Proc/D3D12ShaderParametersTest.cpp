// What shaders are bound to: parameters, their tables and the root signature; and pipelines.

#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using ParametersPtr = Ptr<D12ShaderParameters>;

constexpr auto kPixel = D3D12_SHADER_VISIBILITY_PIXEL;
constexpr auto kClamp = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
constexpr auto kFloats = DXGI_FORMAT_R32G32B32A32_FLOAT;
constexpr auto kStatic = D3D12_DESCRIPTOR_RANGE_FLAG_DATA_STATIC; // 8
constexpr auto kSrv = D12Descriptor::ShaderResource;
constexpr auto kCbv = D12Descriptor::ConstantBuffer;

class D3D12ShaderParametersTest : public Direct3D12Test {
protected:
    static ParametersPtr MakeParameters(int version) {
        return ParametersPtr(new D12ShaderParameters(
            Raw(), Ptr<D12DescriptorHeapPool>(new D12DescriptorHeapPool(Raw())),
            static_cast<D3D_ROOT_SIGNATURE_VERSION>(version)));
    }
    // That begins with the number.
    static ResourcePtr MakeNumber(std::uint32_t number) {
        D12UploadRegionParams upload;
        upload.destination = MakeBuffer(256, {}, kUnordered);
        upload.stateAfter = D3D12_RESOURCE_STATE_COMMON;
        upload.data = reinterpret_cast<const std::uint8_t*>(&number);
        upload.size = sizeof(number);
        Queue()->UploadRegion(upload)->WaitComplete();
        return upload.destination;
    }
    ViewPtr MakeView(D12Descriptor::DescriptorType type = kSrv) {
        return type == kCbv ? m_views->CreateConstantBufferView(m_buffer)
                            : m_views->CreateBufferShaderResourceView(m_buffer, 16);
    }

    ParametersPtr m_parameters = Device()->CreateShaderParameters();
    Ptr<D12DescriptorCPUHeap> m_views = Device()->CreateShaderViewHeap(64);
    ResourcePtr m_buffer = MakeNumber(7);
    ViewPtr m_sampler = Device()->CreateSamplerHeap(1)->CreateSampler(
        {{}, kClamp, kClamp, kClamp, 0, 0, {}, {}, 0, 0});
    Ptr<D12CommandAllocator> m_allocator = Queue()->CreateCommandAllocator();
};

// The vertices' constants have the pixels' register. The static sampler repeats, the other clamps.
// By vertices and by indices of both sizes, all counted by queries.
TEST_F(D3D12ShaderParametersTest, ADrawReadsEveryParameterAndIsCountedInEveryVersion) {
    D12GraphicsPipelineDesc desc;
    const std::string vertex =
        "struct Vertex { float4 at: SV_POSITION; nointerpolation float read: READ; };";
    desc.vertexShader = D12Shader::CreateVertex("main", vertex + R"(
        cbuffer Constants: register(b0) { uint number; };
        Vertex main(float2 at: POSITION) {
            Vertex vertex = { float4(at, 0, 1), number };
            return vertex;
        })");
    desc.pixelShader = D12Shader::CreatePixel("main", vertex + R"(
        cbuffer Constants: register(b0) { uint low; uint high; };
        cbuffer Inline: register(b1) { uint inlined; };
        cbuffer View: register(b2) { uint viewed; };
        Texture2D first: register(t0);
        Texture2D second: register(t1);
        Texture2D third: register(t3);
        ByteAddressBuffer inlineRead: register(t4);
        RWStructuredBuffer<uint> inlineWritten: register(u1);
        SamplerState clamping: register(s0);
        SamplerState repeating: register(s1);
        float4 main(Vertex vertex): SV_TARGET {
            float4 constants = float4(low, high, inlined, viewed);
            float4 loaded = float4(first.Load(int3(0, 0, 0)).x, second.Load(int3(0, 0, 0)).x,
                                   third.Load(int3(0, 0, 0)).x, vertex.read);
            float2 beyond = float2(1.25, 0.5);
            float4 others = float4(inlineRead.Load(0), inlineWritten[0],
                                   first.SampleLevel(clamping, beyond, 0).x,
                                   first.SampleLevel(repeating, beyond, 0).x);
            return vertex.at.x < 1 ? constants : vertex.at.x < 2 ? loaded : others;
        })");
    desc.rasterizer = CD3DX12_RASTERIZER_DESC(D3D12_DEFAULT);
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0, {}, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.renderTargetFormats = {kFloats};
    const float triangle[] = {-1, -1, -1, 3, 3, -1};
    const auto unused = Device()->CreateQuery(D3D12_QUERY_TYPE_BINARY_OCCLUSION);
    const auto samples = Device()->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION);
    const auto statistics = Device()->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    const auto texture = [](const std::vector<Color>& colors) {
        return s_canvas->MakeSource({static_cast<unsigned>(colors.size()), 1, colors}, kFloats);
    };
    for (const int version : {1, 2, 3}) { // 1.0, 1.1, 1.2
        const ParametersPtr parameters = MakeParameters(version);
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
        parameters->AddContants(1, 0, 0, D3D12_SHADER_VISIBILITY_VERTEX)
            ->SetData(std::vector<unsigned char>{10});
        const auto views = parameters->AddViewTable(2, kPixel);
        const std::uint8_t bytes[] = {1, 2, 0, 0, 3};
        parameters->AddContants(2, 0, 0, kPixel)->SetData(bytes, sizeof(bytes));
        parameters->AddConstantBufferView(1, 0, {}, kPixel)->SetBuffer(MakeNumber(4));
        parameters->AddSamplerTable(1, kPixel)->SetSampler(0, 0, m_sampler, {});
        parameters->AddShaderResourceView(4, 0, {}, kPixel)->SetBuffer(MakeNumber(11));
        const auto others = parameters->AddViewTable(2, kPixel);
        parameters->AddUnorderedAccessView(1, 0, {}, kPixel)->SetBuffer(MakeNumber(12));
        parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(1, D3D12_FILTER_MIN_MAG_MIP_POINT));
        views->SetView(0, 0, texture({{6}, {13}}), 0, {});
        views->SetView(1, 1, texture({{8}}), 0, {});
        others->SetView(0, 3, texture({{9}}), 0, {});
        others->SetView(1, 2, MakeView(kCbv), 0, {});
        EXPECT_TRUE(parameters->SerializeRootSignature());
        desc.rootSignature = parameters->GetRootSignature();
        const auto target = s_canvas->MakeTarget(3, 1, kFloats);
        const auto record = [&](const ListPtr& list) {
            const auto vertices = list->CreateVertexBuffer(triangle, 8, 3);
            const auto shortIndices = list->CreateIndexBuffer(std::vector<std::uint16_t>{1, 2, 0});
            const auto longIndices = list->CreateIndexBuffer(std::vector<std::uint32_t>{2, 0, 1});
            list->BeginQuery(samples); // at whose beginning some drivers lose root constants
            list->BeginQuery(statistics);
            parameters->SetToCommandList(list);
            list->RSSetViewports({D3D12_VIEWPORT{0, 0, 3, 1, 0, 1}});
            list->RSSetScissorRects({RECT{0, 0, 3, 1}});
            list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
            list->IASetVertexBuffer(vertices);
            list->OMSetRenderTarget(target, nullptr);
            list->Draw(vertices);
            for (const auto& indices : {shortIndices, longIndices}) {
                list->IASetIndexBuffer(indices);
                list->DrawIndexed(indices);
            }
            list->EndQuery(statistics);
            list->EndQuery(samples);
        };
        Run(record, Device()->CreateGraphicsPipelineState(desc));
        EXPECT_THAT(s_canvas->Read(target).colors,
                    ElementsAre(Color{513, 3, 4, 7}, Color{6, 8, 9, 10}, Color{11, 12, 13, 6}));
        EXPECT_EQ(samples->GetUint64Stats(), 9u);
        EXPECT_EQ(statistics->GetPipelineStats().IAVertices, 9u);
        EXPECT_GE(statistics->GetPipelineStats().PSInvocations, 9u);
    }
}

TEST_F(D3D12ShaderParametersTest, TableMergesNeighbours) {
    struct Entry {
        D12Descriptor::DescriptorType type;
        unsigned shaderRegister;
        D3D12_DESCRIPTOR_RANGE_FLAGS flags = {};
    };
    // Of each range type, count, first register, space, flags, offset.
    const auto check = [&](const std::string& expected, std::initializer_list<Entry> entries) {
        const auto table =
            m_parameters->AddViewTable(static_cast<unsigned>(entries.size()), kPixel);
        unsigned index = 0;
        for (const auto& [type, shaderRegister, flags] : entries) {
            table->SetView(index++, shaderRegister, MakeView(type), 0, flags);
        }
        const auto& [count, ranges] = table->Serialize().DescriptorTable;
        EXPECT_EQ(WordsOf(ranges, count), expected);
    };
    check("0 2 0 0 0 -1 0 2 2 0 0 -1", {{kSrv, 0}, {kSrv, 1}, {kSrv, 2}, {kSrv, 3}});
    check("0 1 1 0 0 -1 0 1 0 0 0 -1", {{kSrv, 1}, {kSrv, 0}});
    check("0 1 0 0 0 -1 2 1 1 0 0 -1", {{kSrv, 0}, {kCbv, 1}});
    check("0 1 0 0 0 -1 0 1 1 0 8 -1", {{kSrv, 0}, {kSrv, 1, kStatic}});
}

// Copies share the tables, and each has its own root signature to keep up to date.
TEST_F(D3D12ShaderParametersTest, EachCopySerializesWhatChanged) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const ParametersPtr copy(new D12ShaderParameters(*m_parameters));
    const auto check = [&](const char* change, bool serializes, bool copySerializes,
                           const std::function<void()>& make) {
        make();
        EXPECT_EQ(m_parameters->SerializeRootSignature(), serializes) << change;
        EXPECT_EQ(copy->SerializeRootSignature(), copySerializes) << change;
        EXPECT_FALSE(m_parameters->SerializeRootSignature() || copy->SerializeRootSignature());
    };
    check("first", true, true, [&] { table->SetView(0, 0, MakeView(), 0, {}); });
    check("same view", false, false, [&] { table->SetView(0, 0, MakeView(), 0, {}); });
    check("register", true, true, [&] { table->SetView(0, 1, MakeView(), 0, {}); });
    check("flags", true, true, [&] { table->SetView(0, 1, MakeView(), 0, kStatic); });
    check("sampler", true, false,
          [&] { m_parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(0)); });
    check("no flags", false, true, [&] { copy->SetFlags({}); });
}

TEST_F(D3D12ShaderParametersTest, BindConsumesTablesAndBuffers) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const auto cbv = m_parameters->AddConstantBufferView(0, 0, {}, kPixel);
    const LifeProbe probe(m_buffer);
    auto list = m_allocator->CreateCommandList(nullptr);
    const auto samplers = MakeParameters(1)->AddSamplerTable(1, kPixel);
    NORVEX_REFUSED("Invalid descriptor type", samplers->SetSampler(0, 0, MakeView(), {}));
    NORVEX_REFUSED("Invalid descriptor type", table->SetView(0, 0, m_sampler, 0, {}));
    ExpectFailure12([&] { table->SetView(1, 0, MakeView(), 0, {}); }, "Table index out of range",
                    "SetDescriptor");
    ExpectFailure12([&] { m_parameters->SerializeRootSignature(); }, "Table not fully initialized",
                    "Serialize");
    NORVEX_REFUSED("Root signature not serialized", m_parameters->SetToCommandList(list));
    table->SetView(0, 0, MakeView(), 0, {});
    cbv->SetBuffer(m_buffer);
    m_buffer.Release();
    m_parameters->SerializeRootSignature();
    m_parameters->SetToCommandList(list);
    EXPECT_TRUE(probe.IsAlive()) << "the list keeps what it uses";
    NORVEX_REFUSED("Inline descriptor has no buffer", m_parameters->SetToCommandList(list));
    cbv->SetBuffer(MakeNumber(1));
    NORVEX_REFUSED("Table not fully initialized", m_parameters->SetToCommandList(list));
    list.reset();
    m_allocator.reset();
    EXPECT_FALSE(probe.IsAlive());
    ExpectFailure12([] { MakeParameters(0)->SerializeRootSignature(); },
                    "Failed to serialize root signature: ", "SerializeRootSignature", E_INVALIDARG);
}

TEST(D3D12GraphicsPipelineStateTest, RefusesWhatCannotBe) {
    D12GraphicsPipelineDesc source;
    source.blend.logicOpEnable = true;
    source.blend.targets.resize(1);
    NORVEX_REFUSED("It's not valid for logic operation and blend to both be enabled",
                   source.ToDesc());
    source.blend = {};
    source.renderTargetFormats.resize(9);
    NORVEX_REFUSED("The number of render targets exceeds the allowed limit", source.ToDesc());
}

} // namespace
} // namespace Norvex::DX
