#include <chrono>
#include <thread>

#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using QueryPtr = Ptr<D12Query>;

constexpr auto kTime = D3D12_QUERY_TYPE_TIMESTAMP;

class D3D12QueryTest : public Direct3D12Test {};

TEST_F(D3D12QueryTest, TimeStampsGrowWithTheClock) {
    const QueryPtr before = Device()->CreateQuery(kTime);
    const QueryPtr after = Device()->CreateQuery(kTime);
    const auto start = std::chrono::steady_clock::now();
    Run([&](const ListPtr& list) { list->EndQuery(before); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Run([&](const ListPtr& list) { list->EndQuery(after); });
    const std::chrono::duration<double> most = std::chrono::steady_clock::now() - start;
    UINT64 frequency = 0;
    ASSERT_EQ(Queue()->Get()->GetTimestampFrequency(&frequency), S_OK);
    const double seconds = static_cast<double>(after->GetUint64Stats() - before->GetUint64Stats()) /
                           static_cast<double>(frequency);
    EXPECT_GT(seconds, 0.09);
    EXPECT_LE(seconds, most.count() + 0.01);
}

// Draws a triangle that covers the lower left half of a square target, by its vertices and by
// indices of both sizes, where the depth buffer hides what is in the left half of the target.
TEST_F(D3D12QueryTest, DrawsCountTheVisiblePixelsOfATriangle) {
    constexpr unsigned kSize = 64;
    const auto parameters = Device()->CreateShaderParameters();
    parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    parameters->SerializeRootSignature();
    D12GraphicsPipelineDesc desc;
    desc.rootSignature = parameters->GetRootSignature();
    desc.vertexShader = D12Shader::CreateVertex(
        "main", "float4 main(float2 p: POSITION): SV_POSITION { return float4(p, 0.5, 1); }");
    desc.pixelShader = D12Shader::CreatePixel("main", "float4 main(): SV_TARGET { return 1; }");
    desc.rasterizer = CD3DX12_RASTERIZER_DESC(D3D12_DEFAULT);
    desc.depthStencil = CD3DX12_DEPTH_STENCIL_DESC(D3D12_DEFAULT);
    desc.depthStencil.DepthFunc = D3D12_COMPARISON_FUNC_LESS_EQUAL;
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0, {}, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.renderTargetFormats = {kColor};
    auto withDepth = desc.ToDesc();
    withDepth.DSVFormat = DXGI_FORMAT_D32_FLOAT; // which the library's own pipelines do without
    CComPtr<ID3D12PipelineState> pipeline;
    ASSERT_EQ(Raw()->CreateGraphicsPipelineState(&withDepth, IID_PPV_ARGS(&pipeline)), S_OK);
    const auto target = s_canvas->MakeTarget(kSize, kSize, kColor);
    auto depthDesc = MakeTextureDesc(kSize, kSize, 1, D3D12_RESOURCE_STATE_DEPTH_WRITE);
    depthDesc.format = DXGI_FORMAT_D32_FLOAT;
    depthDesc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL;
    const auto depth = Device()->CreateDepthStencilViewHeap(1)->CreateDepthStencilView(
        Device()->CreateTexture2D(depthDesc), {});
    const float triangle[] = {-1, -1, -1, 1, 1, -1};

    const QueryPtr samples = Device()->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION);
    const QueryPtr any = Device()->CreateQuery(D3D12_QUERY_TYPE_BINARY_OCCLUSION);
    const QueryPtr statistics = Device()->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    const auto record = [&](const ListPtr& list) {
        const auto vertices = list->CreateVertexBuffer(triangle, 8, 3);
        const auto clear = [&](long left, float value) {
            const RECT half = {left, 0, left + long{kSize} / 2, kSize};
            list->GetGraphics()->ClearDepthStencilView(depth->GetCPUHandle(),
                                                       D3D12_CLEAR_FLAG_DEPTH, value, 0, 1, &half);
        };
        const auto drawIndexed = [&](const QueryPtr& query, const Ptr<D12IndexBuffer>& indices) {
            list->BeginQuery(query);
            list->IASetIndexBuffer(indices);
            list->DrawIndexed(indices);
            list->EndQuery(query);
        };
        clear(0, 0);
        clear(kSize / 2, 1);
        list->SetRootSignature(desc.rootSignature);
        list->RSSetViewports({D3D12_VIEWPORT{0, 0, kSize, kSize, 0, 1}});
        list->RSSetScissorRects({RECT{0, 0, kSize, kSize}});
        list->IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
        list->IASetVertexBuffer(vertices);
        list->OMSetRenderTarget(target, depth);
        list->BeginQuery(samples);
        list->Draw(vertices);
        list->EndQuery(samples);
        drawIndexed(any, list->CreateIndexBuffer(std::vector<std::uint16_t>{1, 2, 0}));
        drawIndexed(statistics, list->CreateIndexBuffer(std::vector<std::uint32_t>{2, 0, 1}));
    };
    Run(record, pipeline);
    const auto colors = s_canvas->Read(target).colors;
    const auto drawn = static_cast<std::uint64_t>(std::ranges::count(colors, Color{1, 1, 1, 1}));
    EXPECT_NEAR(static_cast<double>(drawn), kSize * kSize / 8.0, kSize / 2.0);
    EXPECT_EQ(samples->GetUint64Stats(), drawn);
    EXPECT_NE(any->GetUint64Stats(), 0u);
    const auto counted = statistics->GetPipelineStats();
    EXPECT_EQ(counted.IAVertices, 3u);
    EXPECT_GE(counted.PSInvocations, drawn);
}

TEST_F(D3D12QueryTest, HeapsHaveTheirSizesAndTakeTheirTypes) {
    // Not every system has heaps of every type: those are stood in for by one of another type.
    const MethodPatch<&ID3D12Device::CreateQueryHeap> create(
        Raw(), [](auto original, auto* self, auto* desc, auto... rest) {
            D3D12_QUERY_HEAP_DESC known = *desc;
            known.Type = D3D12_QUERY_HEAP_TYPE_TIMESTAMP;
            return original(self, &known, rest...);
        });
    const Ptr<D12QueryHeapPool> pool(new D12QueryHeapPool(Raw()));
    const auto check = [&](D3D12_QUERY_HEAP_TYPE heapType, D3D12_QUERY_TYPE type, unsigned size) {
        const auto heap = pool->CreateHeap(heapType, 65);
        EXPECT_EQ(heap->GetQuerySize(), size);
        NORVEX_REFUSED("Invalid heap type",
                       heap->CreateQuery(type == kTime ? D3D12_QUERY_TYPE_OCCLUSION : kTime));
        const auto queries = ExpectLowestFirst(
            128, [&] { return heap->CreateQuery(type); },
            [](const QueryPtr& query) { return query->GetIndex(); });
        EXPECT_EQ(queries[127]->GetOffset(), 127 * size);
        NORVEX_REFUSED("There is no free space in the heap for the query", heap->CreateQuery(type));
        NORVEX_REFUSED("Query index out of range", heap->GetOffset(128));
    };
    check(D3D12_QUERY_HEAP_TYPE_OCCLUSION, D3D12_QUERY_TYPE_BINARY_OCCLUSION, 8);
    check(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, kTime, 8);
    check(D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS, D3D12_QUERY_TYPE_PIPELINE_STATISTICS, 88);
    check(D3D12_QUERY_HEAP_TYPE_SO_STATISTICS, D3D12_QUERY_TYPE_SO_STATISTICS_STREAM2, 16);
    check(D3D12_QUERY_HEAP_TYPE_VIDEO_DECODE_STATISTICS, D3D12_QUERY_TYPE_VIDEO_DECODE_STATISTICS,
          32);
    check(D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS1, D3D12_QUERY_TYPE_PIPELINE_STATISTICS1, 112);
    NORVEX_REFUSED("Invalid query type", pool->CreateQuery(kTime)->GetPipelineStats());
    NORVEX_REFUSED("Invalid query type",
                   pool->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS)->GetUint64Stats());
    NORVEX_REFUSED("Invalid query type", pool->CreateQuery(static_cast<D3D12_QUERY_TYPE>(9)));
    ExpectFailure12([&] { pool->CreateHeap(static_cast<D3D12_QUERY_HEAP_TYPE>(5), 1); },
                    "Invalid query heap type", "GetQuerySizeFromHeapType");
    ExpectFailure12([&] { pool->CreateHeap({}, 0); }, "Failed to create query heap", "CreateHeap",
                    E_INVALIDARG);
}

} // namespace
} // namespace Norvex::DX
