// What shaders are bound to: parameters, their tables and the root signature; and pipelines.

#include "Platform/D3D12Abi.h"
#include "tests/Proc/Direct3D12Fixture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;
using ParametersPtr = Ptr<D12ShaderParameters>;

constexpr auto kPixel = D3D12_SHADER_VISIBILITY_PIXEL;   // 5
constexpr auto kVertex = D3D12_SHADER_VISIBILITY_VERTEX; // 1
constexpr auto kClamp = D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
constexpr D3D12_SAMPLER_DESC kSampler = {{}, kClamp, kClamp, kClamp, 0, 0, {}, {}, 0, 0};
constexpr auto kStatic = D3D12_DESCRIPTOR_RANGE_FLAG_DATA_STATIC;
constexpr auto kSrv = D12Descriptor::ShaderResource;
constexpr auto kCbv = D12Descriptor::ConstantBuffer;
constexpr auto kUav = D12Descriptor::UnorderedAccess;

// Type, visibility, and what the argument holds; of tables the ranges: type, count, first register,
// space, flags, offset.
std::string TextOf(const D3D12_ROOT_PARAMETER1& parameter) {
    const auto& [count, ranges] = parameter.DescriptorTable;
    return fmt::format("{} for {}: {}", +parameter.ParameterType, +parameter.ShaderVisibility,
                       parameter.ParameterType == D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE
                           ? WordsOf(ranges, count)
                           : WordsOf(&parameter.Descriptor));
}

class D3D12ShaderParametersTest : public Direct3D12Test {
protected:
    static ResourcePtr Make1024() { return MakeBuffer(1024, {}, kUnordered); }
    static ParametersPtr MakeParameters(int version) {
        return ParametersPtr(new D12ShaderParameters(
            Raw(), nullptr, static_cast<D3D_ROOT_SIGNATURE_VERSION>(version)));
    }
    ViewPtr MakeView(D12Descriptor::DescriptorType type = kSrv) {
        return type == kCbv   ? m_views->CreateConstantBufferView(m_buffer)
               : type == kSrv ? m_views->CreateBufferShaderResourceView(m_buffer, 16)
                              : m_views->CreateBufferUnorderedAccessView(m_buffer, 16, {}, 0, {});
    }
    // Closes the last one: an allocator has one open list at a time. Never submitted.
    const auto& MakeList() {
        if (m_list != nullptr) {
            m_list->Close();
        }
        return m_list = m_allocator->CreateCommandList(nullptr);
    }

    ParametersPtr m_parameters = Device()->CreateShaderParameters();
    Ptr<D12DescriptorCPUHeap> m_views = Device()->CreateShaderViewHeap(64);
    ResourcePtr m_buffer = Make1024();
    ViewPtr m_sampler = Device()->CreateSamplerHeap(1)->CreateSampler(kSampler);
    Ptr<D12CommandAllocator> m_allocator = Queue()->CreateCommandAllocator();
    ListPtr m_list;
};

// Where in its heap, counted in descriptors.
template <class StartOf>
std::string PlaceOf(UINT64 handle, const std::vector<ID3D12DescriptorHeap*>& heaps,
                    const DevicePtr& device, const StartOf& startOf) {
    for (ID3D12DescriptorHeap* heap : heaps) {
        const auto type = Platform::GetDesc(heap).Type;
        const UINT64 place =
            (handle - startOf(heap).ptr) / device->Get()->GetDescriptorHandleIncrementSize(type);
        if (place < 64) { // a great number for what lies before
            return fmt::format("{}[{}]", +type, place);
        }
    }
    return "nowhere";
}

TEST_F(D3D12ShaderParametersTest, RootSignatureHoldsWhatWasAddedInTheVersionAskedFor) {
    constexpr auto kVolatile = D3D12_ROOT_DESCRIPTOR_FLAG_DATA_VOLATILE; // 2
    for (const int version : {1, 2, 3}) {                                // 1.0, 1.1, 1.2
        const ParametersPtr parameters = MakeParameters(version);
        parameters->AddContants(7, 3, 2, kVertex);
        parameters->AddConstantBufferView(4, 5, kVolatile, kPixel);
        parameters->AddShaderResourceView(6, 7, kVolatile, kPixel);
        parameters->AddUnorderedAccessView(8, 9, kVolatile, kPixel);
        parameters->AddSamplerTable(1, kPixel)->SetSampler(0, 6, m_sampler, {});
        parameters->AddViewTable(0, kVertex);
        parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(2));
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT}); // 1
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_DENY_HULL_SHADER_ROOT_ACCESS,         // 4
                              D3D12_ROOT_SIGNATURE_FLAG_DENY_DOMAIN_SHADER_ROOT_ACCESS});     // 8
        CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
        const MethodPatch<&ID3D12Device::CreateRootSignature> patch(
            Raw(), [&](auto original, auto* self, UINT node, auto* data, auto... rest) {
                EXPECT_EQ(D3D12CreateVersionedRootSignatureDeserializer(
                              data, std::get<0>(std::tuple(rest...)), IID_PPV_ARGS(&reader)),
                          S_OK);
                return original(self, node, data, rest...);
            });
        EXPECT_TRUE(parameters->SerializeRootSignature());
        ASSERT_NE(reader, nullptr);
        const auto& desc = *reader->GetUnconvertedRootSignatureDesc();
        ASSERT_EQ(desc.Version, std::min(version, 2));
        EXPECT_EQ(desc.Desc_1_0.NumParameters, 6u);
        if (version > 1) {
            std::vector<std::string> texts;
            std::transform(desc.Desc_1_1.pParameters, desc.Desc_1_1.pParameters + 6,
                           std::back_inserter(texts), TextOf);
            EXPECT_THAT(texts,
                        ElementsAre("1 for 1: 3 2 7", "2 for 5: 4 5 2", "3 for 5: 6 7 2",
                                    "4 for 5: 8 9 2", "0 for 5: 3 1 6 0 0 -1", "0 for 1: none"));
            EXPECT_EQ(desc.Desc_1_1.NumStaticSamplers, 1u);
            EXPECT_EQ(desc.Desc_1_1.Flags, 1 | 4 | 8);
        }
    }
}

TEST_F(D3D12ShaderParametersTest, TableMergesNeighbours) {
    struct Entry {
        D12Descriptor::DescriptorType type;
        unsigned shaderRegister;
        unsigned space = 0;
        D3D12_DESCRIPTOR_RANGE_FLAGS flags = {};
    };
    const auto check = [&](const std::string& ranges, std::initializer_list<Entry> entries) {
        const auto table =
            m_parameters->AddViewTable(static_cast<unsigned>(entries.size()), kPixel);
        unsigned index = 0;
        for (const auto& [type, shaderRegister, space, flags] : entries) {
            table->SetView(index++, shaderRegister, MakeView(type), space, flags);
        }
        EXPECT_TRUE(table->NeedSerialize());
        EXPECT_EQ(TextOf(table->Serialize()), "0 for 5: " + ranges);
        EXPECT_FALSE(table->NeedSerialize());
    };
    check("0 2 0 0 0 -1 0 2 2 0 0 -1", {{kSrv, 0}, {kSrv, 1}, {kSrv, 2}, {kSrv, 3}});
    check("0 2 0 0 0 -1 0 1 2 0 0 -1", {{kSrv, 0}, {kSrv, 1}, {kSrv, 2}});
    check("0 1 0 0 0 -1 0 1 2 0 0 -1", {{kSrv, 0}, {kSrv, 2}});
    check("0 1 1 0 0 -1 0 1 0 0 0 -1", {{kSrv, 1}, {kSrv, 0}});
    check("0 1 0 0 0 -1 2 1 1 0 0 -1 1 1 2 0 0 -1", {{kSrv, 0}, {kCbv, 1}, {kUav, 2}});
    check("0 1 0 0 0 -1 0 1 1 0 8 -1", {{kSrv, 0}, {kSrv, 1, 0, kStatic}});
    check("0 2 0 0 0 -1", {{kSrv, 0, 0}, {kSrv, 1, 6}}); // spaces do not matter
}

// Copies share the tables, and each has its own root signature to keep up to date.
TEST_F(D3D12ShaderParametersTest, EachCopySerializesWhatChanged) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const ParametersPtr copy(new D12ShaderParameters(*m_parameters));
    const auto check = [&](const char* change, bool serializes, bool copySerializes,
                           const std::function<void()>& make) {
        SCOPED_TRACE(change);
        const CComPtr<ID3D12RootSignature> before = m_parameters->GetRootSignature();
        make();
        if (serializes) { // a failure is tried again
            ExpectFailure12By<&ID3D12Device::CreateRootSignature>(
                Raw(), [&] { m_parameters->SerializeRootSignature(); },
                "Failed to create root signature", "SerializeRootSignature");
            EXPECT_EQ(m_parameters->GetRootSignature(), before);
        }
        EXPECT_EQ(m_parameters->SerializeRootSignature(), serializes);
        EXPECT_EQ(m_parameters->GetRootSignature() != before, serializes);
        EXPECT_EQ(copy->SerializeRootSignature(), copySerializes);
        EXPECT_FALSE(m_parameters->SerializeRootSignature() || copy->SerializeRootSignature());
    };
    check("first", true, true, [&] { table->SetView(0, 0, MakeView(), 0, {}); });
    check("same view", false, false, [&] { table->SetView(0, 0, MakeView(), 0, {}); });
    check("register", true, true, [&] { table->SetView(0, 1, MakeView(), 0, {}); });
    check("type", true, true, [&] { table->SetView(0, 1, MakeView(kCbv), 0, {}); });
    check("space", true, true, [&] { table->SetView(0, 1, MakeView(kCbv), 3, {}); });
    check("flags", true, true, [&] { table->SetView(0, 1, MakeView(kCbv), 3, kStatic); });
    check("sampler", true, false,
          [&] { m_parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(0)); });
    check("no flags", false, true, [&] { copy->SetFlags({}); });
    check("constants", true, false, [&] { m_parameters->AddContants(1, 9, 0, kPixel); });
}

TEST_F(D3D12ShaderParametersTest, RefusesWhatDoesNotFit) {
    const auto views = m_parameters->AddViewTable(2, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(2, kPixel);
    const auto target = s_canvas->MakeTarget(8, 8, kColor);
    for (const ViewPtr& view : {m_sampler, target, ViewPtr()}) {
        NORVEX_REFUSED("Invalid descriptor type", views->SetView(0, 0, view, 0, {}));
    }
    for (const ViewPtr& view : {MakeView(), ViewPtr()}) {
        NORVEX_REFUSED("Invalid descriptor type", samplers->SetSampler(0, 0, view, {}));
    }
    ExpectFailure12([&] { views->SetView(2, 0, MakeView(), 0, {}); }, "Table index out of range",
                    "SetDescriptor");
    ExpectFailure12([&] { samplers->SetSampler(2, 0, m_sampler, {}); }, "Table index out of range",
                    "SetDescriptor");
    ExpectFailure12([&] { m_parameters->SerializeRootSignature(); }, "Table not fully initialized",
                    "Serialize");
    ExpectFailure12([&] { MakeParameters(0)->SerializeRootSignature(); },
                    "Failed to serialize root signature: ", "SerializeRootSignature", E_INVALIDARG);
    NORVEX_REFUSED("Invalid command list", m_parameters->SetToCommandList(nullptr));
    NORVEX_REFUSED("Root signature not serialized", m_parameters->SetToCommandList(MakeList()));
}

// 64 views, so that the empty tables begin past the heap's end. Without tables no heaps are set.
TEST_F(D3D12ShaderParametersTest, BindsEverythingInOrder) {
    const auto constants = m_parameters->AddContants(2, 0, 0, kPixel);
    constants->SetData(std::vector<unsigned char>{0xFF});
    m_parameters->SerializeRootSignature();
    std::vector<std::string> calls; // in order, instead of being done
    std::vector<SIZE_T> sources;
    std::vector<ID3D12DescriptorHeap*> heaps; // set before anything points into them
    const auto noter = [&](const char* form) {
        return [&calls, form](auto, auto*, UINT index, auto argument) {
            calls.push_back(fmt::format(fmt::runtime(form), index, argument));
        };
    };
    using List = ID3D12GraphicsCommandList;
    List* const list = MakeList()->GetGraphics();
    const MethodPatch<&List::SetGraphicsRootSignature> onSignature(
        list, [&](auto...) { calls.emplace_back("signature"); });
    const MethodPatch<&List::SetDescriptorHeaps> onHeaps(list,
                                                         [&](auto, auto*, UINT count, auto* set) {
                                                             calls.emplace_back("heaps");
                                                             heaps.assign(set, set + count);
                                                         });
    const MethodPatch<&List::SetGraphicsRoot32BitConstants> onConstants(
        list, [&](auto, auto*, UINT index, UINT count, const void* data, UINT offset) {
            const auto* values = static_cast<const std::uint32_t*>(data);
            calls.push_back(fmt::format("{}: {} from {}", index,
                                        fmt::join(values, values + count, " "), offset));
        });
    const MethodPatch<&List::SetGraphicsRootDescriptorTable> onTable(list, [&](auto, auto*,
                                                                               UINT index,
                                                                               auto handle) {
        calls.push_back(fmt::format("{}: table {}", index,
                                    PlaceOf(handle.ptr, heaps, Device(), &Platform::GetGPUStart)));
    });
    const MethodPatch<&List::SetGraphicsRootConstantBufferView> onCbv(list, noter("{}: CBV {}"));
    const MethodPatch<&List::SetGraphicsRootShaderResourceView> onSrv(list, noter("{}: SRV {}"));
    const MethodPatch<&List::SetGraphicsRootUnorderedAccessView> onUav(list, noter("{}: UAV {}"));
    const MethodPatch<&ID3D12Device::CopyDescriptorsSimple> onCopy(
        Raw(), [&](auto, auto*, UINT, auto to, auto from, auto) {
            calls.push_back("copy " + PlaceOf(to.ptr, heaps, Device(), &Platform::GetCPUStart));
            sources.push_back(from.ptr);
        });
    m_parameters->SetToCommandList(m_list);
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre("signature", "0: 255 from 0"));

    const auto first = m_parameters->AddViewTable(2, kPixel);
    const auto cbv = m_parameters->AddConstantBufferView(1, 0, {}, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(1, kPixel);
    const auto srv = m_parameters->AddShaderResourceView(99, 0, {}, kPixel);
    const auto second = m_parameters->AddViewTable(62, kPixel);
    const auto uav = m_parameters->AddUnorderedAccessView(9, 0, {}, kPixel);
    m_parameters->AddViewTable(0, kVertex);
    m_parameters->AddSamplerTable(0, kVertex);
    const std::uint8_t bytes[] = {1, 2, 3, 4, 5};
    constants->SetData(bytes, sizeof(bytes));
    const ViewPtr views[] = {MakeView(), MakeView(), MakeView()};
    first->SetView(0, 0, views[0], 0, {});
    first->SetView(1, 1, views[1], 0, {});
    for (unsigned i = 0; i < 62; ++i) {
        second->SetView(i, 2 + i, views[2], 0, {});
    }
    samplers->SetSampler(0, 0, m_sampler, {});
    const ResourcePtr buffers[] = {m_buffer, Make1024(), Make1024()};
    cbv->SetBuffer(buffers[0]);
    srv->SetBuffer(buffers[1]);
    m_parameters->SerializeRootSignature();
    NORVEX_REFUSED("Inline descriptor has no buffer", m_parameters->SetToCommandList(m_list));
    EXPECT_THAT(calls, testing::IsEmpty());
    uav->SetBuffer(buffers[2]);
    m_parameters->SetToCommandList(m_list);
    ASSERT_EQ(calls.size(), 74u);
    calls.erase(calls.begin() + 11, calls.begin() + 71);
    const auto at = [&](const char* kind, int i) {
        return fmt::format("{} {}", kind, buffers[i]->GetGPUVirtualAddress());
    };
    EXPECT_THAT(calls, ElementsAre("signature", "heaps", "0: 67305985 5 from 0", "copy 0[0]",
                                   "copy 0[1]", "1: table 0[0]", at("2: CBV", 0), "copy 1[0]",
                                   "3: table 1[0]", at("4: SRV", 1), "copy 0[2]", "copy 0[63]",
                                   "5: table 0[2]", at("6: UAV", 2)));
    sources.resize(4);
    EXPECT_THAT(sources, ElementsAre(views[0]->GetCPUHandle().ptr, views[1]->GetCPUHandle().ptr,
                                     m_sampler->GetCPUHandle().ptr, views[2]->GetCPUHandle().ptr));
}

TEST_F(D3D12ShaderParametersTest, BindConsumesTablesAndBuffers) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const auto cbv = m_parameters->AddConstantBufferView(0, 0, {}, kPixel);
    ResourcePtr buffers[] = {Make1024(), Make1024()};
    const LifeProbe probes[] = {LifeProbe(buffers[0]), LifeProbe(buffers[1])};
    const auto setTable = [&](const ResourcePtr& buffer) {
        table->SetView(0, 0, m_views->CreateBufferShaderResourceView(buffer, 16), 0, {});
    };
    setTable(buffers[0]);
    cbv->SetBuffer(buffers[1]);
    m_parameters->SerializeRootSignature();
    m_parameters->SetToCommandList(MakeList());
    std::ranges::fill(buffers, nullptr);
    EXPECT_TRUE(probes[0].IsAlive() && probes[1].IsAlive()) << "the list keeps what it uses";

    cbv->SetBuffer(m_buffer);
    NORVEX_REFUSED("Table not fully initialized", m_parameters->SetToCommandList(MakeList()));
    cbv->SetBuffer(m_buffer);
    setTable(m_buffer);
    EXPECT_FALSE(m_parameters->SerializeRootSignature());
    m_parameters->SetToCommandList(MakeList());
    m_list.reset();
    m_allocator.reset();
    EXPECT_FALSE(probes[0].IsAlive() || probes[1].IsAlive());
}

std::string TextOf(const D3D12_RENDER_TARGET_BLEND_DESC& t) {
    return fmt::format("{} {} {} {} {} {} {} {} {} {}", +t.BlendEnable, +t.LogicOpEnable,
                       +t.SrcBlend, +t.DestBlend, +t.BlendOp, +t.SrcBlendAlpha, +t.DestBlendAlpha,
                       +t.BlendOpAlpha, +t.LogicOp, +t.RenderTargetWriteMask);
}

// What draws do not show.
TEST(D3D12GraphicsPipelineStateTest, ConvertsUpToEightTargets) {
    const D12RenderTargetBlend over = {D3D12_BLEND_SRC_ALPHA,
                                       D3D12_BLEND_INV_SRC_ALPHA,
                                       D3D12_BLEND_OP_SUBTRACT,
                                       D3D12_BLEND_DEST_ALPHA,
                                       D3D12_BLEND_ONE,
                                       D3D12_BLEND_OP_MAX,
                                       5};
    D12GraphicsPipelineDesc source;
    source.stripCutValue = D3D12_INDEX_BUFFER_STRIP_CUT_VALUE_0xFFFF;
    source.sampleDesc = {4, 1};
    constexpr auto kUnblended = "0 0 2 1 1 2 1 1 4 15";
    for (std::size_t count = 0; count <= 8; ++count) {
        source.renderTargetFormats.assign(count, DXGI_FORMAT_R16_FLOAT);
        source.blend.targets.assign(count, over);
        source.blend.alphaToCoverageEnable = count == 2;
        const auto desc = source.ToDesc();
        EXPECT_EQ(desc.NumRenderTargets, count);
        EXPECT_EQ(std::ranges::count(desc.RTVFormats, DXGI_FORMAT_R16_FLOAT), count);
        EXPECT_EQ(desc.IBStripCutValue, source.stripCutValue);
        EXPECT_EQ(desc.SampleDesc.Quality, 1u);
        EXPECT_EQ(desc.BlendState.AlphaToCoverageEnable, count == 2);
        EXPECT_EQ(desc.BlendState.IndependentBlendEnable, count > 1) << count;
        for (std::size_t i = 0; i < 8; ++i) {
            EXPECT_EQ(TextOf(desc.BlendState.RenderTarget[i]),
                      i < count ? "1 0 5 6 2 7 2 5 4 5" : kUnblended);
        }
    }
    source.blend.targets.push_back(over);
    NORVEX_REFUSED("The number of blend states exceeds the allowed limit", source.blend.ToDesc());
    source.blend.logicOpEnable = true;
    source.blend.logicOp = D3D12_LOGIC_OP_XOR;
    source.blend.logicOpWriteMask = 3;
    NORVEX_REFUSED("It's not valid for logic operation and blend to both be enabled",
                   source.blend.ToDesc());
    source.blend.targets.clear();
    EXPECT_EQ(TextOf(source.ToDesc().BlendState.RenderTarget[0]), "0 1 2 1 1 2 1 1 10 3");
    EXPECT_EQ(TextOf(source.ToDesc().BlendState.RenderTarget[1]), kUnblended);
    source.renderTargetFormats.resize(9);
    NORVEX_REFUSED("The number of render targets exceeds the allowed limit", source.ToDesc());
}

} // namespace
} // namespace Norvex::DX
