#include <chrono>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12GraphicsPipelineState.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "tests/support/Canvas.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using DX::D12Query;
using DX::D12QueryHeapPool;
using QueryPtr = boost::intrusive_ptr<D12Query>;

class D3D12QueryTest : public testing::Test {
protected:
    static void SetUpTestSuite() { s_canvas = std::make_unique<Canvas>(); }
    static void TearDownTestSuite() { s_canvas.reset(); }

    static boost::intrusive_ptr<D12QueryHeapPool> MakePool() {
        return boost::intrusive_ptr<D12QueryHeapPool>(
            new D12QueryHeapPool(s_canvas->GetDevice()->Get()));
    }
    // Records one list, submits it and waits.
    template <class Record>
    static void Run(const Record& record) {
        const auto allocator = s_canvas->GetQueue()->CreateCommandAllocator();
        const auto list = allocator->CreateCommandList(nullptr);
        record(*list);
        list->Close();
        allocator->Execute();
        allocator->WaitComplete();
    }

    static inline std::unique_ptr<Canvas> s_canvas;
};

TEST_F(D3D12QueryTest, TimeStampsGrowWithTheClock) {
    const auto& device = s_canvas->GetDevice();
    const QueryPtr before = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const QueryPtr after = device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const auto start = std::chrono::steady_clock::now();
    Run([&](auto& list) { list.EndQuery(before); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Run([&](auto& list) { list.EndQuery(after); });
    const std::chrono::duration<double> most = std::chrono::steady_clock::now() - start;
    UINT64 frequency = 0;
    ASSERT_EQ(s_canvas->GetQueue()->Get()->GetTimestampFrequency(&frequency), S_OK);
    const double seconds = static_cast<double>(after->GetUint64Stats() - before->GetUint64Stats()) /
                           static_cast<double>(frequency);
    EXPECT_GT(seconds, 0.09);
    EXPECT_LE(seconds, most.count() + 0.01);
}

// Draws a triangle that covers the lower left half of a square target.
TEST_F(D3D12QueryTest, OcclusionCountsThePixelsOfATriangle) {
    constexpr unsigned kSize = 64;
    const auto& device = s_canvas->GetDevice();
    DX::D12GraphicsPipelineDesc desc;
    desc.vertexShader =
        DX::D12Shader::CreateVertex("main", "float4 main(float3 position: POSITION): SV_POSITION {"
                                            " return float4(position.xy, 0.0, 1.0); }");
    desc.pixelShader =
        DX::D12Shader::CreatePixel("main", "float4 main(): SV_TARGET { return 1.0; }");
    desc.rasterizer.FillMode = D3D12_FILL_MODE_SOLID;
    desc.rasterizer.CullMode = D3D12_CULL_MODE_NONE;
    desc.inputLayout = {{"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0,
                         D3D12_INPUT_CLASSIFICATION_PER_VERTEX_DATA, 0}};
    desc.primitiveTopologyType = D3D12_PRIMITIVE_TOPOLOGY_TYPE_TRIANGLE;
    desc.renderTargetFormats = {DXGI_FORMAT_R8G8B8A8_UNORM};
    desc.blend.targets = {DX::D12RenderTargetBlend{}};
    const auto parameters = device->CreateShaderParameters();
    parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    parameters->SerializeRootSignature();
    desc.rootSignature = parameters->GetRootSignature();
    const auto pipeline = device->CreateGraphicsPipelineState(desc);
    const auto target = s_canvas->MakeTarget(kSize, kSize, DXGI_FORMAT_R8G8B8A8_UNORM);
    const float triangle[] = {-1, -1, 0, -1, 1, 0, 1, -1, 0};

    const QueryPtr samples = device->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION);
    const QueryPtr any = device->CreateQuery(D3D12_QUERY_TYPE_BINARY_OCCLUSION);
    const QueryPtr statistics = device->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    Run([&](auto& list) {
        const auto vertices = list.CreateVertexBuffer(triangle, 12, 3);
        list.SetPipelineState(pipeline);
        list.SetRootSignature(desc.rootSignature);
        list.OMSetRenderTarget(target, nullptr);
        list.RSSetViewports({D3D12_VIEWPORT{0, 0, kSize, kSize, 0, 1}});
        list.RSSetScissorRects({RECT{0, 0, kSize, kSize}});
        list.IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY_TRIANGLELIST);
        list.IASetVertexBuffer(vertices);
        for (const QueryPtr& query : {samples, any, statistics}) {
            list.BeginQuery(query);
            list.Draw(vertices);
            list.EndQuery(query);
        }
    });
    std::uint64_t drawn = 0;
    for (const Color& color : s_canvas->Read(target).colors) {
        drawn += color[3] == 1.0 ? 1 : 0;
    }
    EXPECT_NEAR(static_cast<double>(drawn), kSize * kSize / 2.0, kSize);
    EXPECT_EQ(samples->GetUint64Stats(), drawn);
    EXPECT_NE(any->GetUint64Stats(), 0U);
    const auto counted = statistics->GetPipelineStats();
    EXPECT_EQ(counted.IAVertices, 3U);
    EXPECT_EQ(counted.IAPrimitives, 1U);
    EXPECT_EQ(counted.VSInvocations, 3U);
    EXPECT_GE(counted.PSInvocations, drawn);
}

TEST_F(D3D12QueryTest, ReadersAreForTheirTypesOnly) {
    const auto pool = MakePool();
    const QueryPtr time = pool->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP);
    const QueryPtr pipeline = pool->CreateQuery(D3D12_QUERY_TYPE_PIPELINE_STATISTICS);
    const QueryPtr stream = pool->CreateQuery(D3D12_QUERY_TYPE_SO_STATISTICS_STREAM3);
    const struct {
        std::function<void()> read;
        const char* function;
    } kWrong[] = {
        {[&] { pipeline->GetUint64Stats(); }, "GetUint64Stats"},
        {[&] { time->GetPipelineStats(); }, "GetPipelineStats"},
        {[&] { pipeline->GetPipelineStats1(); }, "GetPipelineStats1"},
        {[&] { pipeline->GetSoStats(); }, "GetSoStats"},
        {[&] { stream->GetVideoDecodeStats(); }, "GetVideoDecodeStats"},
    };
    for (const auto& wrong : kWrong) {
        const Thrown thrown = ThrownBy(wrong.read);
        EXPECT_EQ(thrown.sentence, "Invalid query type") << wrong.function;
        EXPECT_EQ(thrown.function, wrong.function);
    }
    EXPECT_EQ(SentenceOf([&] { stream->GetSoStats(); }), "(nothing)");
    EXPECT_EQ(SentenceOf([&] { pool->CreateQuery(static_cast<D3D12_QUERY_TYPE>(9)); }),
              "Invalid query type");

    const MethodPatch<Slot::kResourceMap,
                      HRESULT(ID3D12Resource*, UINT, const D3D12_RANGE*, void**)>
        fail(time->GetResource(), [](auto...) { return E_FAIL; });
    EXPECT_EQ(SentenceOf([&] { time->GetUint64Stats(); }), "Failed to map query buffer");
}

TEST_F(D3D12QueryTest, SlotsAndHeapsComeBack) {
    const auto pool = MakePool();
    std::vector<QueryPtr> queries;
    for (unsigned i = 0; i < 65; ++i) {
        queries.push_back(pool->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION));
        EXPECT_EQ(queries[i]->GetIndex(), i % 64);
        EXPECT_EQ(queries[i]->GetOffset(), 8 * (i % 64));
    }
    EXPECT_NE(queries[64]->GetHeap(), queries[0]->GetHeap()) << "the 65th opens a second heap";
    EXPECT_EQ(pool->CreateQuery(D3D12_QUERY_TYPE_BINARY_OCCLUSION)->GetHeap(),
              queries[64]->GetHeap());
    queries[5].reset();
    EXPECT_EQ(queries[6]->GetHeap()->CreateQuery(D3D12_QUERY_TYPE_OCCLUSION)->GetIndex(), 5U);

    ID3D12QueryHeap* const first = queries[0]->GetHeap()->GetHeap();
    const LifeProbe life(first);
    queries.clear();
    EXPECT_EQ(pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_OCCLUSION, 64)->GetHeap().p, first)
        << "the replaced heap is recycled";
    EXPECT_TRUE(life.IsAlive());
}

TEST_F(D3D12QueryTest, HeapsHaveTheirSizes) {
    const struct {
        D3D12_QUERY_HEAP_TYPE type;
        D3D12_QUERY_TYPE queryType;
        unsigned size;
    } kHeaps[] = {
        {D3D12_QUERY_HEAP_TYPE_OCCLUSION, D3D12_QUERY_TYPE_BINARY_OCCLUSION, 8},
        {D3D12_QUERY_HEAP_TYPE_TIMESTAMP, D3D12_QUERY_TYPE_TIMESTAMP, 8},
        {D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS, D3D12_QUERY_TYPE_PIPELINE_STATISTICS, 88},
        {D3D12_QUERY_HEAP_TYPE_SO_STATISTICS, D3D12_QUERY_TYPE_SO_STATISTICS_STREAM2, 16},
        {D3D12_QUERY_HEAP_TYPE_VIDEO_DECODE_STATISTICS, D3D12_QUERY_TYPE_VIDEO_DECODE_STATISTICS,
         32},
        {D3D12_QUERY_HEAP_TYPE_PIPELINE_STATISTICS1, D3D12_QUERY_TYPE_PIPELINE_STATISTICS1, 112},
    };
    const auto pool = MakePool();
    // Not every system has heaps of every type: those are stood in for by one of another type.
    const MethodPatch<39, HRESULT(ID3D12Device*, const D3D12_QUERY_HEAP_DESC*, REFIID, void**)>
        create(s_canvas->GetDevice()->Get(),
               [](auto original, auto* self, const D3D12_QUERY_HEAP_DESC* desc, REFIID riid,
                  void** out) {
                   D3D12_QUERY_HEAP_DESC known = *desc;
                   known.Type = D3D12_QUERY_HEAP_TYPE_TIMESTAMP;
                   return original(self, &known, riid, out);
               });
    for (const auto& expected : kHeaps) {
        const auto heap = pool->CreateHeap(expected.type, 10);
        EXPECT_EQ(heap->GetCount(), 64U);
        EXPECT_EQ(heap->GetQuerySize(), expected.size);
        EXPECT_EQ(heap->GetOffset(63), 63 * expected.size);
        EXPECT_EQ(heap->CreateQuery(expected.queryType)->GetType(), expected.queryType);
        EXPECT_EQ(SentenceOf([&] { heap->GetOffset(64); }), "Query index out of range");
        const auto otherType = expected.queryType == D3D12_QUERY_TYPE_TIMESTAMP
                                   ? D3D12_QUERY_TYPE_OCCLUSION
                                   : D3D12_QUERY_TYPE_TIMESTAMP;
        EXPECT_EQ(SentenceOf([&] { heap->CreateQuery(otherType); }), "Invalid heap type");
        std::vector<QueryPtr> all;
        for (int i = 0; i < 64; ++i) {
            all.push_back(heap->CreateQuery(expected.queryType));
        }
        EXPECT_EQ(SentenceOf([&] { heap->CreateQuery(expected.queryType); }),
                  "There is no free space in the heap for the query");
    }
    EXPECT_EQ(SentenceOf([&] { pool->CreateHeap(static_cast<D3D12_QUERY_HEAP_TYPE>(5), 1); }),
              "Invalid query heap type");
    // A heap of 128 that died serves a request for 100, with the count that was asked for.
    ID3D12QueryHeap* large = nullptr;
    {
        const auto heap = pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, 65);
        EXPECT_EQ(heap->GetCount(), 128U);
        large = heap->GetHeap();
    }
    const auto again = pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_TIMESTAMP, 100);
    EXPECT_EQ(again->GetHeap().p, large);
    EXPECT_EQ(again->GetCount(), 100U);
}

TEST_F(D3D12QueryTest, FailedCreationsAreTold) {
    const auto pool = MakePool();
    const auto& device = s_canvas->GetDevice();
    {
        const MethodPatch<39, HRESULT(ID3D12Device*, const D3D12_QUERY_HEAP_DESC*, REFIID, void**)>
            fail(device->Get(), [](auto...) { return E_OUTOFMEMORY; });
        EXPECT_EQ(SentenceOf([&] { pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_OCCLUSION, 1); }),
                  "Failed to create query heap");
    }
    const MethodPatch<Slot::kDeviceCreateCommittedResource,
                      HRESULT(ID3D12Device*, const D3D12_HEAP_PROPERTIES*, D3D12_HEAP_FLAGS,
                              const D3D12_RESOURCE_DESC*, D3D12_RESOURCE_STATES,
                              const D3D12_CLEAR_VALUE*, REFIID, void**)>
        fail(device->Get(), [](auto...) { return E_OUTOFMEMORY; });
    const Thrown thrown = ThrownBy([&] { pool->CreateHeap(D3D12_QUERY_HEAP_TYPE_OCCLUSION, 1); });
    EXPECT_EQ(thrown.sentence, "Failed to create 2D texture");
    EXPECT_EQ(thrown.function, "D12QueryHeap");
}

} // namespace

} // namespace Norvex::Test
