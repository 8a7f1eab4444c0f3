#include "Proc/DirectX/Manager/D3D12Query.h"

#include <chrono>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using QueryPtr = boost::intrusive_ptr<DX::D12Query>;

constexpr auto kTime = D3D12_QUERY_HEAP_TYPE_TIMESTAMP;
constexpr auto kSamples = D3D12_QUERY_HEAP_TYPE_OCCLUSION;

class D3D12QueryTest : public CanvasTest {
protected:
    static boost::intrusive_ptr<DX::D12QueryHeapPool> MakePool() {
        return boost::intrusive_ptr<DX::D12QueryHeapPool>(
            new DX::D12QueryHeapPool(Device()->Get()));
    }
    // Records one list, submits it and waits.
    template <class Record>
    static void Run(const Record& record) {
        const auto allocator = Queue()->CreateCommandAllocator();
        const auto list = allocator->CreateCommandList(nullptr);
        record(*list);
        list->Close();
        allocator->Execute();
        allocator->WaitComplete();
    }
};

TEST_F(D3D12QueryTest, TimeStampsGrowWithTheClock) {
    const QueryPtr before = Device()->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const QueryPtr after = Device()->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const auto start = std::chrono::steady_clock::now();
    Run([&](auto& list) { list.EndQuery(before); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Run([&](auto& list) { list.EndQuery(after); });
    const std::chrono::duration<double> most = std::chrono::steady_clock::now() - start;
    UINT64 frequency = 0;
    ASSERT_EQ(Queue()->Get()->GetTimestampFrequency(&frequency), S_OK);
    const double seconds = static_cast<double>(after->GetUint64Stats() - before->GetUint64Stats()) /
                           static_cast<double>(frequency);
    EXPECT_GT(seconds, 0.09);
    EXPECT_LE(seconds, most.count() + 0.01);
}

// Draws a triangle that covers the lower left half of a square target; the depth buffer hides what
// is in the left half of the target.
TEST_F(D3D12QueryTest, OcclusionCountsTheVisiblePixelsOfATriangle) {
    constexpr unsigned kSize = 64;
    const auto parameters = Device()->CreateShaderParameters();
    parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    parameters->SerializeRootSignature();
    DX::D12GraphicsPipelineDesc desc;
    desc.rootSignature = parameters->GetRootSignature();
    desc.vertexShader = DX::D12Shader::CreateVertex(
        "main", "float4 main(float2 p: POSITION): SV_POSITION { return float4(p, 0.5, 1); }");
    desc.pixelShader = DX::D12Shader::CreatePixel("main", "float4 main(): SV_TARGET { return 1; }");
    desc.rasterizer = CD3DX12_RASTERIZER_DESC(D3D12_DEFAULT);
    desc.depthStencil = CD3DX12_DEPTH_STENCIL_DESC(D3D12_DEFAULT);
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 0, {}, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.renderTargetFormats = {DXGI_FORMAT_R8G8B8A8_UNORM};
    auto withDepth = desc.ToDesc();
    withDepth.DSVFormat = DXGI_FORMAT_D32_FLOAT; // which the library's own pipelines do without
    CComPtr<ID3D12PipelineState> pipeline;
    ASSERT_EQ(Device()->Get()->CreateGraphicsPipelineState(&withDepth, IID_PPV_ARGS(&pipeline)),
              S_OK);
    const auto target = s_canvas->MakeTarget(kSize, kSize, DXGI_FORMAT_R8G8B8A8_UNORM);
    DX::D12Texture2DDesc depthDesc;
    depthDesc.width = depthDesc.height = kSize;
    depthDesc.format = DXGI_FORMAT_D32_FLOAT;
    depthDesc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_DEPTH_STENCIL;
    depthDesc.initialState = D3D12_RESOURCE_STATE_DEPTH_WRITE;
    const auto depth = Device()->CreateDepthStencilViewHeap(1)->CreateDepthStencilView(
        Device()->CreateTexture2D(depthDesc), {});
    const float triangle[] = {-1, -1, -1, 1, 1, -1};

    const QueryPtr samples = Device()->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION);
    const QueryPtr any = Device()->CreateQuery(D3D12_QUERY_TYPE_BINARY_OCCLUSION);
    const QueryPtr statistics = Device()->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    Run([&](auto& list) {
        const auto vertices = list.CreateVertexBuffer(triangle, 8, 3);
        const auto clear = [&](long left, float value) {
            const RECT half = {left, 0, left + long{kSize} / 2, kSize};
            list.GetGraphics()->ClearDepthStencilView(depth->GetCPUHandle(), D3D12_CLEAR_FLAG_DEPTH,
                                                      value, 0, 1, &half);
        };
        clear(0, 0);
        list.SetPipelineState(pipeline);
        list.SetRootSignature(desc.rootSignature);
        list.RSSetViewports({D3D12_VIEWPORT{0, 0, kSize, kSize, 0, 1}});
        list.RSSetScissorRects({RECT{0, 0, kSize, kSize}});
        list.IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
        list.IASetVertexBuffer(vertices);
        for (const QueryPtr& query : {samples, any, statistics}) {
            clear(kSize / 2, 1);
            list.OMSetRenderTarget(target, depth);
            list.BeginQuery(query);
            list.Draw(vertices);
            list.EndQuery(query);
        }
    });
    std::uint64_t drawn = 0;
    for (const Color& color : s_canvas->Read(target).colors) {
        drawn += color[3] == 1.0 ? 1 : 0;
    }
    EXPECT_NEAR(static_cast<double>(drawn), kSize * kSize / 8.0, kSize / 2.0);
    EXPECT_EQ(samples->GetUint64Stats(), drawn);
    EXPECT_NE(any->GetUint64Stats(), 0U);
    const auto counted = statistics->GetPipelineStats();
    EXPECT_EQ(counted.IAVertices, 3U);
    EXPECT_EQ(counted.IAPrimitives, 1U);
    EXPECT_EQ(counted.VSInvocations, 3U);
    EXPECT_GE(counted.PSInvocations, drawn);
}

TEST_F(D3D12QueryTest, HeapsHaveTheirSizes) {
    const auto pool = MakePool();
    // Not every system has heaps of every type: those are stood in for by one of another type.
    const MethodPatch<&ID3D12Device::CreateQueryHeap> create(
        Device()->Get(), [](auto original, auto* self, auto* desc, auto... rest) {
            D3D12_QUERY_HEAP_DESC known = *desc;
            known.Type = kTime;
            return original(self, &known, rest...);
        });
    const auto check = [&](D3D12_QUERY_HEAP_TYPE type, D3D12_QUERY_TYPE queryType, unsigned size) {
        const auto heap = pool->CreateHeap(type, 65);
        EXPECT_EQ(heap->GetCount(), 128U);
        EXPECT_EQ(heap->GetQuerySize(), size);
        EXPECT_EQ(heap->GetOffset(127), 127 * size);
        const auto otherType =
            type == kTime ? D3D12_QUERY_TYPE_OCCLUSION : D3D12_QUERY_TYPE_TIMESTAMP;
        NORVEX_EXPECT_REFUSED12("Invalid heap type", heap->CreateQuery(otherType));
        std::vector<QueryPtr> all;
        for (unsigned i = 0; i < 128; ++i) {
            all.push_back(heap->CreateQuery(queryType));
            EXPECT_EQ(all[i]->GetType(), queryType);
            EXPECT_EQ(all[i]->GetOffset(), i * size);
        }
        NORVEX_EXPECT_REFUSED12("There is no free space in the heap for the query",
                                heap->CreateQuery(queryType));
    };
    check(kSamples, D3D12_QUERY_TYPE_OCCLUSION, 8);
    check(kSamples, D3D12_QUERY_TYPE_BINARY_OCCLUSION, 8);
    check(kTime, D3D12_QUERY_TYPE_TIMESTAMP, 8);
    check(D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS, D3D12_QUERY_TYPE_PIPELINE_STATISTICS, 88);
    check(D3D12_QUERY_HEAP_TYPE_SO_STATISTICS, D3D12_QUERY_TYPE_SO_STATISTICS_STREAM2, 16);
    check(D3D12_QUERY_HEAP_TYPE_VIDEO_DECODE_STATISTICS, D3D12_QUERY_TYPE_VIDEO_DECODE_STATISTICS,
          32);
    check(D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS1, D3D12_QUERY_TYPE_PIPELINE_STATISTICS1, 112);
    EXPECT_EQ(pool->CreateHeap(kTime, 10)->GetCount(), 10U) << "of a recycled heap what is asked for";
}

TEST_F(D3D12QueryTest, RefusesWhatCannotBe) {
    const auto pool = MakePool();
    const auto heap = pool->CreateHeap(kTime, 1);
    const QueryPtr time = heap->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const QueryPtr pipeline = pool->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    const QueryPtr stream = pool->CreateQuery(D3D12_QUERY_TYPE_SO_STATISTICS_STREAM3);
    EXPECT_EQ(SentenceOf([&] { stream->GetSoStats(); }), "(nothing)");
    constexpr auto kNoType = static_cast<D3D12_QUERY_TYPE>(9);
    constexpr auto kNoHeapType = static_cast<D3D12_QUERY_HEAP_TYPE>(5);
    constexpr auto kInvalid = "Invalid query type";
    NORVEX_EXPECT_REFUSED12(kInvalid, pipeline->GetUint64Stats());
    NORVEX_EXPECT_REFUSED12(kInvalid, time->GetPipelineStats());
    NORVEX_EXPECT_REFUSED12(kInvalid, pipeline->GetPipelineStats1());
    NORVEX_EXPECT_REFUSED12(kInvalid, pipeline->GetSoStats());
    NORVEX_EXPECT_REFUSED12(kInvalid, stream->GetVideoDecodeStats());
    NORVEX_EXPECT_REFUSED12(kInvalid, pool->CreateQuery(kNoType));
    NORVEX_EXPECT_REFUSED12(kInvalid, heap->CreateQuery(kNoType));
    NORVEX_EXPECT_REFUSED12("Query index out of range", heap->GetOffset(64));
    constexpr auto kNotCreated = "Failed to create query heap";
    const CComPtr device(Device()->Get());
    ExpectFailure12([&] { pool->CreateHeap(kTime, 0); }, kNotCreated, "CreateHeap", E_INVALIDARG);
    ExpectFailure12By<&ID3D12Device::CreateQueryHeap>(
        device, [&] { pool->CreateHeap(kSamples, 1); }, kNotCreated, "CreateHeap");
    ExpectFailure12By<&ID3D12Device::CreateQueryHeap>(
        device, [&] { pool->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION); }, kNotCreated, "CreateHeap");
    ExpectFailure12By<&ID3D12Device::CreateCommittedResource>(
        device, [&] { pool->CreateHeap(kSamples, 1); }, "Failed to create 2D texture",
        "D12QueryHeap");
    ExpectFailure12By<&ID3D12Resource::Map>(
        time->GetResource(), [&] { time->GetUint64Stats(); }, "Failed to map query buffer",
        "GetResult");
    const FailingMethod<&ID3D12Device::CreateQueryHeap> succeed(device, S_OK);
    ExpectFailure12([&] { pool->CreateHeap(kNoHeapType, 1); }, "Invalid query heap type",
                    "GetQuerySizeFromHeapType");
}

} // namespace

} // namespace Norvex::Test
