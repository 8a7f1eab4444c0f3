#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12Command.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::MethodPatch;
using Norvex::Test::SentenceOf;
using testing::ElementsAre;
namespace Slot = Norvex::Test::Slot;

using DescriptorPtr = boost::intrusive_ptr<D12Descriptor>;
using ListPtr = boost::intrusive_ptr<D12GraphicsCommandList>;
using CreateRootSignature =
    MethodPatch<Slot::kDeviceCreateRootSignature,
                HRESULT(ID3D12Device*, UINT, const void*, SIZE_T, REFIID, void**)>;

constexpr auto kPixel = D3D12_SHADER_VISIBILITY_PIXEL;
constexpr auto kVertex = D3D12_SHADER_VISIBILITY_VERTEX;
constexpr auto kNoFlags = D3D12_DESCRIPTOR_RANGE_FLAG_NONE;
constexpr auto kStatic = D3D12_DESCRIPTOR_RANGE_FLAG_DATA_STATIC;
constexpr D3D12_SAMPLER_DESC kSampler = {.Filter = D3D12_FILTER_MIN_MAG_MIP_POINT,
                                         .AddressU = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .AddressV = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .AddressW = D3D12_TEXTURE_ADDRESS_MODE_CLAMP,
                                         .MipLODBias = 0,
                                         .MaxAnisotropy = 1,
                                         .ComparisonFunc = D3D12_COMPARISON_FUNC_NEVER,
                                         .BorderColor = {},
                                         .MinLOD = 0,
                                         .MaxLOD = 0};
constexpr auto kTableIncomplete = "Table not fully initialized";

class D3D12ShaderParametersTest : public Norvex::Test::DeviceTest {
protected:
    D3D12ShaderParametersTest()
        : m_parameters(s_device->CreateShaderParameters()),
          m_views(s_device->CreateShaderViewHeap(64)),
          m_samplers(s_device->CreateSamplerHeap(64)),
          m_buffer(MakeBuffer()) {
        m_queue.reset(new D12CommandQueue(s_device, {}));
        m_allocator = m_queue->CreateCommandAllocator();
    }

    static CComPtr<ID3D12Resource> MakeBuffer() {
        D12BufferDesc desc;
        desc.size = 1024;
        desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;
        return s_device->CreateBuffer(desc);
    }

    DescriptorPtr MakeView(D12Descriptor::DescriptorType type) {
        switch (type) {
        case D12Descriptor::ConstantBuffer:
            return m_views->CreateConstantBufferView(m_buffer);
        case D12Descriptor::ShaderResource:
            return m_views->CreateBufferShaderResourceView(m_buffer, 16);
        case D12Descriptor::UnorderedAccess:
            return m_views->CreateBufferUnorderedAccessView(m_buffer, 16,
                                                            D3D12_BUFFER_UAV_FLAG_NONE, 0, nullptr);
        default:
            return m_samplers->CreateSampler(kSampler);
        }
    }

    // Closes the last one: an allocator has one open list at a time. Kept by the allocator as well;
    // never submitted.
    ListPtr MakeList() {
        if (m_list != nullptr) {
            m_list->Close();
        }
        return m_list = m_allocator->CreateCommandList(nullptr);
    }

    boost::intrusive_ptr<D12ShaderParameters> m_parameters;
    boost::intrusive_ptr<D12DescriptorCPUHeap> m_views;
    boost::intrusive_ptr<D12DescriptorCPUHeap> m_samplers;
    CComPtr<ID3D12Resource> m_buffer;
    boost::intrusive_ptr<D12CommandQueue> m_queue;
    boost::intrusive_ptr<D12CommandAllocator> m_allocator;
    ListPtr m_list;
};

// What is recorded on lists of the library's class, in order.
class BindRecorder {
    using List = ID3D12GraphicsCommandList;
    using SetAddress = void(List*, UINT, D3D12_GPU_VIRTUAL_ADDRESS);

    void Note(const std::string& call) { calls.push_back(call); }

    auto Address(const char* kind) {
        return [this, kind](auto original, auto self, auto index, auto address) {
            Note(fmt::format("{}: {}", index, kind));
            addresses.push_back(address);
            original(self, index, address);
        };
    }

public:
    explicit BindRecorder(const ListPtr& list)
        : m_signature(list->GetGraphics(),
                      [this](auto original, auto self, auto signature) {
                          Note("signature");
                          original(self, signature);
                      }),
          m_heaps(list->GetGraphics(),
                  [this](auto original, auto self, auto count, auto heaps) {
                      Note(fmt::format("heaps {}", count));
                      original(self, count, heaps);
                  }),
          m_constants(
              list->GetGraphics(),
              [this](auto original, auto self, auto index, auto count, auto data, auto offset) {
                  Note(fmt::format("{}: {} constants from {}", index, count, offset));
                  constants.resize(count);
                  std::memcpy(constants.data(), data, count * sizeof(std::uint32_t));
                  original(self, index, count, data, offset);
              }),
          m_table(list->GetGraphics(),
                  [this](auto original, auto self, auto index, auto handle) {
                      Note(fmt::format("{}: table", index));
                      tables.push_back(handle.ptr);
                      original(self, index, handle);
                  }),
          m_cbv(list->GetGraphics(), Address("CBV")),
          m_srv(list->GetGraphics(), Address("SRV")),
          m_uav(list->GetGraphics(), Address("UAV")) {}

    std::vector<std::string> calls;
    std::vector<std::uint32_t> constants;
    std::vector<UINT64> tables;
    std::vector<D3D12_GPU_VIRTUAL_ADDRESS> addresses;

private:
    MethodPatch<Slot::kListSetGraphicsRootSignature, void(List*, ID3D12RootSignature*)> m_signature;
    MethodPatch<Slot::kListSetDescriptorHeaps, void(List*, UINT, ID3D12DescriptorHeap* const*)>
        m_heaps;
    MethodPatch<Slot::kListSetGraphicsRoot32BitConstants,
                void(List*, UINT, UINT, const void*, UINT)>
        m_constants;
    MethodPatch<Slot::kListSetGraphicsRootDescriptorTable,
                void(List*, UINT, D3D12_GPU_DESCRIPTOR_HANDLE)>
        m_table;
    MethodPatch<Slot::kListSetGraphicsRootConstantBufferView, SetAddress> m_cbv;
    MethodPatch<Slot::kListSetGraphicsRootShaderResourceView, SetAddress> m_srv;
    MethodPatch<Slot::kListSetGraphicsRootUnorderedAccessView, SetAddress> m_uav;
};

TEST_F(D3D12ShaderParametersTest, ParametersDescribeThemselves) {
    constexpr auto kVolatile = D3D12_ROOT_DESCRIPTOR_FLAG_DATA_VOLATILE;
    const D3D12_ROOT_PARAMETER1 constants =
        m_parameters->AddContants(7, 3, 2, kVertex)->Serialize();
    EXPECT_EQ(constants.ParameterType, D3D12_ROOT_PARAMETER_TYPE_32BIT_CONSTANTS);
    EXPECT_EQ(constants.ShaderVisibility, kVertex);
    EXPECT_EQ(constants.Constants.ShaderRegister, 3u);
    EXPECT_EQ(constants.Constants.RegisterSpace, 2u);
    EXPECT_EQ(constants.Constants.Num32BitValues, 7u);

    const std::pair<D3D12_ROOT_PARAMETER_TYPE, D3D12_ROOT_PARAMETER1> inlined[] = {
        {D3D12_ROOT_PARAMETER_TYPE_CBV,
         m_parameters->AddConstantBufferView(4, 5, kVolatile, kPixel)->Serialize()},
        {D3D12_ROOT_PARAMETER_TYPE_SRV,
         m_parameters->AddShaderResourceView(4, 5, kVolatile, kPixel)->Serialize()},
        {D3D12_ROOT_PARAMETER_TYPE_UAV,
         m_parameters->AddUnorderedAccessView(4, 5, kVolatile, kPixel)->Serialize()},
    };
    for (const auto& [type, parameter] : inlined) {
        EXPECT_EQ(parameter.ParameterType, type);
        EXPECT_EQ(parameter.ShaderVisibility, kPixel);
        EXPECT_EQ(parameter.Descriptor.ShaderRegister, 4u);
        EXPECT_EQ(parameter.Descriptor.RegisterSpace, 5u);
        EXPECT_EQ(parameter.Descriptor.Flags, kVolatile);
    }
}

TEST_F(D3D12ShaderParametersTest, TableMergesNeighbours) {
    struct Entry {
        D12Descriptor::DescriptorType type;
        unsigned shaderRegister;
        unsigned space = 0;
        D3D12_DESCRIPTOR_RANGE_FLAGS flags = kNoFlags;
    };
    constexpr auto kSrv = D12Descriptor::ShaderResource;
    constexpr auto kCbv = D12Descriptor::ConstantBuffer;
    constexpr auto kUav = D12Descriptor::UnorderedAccess;
    const struct {
        std::vector<Entry> entries;
        std::vector<std::string> ranges; // type, first register, count
    } cases[] = {
        {{{kSrv, 0}, {kSrv, 1}, {kSrv, 2}, {kSrv, 3}}, {"0 0+2", "0 2+2"}},
        {{{kSrv, 0}, {kSrv, 1}, {kSrv, 2}}, {"0 0+2", "0 2+1"}},
        {{{kSrv, 0}, {kSrv, 2}}, {"0 0+1", "0 2+1"}},
        {{{kSrv, 1}, {kSrv, 0}}, {"0 1+1", "0 0+1"}},
        {{{kSrv, 0}, {kCbv, 1}, {kUav, 2}}, {"0 0+1", "2 1+1", "1 2+1"}},
        {{{kSrv, 0}, {kSrv, 1, 0, kStatic}}, {"0 0+1", "0 1+1"}},
        {{{kSrv, 0, 0}, {kSrv, 1, 6}}, {"0 0+2"}}, // spaces do not matter
    };
    for (const auto& c : cases) {
        const auto table = m_parameters->AddViewTable(static_cast<unsigned>(c.entries.size()),
                                                      D3D12_SHADER_VISIBILITY_ALL);
        for (unsigned i = 0; i < c.entries.size(); ++i) {
            const Entry& entry = c.entries[i];
            table->SetView(i, entry.shaderRegister, MakeView(entry.type), entry.space, entry.flags);
        }
        const D3D12_ROOT_PARAMETER1 parameter = table->Serialize();
        EXPECT_EQ(parameter.ParameterType, D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE);
        EXPECT_EQ(parameter.ShaderVisibility, D3D12_SHADER_VISIBILITY_ALL);
        std::vector<std::string> ranges;
        for (unsigned i = 0; i < parameter.DescriptorTable.NumDescriptorRanges; ++i) {
            const auto& range = parameter.DescriptorTable.pDescriptorRanges[i];
            ranges.push_back(fmt::format("{} {}+{}", static_cast<int>(range.RangeType),
                                         range.BaseShaderRegister, range.NumDescriptors));
            EXPECT_EQ(range.OffsetInDescriptorsFromTableStart,
                      D3D12_DESCRIPTOR_RANGE_OFFSET_APPEND);
        }
        EXPECT_EQ(ranges, c.ranges);
    }
}

TEST_F(D3D12ShaderParametersTest, SerializesOnlyWhatChanged) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const auto set = [&](unsigned shaderRegister, D12Descriptor::DescriptorType type,
                         unsigned space, D3D12_DESCRIPTOR_RANGE_FLAGS flags) {
        table->SetView(0, shaderRegister, MakeView(type), space, flags);
    };
    constexpr auto kSrv = D12Descriptor::ShaderResource;
    const struct {
        const char* change;
        std::function<void()> make;
        bool serializes;
    } steps[] = {
        {"first", [&] { set(0, kSrv, 0, kNoFlags); }, true},
        {"nothing", [] {}, false},
        {"same view", [&] { set(0, kSrv, 0, kNoFlags); }, false},
        {"register", [&] { set(1, kSrv, 0, kNoFlags); }, true},
        {"type", [&] { set(1, D12Descriptor::ConstantBuffer, 0, kNoFlags); }, true},
        {"space", [&] { set(1, D12Descriptor::ConstantBuffer, 3, kNoFlags); }, true},
        {"flags", [&] { set(1, D12Descriptor::ConstantBuffer, 3, kStatic); }, true},
        {"nothing again", [] {}, false},
        {"static sampler", [&] { m_parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(0)); }, true},
        {"no flags", [&] { m_parameters->SetFlags({}); }, true},
        {"constants", [&] { m_parameters->AddContants(1, 9, 0, kPixel); }, true},
        {"nothing at last", [] {}, false},
    };
    for (const auto& step : steps) {
        const CComPtr<ID3D12RootSignature> before = m_parameters->GetRootSignature();
        step.make();
        EXPECT_EQ(m_parameters->SerializeRootSignature(), step.serializes) << step.change;
        EXPECT_EQ(m_parameters->GetRootSignature() != before, step.serializes) << step.change;
    }
}

TEST_F(D3D12ShaderParametersTest, RootSignatureHoldsWhatWasAdded) {
    m_parameters->AddConstantBufferView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kVertex);
    const auto samplers = m_parameters->AddSamplerTable(1, kPixel);
    samplers->SetSampler(0, 6, MakeView(D12Descriptor::Sampler), kNoFlags);
    m_parameters->AddContants(4, 1, 0, kPixel);
    m_parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(2));
    m_parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
    m_parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_DENY_HULL_SHADER_ROOT_ACCESS,
                            D3D12_ROOT_SIGNATURE_FLAG_DENY_DOMAIN_SHADER_ROOT_ACCESS});
    CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
    const CreateRootSignature patch(
        Raw(), [&](auto original, auto self, auto node, auto data, auto size, auto... out) {
            EXPECT_TRUE(SUCCEEDED(
                D3D12CreateVersionedRootSignatureDeserializer(data, size, IID_PPV_ARGS(&reader))));
            return original(self, node, data, size, out...);
        });
    EXPECT_TRUE(m_parameters->SerializeRootSignature());
    ASSERT_NE(reader, nullptr);
    const auto* desc = reader->GetUnconvertedRootSignatureDesc();
    ASSERT_EQ(desc->Version, D3D_ROOT_SIGNATURE_VERSION_1_1);
    ASSERT_EQ(desc->Desc_1_1.NumParameters, 3u);
    const auto* parameters = desc->Desc_1_1.pParameters;
    EXPECT_EQ(parameters[0].ParameterType, D3D12_ROOT_PARAMETER_TYPE_CBV);
    EXPECT_EQ(parameters[2].ParameterType, D3D12_ROOT_PARAMETER_TYPE_32BIT_CONSTANTS);
    ASSERT_EQ(parameters[1].ParameterType, D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE);
    ASSERT_EQ(parameters[1].DescriptorTable.NumDescriptorRanges, 1u);
    const auto& range = parameters[1].DescriptorTable.pDescriptorRanges[0];
    EXPECT_EQ(range.RangeType, D3D12_DESCRIPTOR_RANGE_TYPE_SAMPLER);
    EXPECT_EQ(range.BaseShaderRegister, 6u);
    EXPECT_EQ(range.RegisterSpace, 0u);
    EXPECT_EQ(desc->Desc_1_1.NumStaticSamplers, 1u);
    EXPECT_EQ(desc->Desc_1_1.Flags, D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT |
                                        D3D12_ROOT_SIGNATURE_FLAG_DENY_HULL_SHADER_ROOT_ACCESS |
                                        D3D12_ROOT_SIGNATURE_FLAG_DENY_DOMAIN_SHADER_ROOT_ACCESS);
}

TEST_F(D3D12ShaderParametersTest, SerializesAsTheDeviceAllows) {
    for (const auto version : {D3D_ROOT_SIGNATURE_VERSION_1_0, D3D_ROOT_SIGNATURE_VERSION_1_1}) {
        boost::intrusive_ptr<D12ShaderParameters> parameters(
            new D12ShaderParameters(RawPtr(), nullptr, version));
        const auto table = parameters->AddViewTable(1, kPixel);
        table->SetView(0, 0, MakeView(D12Descriptor::ShaderResource), 0, kStatic);
        EXPECT_TRUE(parameters->SerializeRootSignature());
        EXPECT_NE(parameters->GetRootSignature(), nullptr);
    }
    boost::intrusive_ptr<D12ShaderParameters> unknown(
        new D12ShaderParameters(RawPtr(), nullptr, static_cast<D3D_ROOT_SIGNATURE_VERSION>(0)));
    const auto thrown = Norvex::Test::ThrownBy([&] { unknown->SerializeRootSignature(); });
    EXPECT_EQ(thrown.sentence, "Failed to serialize root signature: ");
    EXPECT_EQ(thrown.result, E_INVALIDARG);
}

TEST_F(D3D12ShaderParametersTest, FailedCreationIsTriedAgain) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    table->SetView(0, 0, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    m_parameters->SerializeRootSignature();
    const CComPtr<ID3D12RootSignature> before = m_parameters->GetRootSignature();
    table->SetView(0, 5, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    {
        const CreateRootSignature patch(Raw(), [](auto...) { return E_OUTOFMEMORY; });
        const auto thrown = Norvex::Test::ThrownBy([&] { m_parameters->SerializeRootSignature(); });
        EXPECT_EQ(thrown.sentence, "Failed to create root signature");
        EXPECT_EQ(thrown.result, E_OUTOFMEMORY);
        EXPECT_EQ(m_parameters->GetRootSignature(), before);
    }
    EXPECT_TRUE(m_parameters->SerializeRootSignature());
    EXPECT_NE(m_parameters->GetRootSignature(), before);
}

TEST_F(D3D12ShaderParametersTest, TablesTakeTheirOwnKind) {
    const auto views = m_parameters->AddViewTable(2, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(2, kPixel);
    const DescriptorPtr view = MakeView(D12Descriptor::ShaderResource);
    const DescriptorPtr sampler = MakeView(D12Descriptor::Sampler);
    D12Texture2DDesc desc;
    desc.width = 8;
    desc.height = 8;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    const auto target = s_device->CreateRenderTargetView(s_device->CreateTexture2D(desc));
    const auto setView = [&](unsigned index, const DescriptorPtr& descriptor) {
        return SentenceOf([&] { views->SetView(index, 0, descriptor, 0, kNoFlags); });
    };
    const auto setSampler = [&](unsigned index, const DescriptorPtr& descriptor) {
        return SentenceOf([&] { samplers->SetSampler(index, 0, descriptor, kNoFlags); });
    };
    EXPECT_EQ(setView(0, sampler), "Invalid descriptor type");
    EXPECT_EQ(setView(0, target), "Invalid descriptor type");
    EXPECT_EQ(setSampler(0, view), "Invalid descriptor type");
    EXPECT_EQ(setView(2, view), "Table index out of range");
    EXPECT_EQ(setSampler(2, sampler), "Table index out of range");
    EXPECT_EQ(setView(1, view), "(nothing)");
    EXPECT_EQ(SentenceOf([&] { m_parameters->SerializeRootSignature(); }), kTableIncomplete);
}

TEST_F(D3D12ShaderParametersTest, BindsEverythingInOrder) {
    const auto constants = m_parameters->AddContants(2, 0, 0, kPixel);
    const auto firstTable = m_parameters->AddViewTable(2, kPixel);
    const auto cbv =
        m_parameters->AddConstantBufferView(1, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(1, kPixel);
    const auto srv =
        m_parameters->AddShaderResourceView(9, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kPixel);
    const auto secondTable = m_parameters->AddViewTable(1, kPixel);
    const auto uav =
        m_parameters->AddUnorderedAccessView(9, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kPixel);
    const std::uint8_t bytes[] = {1, 2, 3, 4, 5};
    constants->SetData(bytes, sizeof(bytes));
    firstTable->SetView(0, 0, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    firstTable->SetView(1, 1, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    secondTable->SetView(0, 2, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    samplers->SetSampler(0, 0, MakeView(D12Descriptor::Sampler), kNoFlags);
    const CComPtr<ID3D12Resource> others[] = {MakeBuffer(), MakeBuffer()};
    cbv->SetBuffer(m_buffer);
    srv->SetBuffer(others[0]);
    uav->SetBuffer(others[1]);
    m_parameters->SerializeRootSignature();

    const ListPtr list = MakeList();
    const BindRecorder recorder(list);
    m_parameters->SetToCommandList(list);
    EXPECT_THAT(recorder.calls,
                ElementsAre("signature", "heaps 2", "0: 2 constants from 0", "1: table", "2: CBV",
                            "3: table", "4: SRV", "5: table", "6: UAV"));
    EXPECT_THAT(recorder.constants, ElementsAre(0x04030201u, 0x05u));
    EXPECT_THAT(recorder.addresses,
                ElementsAre(m_buffer->GetGPUVirtualAddress(), others[0]->GetGPUVirtualAddress(),
                            others[1]->GetGPUVirtualAddress()));
    ASSERT_EQ(recorder.tables.size(), 3u);
    EXPECT_EQ(recorder.tables[2] - recorder.tables[0],
              2u * Raw()->GetDescriptorHandleIncrementSize(D3D12_DESCRIPTOR_HEAP_TYPE_CBV_SRV_UAV))
        << "the second table starts where the first ends";
}

TEST_F(D3D12ShaderParametersTest, BindConsumesTablesAndBuffers) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const auto cbv =
        m_parameters->AddConstantBufferView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kPixel);
    auto inTable = MakeBuffer();
    auto inlined = MakeBuffer();
    const Norvex::Test::LifeProbe tableProbe(inTable);
    const Norvex::Test::LifeProbe inlineProbe(inlined);
    const auto setTable = [&](const CComPtr<ID3D12Resource>& buffer) {
        table->SetView(0, 0, m_views->CreateBufferShaderResourceView(buffer, 16), 0, kNoFlags);
    };
    setTable(inTable);
    cbv->SetBuffer(inlined);
    m_parameters->SerializeRootSignature();
    m_parameters->SetToCommandList(MakeList());
    inTable.Release();
    inlined.Release();
    EXPECT_TRUE(tableProbe.IsAlive()) << "the list keeps what it uses";
    EXPECT_TRUE(inlineProbe.IsAlive());

    cbv->SetBuffer(m_buffer);
    EXPECT_EQ(SentenceOf([&] { m_parameters->SetToCommandList(MakeList()); }), kTableIncomplete);
    cbv->SetBuffer(m_buffer);
    setTable(m_buffer);
    EXPECT_FALSE(m_parameters->SerializeRootSignature());
    EXPECT_EQ(SentenceOf([&] { m_parameters->SetToCommandList(MakeList()); }), "(nothing)");

    m_list.reset();
    m_allocator.reset();
    EXPECT_FALSE(tableProbe.IsAlive());
    EXPECT_FALSE(inlineProbe.IsAlive());
}

TEST_F(D3D12ShaderParametersTest, NothingIsBoundWhenSomethingIsMissing) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    table->SetView(0, 0, MakeView(D12Descriptor::ShaderResource), 0, kNoFlags);
    const auto uav =
        m_parameters->AddUnorderedAccessView(0, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, kPixel);
    m_parameters->SerializeRootSignature();
    const ListPtr list = MakeList();
    const BindRecorder recorder(list);
    EXPECT_EQ(SentenceOf([&] { m_parameters->SetToCommandList(list); }),
              "Inline descriptor has no buffer");
    EXPECT_THAT(recorder.calls, testing::IsEmpty());
    uav->SetBuffer(m_buffer);
    EXPECT_EQ(SentenceOf([&] { m_parameters->SetToCommandList(list); }), "(nothing)")
        << "the table is still set";

    const auto empty = s_device->CreateShaderParameters();
    empty->AddViewTable(0, kPixel);
    EXPECT_EQ(SentenceOf([&] { empty->SetToCommandList(list); }), kTableIncomplete);
}

TEST_F(D3D12ShaderParametersTest, WithoutTablesThereAreNoHeaps) {
    const auto constants = m_parameters->AddContants(1, 0, 0, kPixel);
    m_parameters->SerializeRootSignature();
    const ListPtr list = MakeList();
    const BindRecorder recorder(list);
    constants->SetData(std::vector<unsigned char>{0xFF});
    m_parameters->SetToCommandList(list);
    EXPECT_THAT(recorder.calls, ElementsAre("signature", "0: 1 constants from 0"));
    EXPECT_THAT(recorder.constants, ElementsAre(0xFFu));
}

TEST_F(D3D12ShaderParametersTest, CopySharesTheParameters) {
    const auto constants = m_parameters->AddContants(1, 0, 0, kPixel);
    boost::intrusive_ptr<D12ShaderParameters> copy(new D12ShaderParameters(*m_parameters));
    copy->AddContants(2, 1, 0, kPixel)->SetData(std::vector<unsigned char>(8));
    copy->SerializeRootSignature();
    EXPECT_EQ(m_parameters->GetRootSignature(), nullptr);
    const std::uint32_t value = 42;
    constants->SetData(&value, sizeof(value));
    const ListPtr list = MakeList();
    const BindRecorder recorder(list);
    copy->SetToCommandList(list);
    EXPECT_THAT(recorder.calls,
                ElementsAre("signature", "0: 1 constants from 0", "1: 2 constants from 0"));
}

} // namespace
} // namespace Norvex::DX
