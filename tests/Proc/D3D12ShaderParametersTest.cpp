#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"

#include <functional>
#include <string>
#include <vector>

#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "Platform/D3D12Abi.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::ExpectFailure12;
using Norvex::Test::MethodPatch;
using testing::ElementsAre;
namespace Slot = Norvex::Test::Slot;

using DescriptorPtr = boost::intrusive_ptr<D12Descriptor>;
using ListPtr = boost::intrusive_ptr<D12GraphicsCommandList>;
using CreateRootSignature =
    MethodPatch<Slot::kDeviceCreateRootSignature,
                HRESULT(ID3D12Device*, UINT, const void*, SIZE_T, REFIID, void**)>;

constexpr auto kPixel = D3D12_SHADER_VISIBILITY_PIXEL;   // 5
constexpr auto kVertex = D3D12_SHADER_VISIBILITY_VERTEX; // 1
constexpr auto kNoFlags = D3D12_DESCRIPTOR_RANGE_FLAG_NONE;
constexpr auto kStatic = D3D12_DESCRIPTOR_RANGE_FLAG_DATA_STATIC;
constexpr auto kPlain = D3D12_ROOT_DESCRIPTOR_FLAG_NONE;
constexpr auto kSrv = D12Descriptor::ShaderResource;
constexpr auto kCbv = D12Descriptor::ConstantBuffer;
constexpr auto kUav = D12Descriptor::UnorderedAccess;
constexpr auto kTableIncomplete = "Table not fully initialized";

// A table: for each range type, first register, count.
std::string TextOf(const D3D12_ROOT_PARAMETER1& parameter) {
    if (parameter.ParameterType == D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE) {
        std::string text =
            fmt::format("table for {}", static_cast<int>(parameter.ShaderVisibility));
        const auto& table = parameter.DescriptorTable;
        for (unsigned i = 0; i < table.NumDescriptorRanges; ++i) {
            const auto& range = table.pDescriptorRanges[i];
            EXPECT_EQ(range.OffsetInDescriptorsFromTableStart,
                      D3D12_DESCRIPTOR_RANGE_OFFSET_APPEND);
            text += fmt::format(", {} {}+{}", static_cast<int>(range.RangeType),
                                range.BaseShaderRegister, range.NumDescriptors);
        }
        return text;
    }
    // Constants have their count where descriptors have flags.
    return fmt::format("{} at {} in {} for {}: {}", static_cast<int>(parameter.ParameterType),
                       parameter.Descriptor.ShaderRegister, parameter.Descriptor.RegisterSpace,
                       static_cast<int>(parameter.ShaderVisibility),
                       static_cast<int>(parameter.Descriptor.Flags));
}

class D3D12ShaderParametersTest : public Norvex::Test::CanvasTest {
protected:
    static CComPtr<ID3D12Resource> MakeBuffer() {
        D12BufferDesc desc;
        desc.size = 1024;
        desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS;
        return Device()->CreateBuffer(desc);
    }

    DescriptorPtr MakeView(D12Descriptor::DescriptorType type) {
        switch (type) {
        case kCbv:
            return m_views->CreateConstantBufferView(m_buffer);
        case kSrv:
            return m_views->CreateBufferShaderResourceView(m_buffer, 16);
        case kUav:
            return m_views->CreateBufferUnorderedAccessView(m_buffer, 16,
                                                            D3D12_BUFFER_UAV_FLAG_NONE, 0, nullptr);
        default: {
            D3D12_SAMPLER_DESC sampler = {};
            sampler.AddressU = sampler.AddressV = sampler.AddressW =
                D3D12_TEXTURE_ADDRESS_MODE_CLAMP;
            return Device()->CreateSamplerHeap(1)->CreateSampler(sampler);
        }
        }
    }

    // Closes the last one: an allocator has one open list at a time. Never submitted.
    ListPtr MakeList() {
        if (m_list != nullptr) {
            m_list->Close();
        }
        return m_list = m_allocator->CreateCommandList(nullptr);
    }

    boost::intrusive_ptr<D12ShaderParameters> m_parameters = Device()->CreateShaderParameters();
    boost::intrusive_ptr<D12DescriptorCPUHeap> m_views = Device()->CreateShaderViewHeap(64);
    CComPtr<ID3D12Resource> m_buffer = MakeBuffer();
    boost::intrusive_ptr<D12CommandAllocator> m_allocator = Queue()->CreateCommandAllocator();
    ListPtr m_list;
};

// What is recorded on lists of the library's class, and what is copied, in order. Places in heaps
// are counted in descriptors.
class BindRecorder {
    using List = ID3D12GraphicsCommandList;
    using SetAddress = void(List*, UINT, D3D12_GPU_VIRTUAL_ADDRESS);

    auto Address(const char* kind) {
        return [this, kind](auto original, auto self, auto index, auto address) {
            calls.push_back(fmt::format("{}: {} {}", index, kind, address));
            original(self, index, address);
        };
    }
    static UINT64 StartOf(ID3D12DescriptorHeap* heap, D3D12_CPU_DESCRIPTOR_HANDLE) {
        return Platform::GetCPUStart(heap).ptr;
    }
    static UINT64 StartOf(ID3D12DescriptorHeap* heap, D3D12_GPU_DESCRIPTOR_HANDLE) {
        return Platform::GetGPUStart(heap).ptr;
    }
    // The heaps are set before anything points into them.
    template <class Handle>
    std::string PlaceOf(Handle handle) const {
        for (ID3D12DescriptorHeap* heap : m_current) {
            const auto desc = Platform::GetDesc(heap);
            const UINT64 place = (handle.ptr - StartOf(heap, handle)) /
                                 m_device->GetDescriptorHandleIncrementSize(desc.Type);
            if (place < desc.NumDescriptors) { // a great number for what lies before
                return fmt::format("{}[{}]", static_cast<int>(desc.Type), place);
            }
        }
        return "nowhere";
    }

public:
    BindRecorder(ID3D12Device* device, List* list)
        : m_device(device),
          m_signature(list,
                      [this](auto original, auto self, auto signature) {
                          calls.emplace_back("signature");
                          original(self, signature);
                      }),
          m_heaps(list,
                  [this](auto original, auto self, auto count, auto heaps) {
                      m_current.assign(heaps, heaps + count);
                      original(self, count, heaps);
                  }),
          m_constants(
              list,
              [this](auto original, auto self, auto index, auto count, auto data, auto offset) {
                  const auto* values = static_cast<const std::uint32_t*>(data);
                  calls.push_back(fmt::format("{}: {} from {}", index,
                                              fmt::join(values, values + count, " "), offset));
                  original(self, index, count, data, offset);
              }),
          m_table(list,
                  [this](auto original, auto self, auto index, auto handle) {
                      calls.push_back(fmt::format("{}: table {}", index, PlaceOf(handle)));
                      original(self, index, handle);
                  }),
          m_cbv(list, Address("CBV")),
          m_srv(list, Address("SRV")),
          m_uav(list, Address("UAV")),
          m_copy(device,
                 [this](auto original, auto self, auto count, auto to, auto from, auto type) {
                     calls.push_back("copy " + PlaceOf(to));
                     sources.push_back(from.ptr);
                     original(self, count, to, from, type);
                 }) {}

    std::vector<std::string> calls;
    std::vector<SIZE_T> sources;

private:
    ID3D12Device* m_device;
    std::vector<ID3D12DescriptorHeap*> m_current;
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
    MethodPatch<Slot::kDeviceCopyDescriptorsSimple,
                void(ID3D12Device*, UINT, D3D12_CPU_DESCRIPTOR_HANDLE, D3D12_CPU_DESCRIPTOR_HANDLE,
                     D3D12_DESCRIPTOR_HEAP_TYPE)>
        m_copy;
};

TEST_F(D3D12ShaderParametersTest, RootSignatureHoldsWhatWasAddedInTheVersionAskedFor) {
    constexpr auto kVolatile = D3D12_ROOT_DESCRIPTOR_FLAG_DATA_VOLATILE; // 2
    for (const auto version : {D3D_ROOT_SIGNATURE_VERSION_1_0, D3D_ROOT_SIGNATURE_VERSION_1_1,
                               D3D_ROOT_SIGNATURE_VERSION_1_2}) {
        const boost::intrusive_ptr<D12ShaderParameters> parameters(
            new D12ShaderParameters(Device()->Get(), nullptr, version));
        parameters->AddContants(7, 3, 2, kVertex);
        parameters->AddConstantBufferView(4, 5, kVolatile, kPixel);
        parameters->AddShaderResourceView(6, 7, kVolatile, kPixel);
        parameters->AddUnorderedAccessView(8, 9, kVolatile, kPixel);
        parameters->AddSamplerTable(1, kPixel)->SetSampler(0, 6, MakeView(D12Descriptor::Sampler),
                                                           kNoFlags);
        parameters->AddViewTable(0, kVertex);
        parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(2));
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT});
        parameters->SetFlags({D3D12_ROOT_SIGNATURE_FLAG_DENY_HULL_SHADER_ROOT_ACCESS,
                              D3D12_ROOT_SIGNATURE_FLAG_DENY_DOMAIN_SHADER_ROOT_ACCESS});
        CComPtr<ID3D12VersionedRootSignatureDeserializer> reader;
        const CreateRootSignature patch(Device()->Get(), [&](auto original, auto self, auto node,
                                                             auto data, auto size, auto... out) {
            EXPECT_EQ(
                D3D12CreateVersionedRootSignatureDeserializer(data, size, IID_PPV_ARGS(&reader)),
                S_OK);
            return original(self, node, data, size, out...);
        });
        EXPECT_TRUE(parameters->SerializeRootSignature());
        ASSERT_NE(reader, nullptr);
        const auto* desc = reader->GetUnconvertedRootSignatureDesc();
        if (version == D3D_ROOT_SIGNATURE_VERSION_1_0) {
            EXPECT_EQ(desc->Version, D3D_ROOT_SIGNATURE_VERSION_1_0);
            EXPECT_EQ(desc->Desc_1_0.NumParameters, 6u);
            continue;
        }
        ASSERT_EQ(desc->Version, D3D_ROOT_SIGNATURE_VERSION_1_1);
        std::vector<std::string> texts;
        for (unsigned i = 0; i < desc->Desc_1_1.NumParameters; ++i) {
            texts.push_back(TextOf(desc->Desc_1_1.pParameters[i]));
        }
        EXPECT_THAT(texts, ElementsAre("1 at 3 in 2 for 1: 7", "2 at 4 in 5 for 5: 2",
                                       "3 at 6 in 7 for 5: 2", "4 at 8 in 9 for 5: 2",
                                       "table for 5, 3 6+1", "table for 1"));
        EXPECT_EQ(desc->Desc_1_1.NumStaticSamplers, 1u);
        EXPECT_EQ(desc->Desc_1_1.Flags,
                  D3D12_ROOT_SIGNATURE_FLAG_ALLOW_INPUT_ASSEMBLER_INPUT_LAYOUT |
                      D3D12_ROOT_SIGNATURE_FLAG_DENY_HULL_SHADER_ROOT_ACCESS |
                      D3D12_ROOT_SIGNATURE_FLAG_DENY_DOMAIN_SHADER_ROOT_ACCESS);
    }
}

TEST_F(D3D12ShaderParametersTest, TableMergesNeighbours) {
    struct Entry {
        D12Descriptor::DescriptorType type;
        unsigned shaderRegister;
        unsigned space = 0;
        D3D12_DESCRIPTOR_RANGE_FLAGS flags = kNoFlags;
    };
    const struct {
        std::vector<Entry> entries;
        const char* text;
    } cases[] = {
        {{{kSrv, 0}, {kSrv, 1}, {kSrv, 2}, {kSrv, 3}}, "table for 5, 0 0+2, 0 2+2"},
        {{{kSrv, 0}, {kSrv, 1}, {kSrv, 2}}, "table for 5, 0 0+2, 0 2+1"},
        {{{kSrv, 0}, {kSrv, 2}}, "table for 5, 0 0+1, 0 2+1"},
        {{{kSrv, 1}, {kSrv, 0}}, "table for 5, 0 1+1, 0 0+1"},
        {{{kSrv, 0}, {kCbv, 1}, {kUav, 2}}, "table for 5, 0 0+1, 2 1+1, 1 2+1"},
        {{{kSrv, 0}, {kSrv, 1, 0, kStatic}}, "table for 5, 0 0+1, 0 1+1"},
        {{{kSrv, 0, 0}, {kSrv, 1, 6}}, "table for 5, 0 0+2"}, // spaces do not matter
    };
    for (const auto& c : cases) {
        const auto table =
            m_parameters->AddViewTable(static_cast<unsigned>(c.entries.size()), kPixel);
        for (unsigned i = 0; i < c.entries.size(); ++i) {
            const Entry& entry = c.entries[i];
            table->SetView(i, entry.shaderRegister, MakeView(entry.type), entry.space, entry.flags);
        }
        EXPECT_TRUE(table->NeedSerialize());
        EXPECT_EQ(TextOf(table->Serialize()), c.text);
        EXPECT_FALSE(table->NeedSerialize());
    }
}

// Copies share the tables, and each has its own root signature to keep up to date.
TEST_F(D3D12ShaderParametersTest, EachCopySerializesWhatChanged) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const boost::intrusive_ptr<D12ShaderParameters> copy(new D12ShaderParameters(*m_parameters));
    const auto set = [&](unsigned shaderRegister, D12Descriptor::DescriptorType type,
                         unsigned space, D3D12_DESCRIPTOR_RANGE_FLAGS flags) {
        table->SetView(0, shaderRegister, MakeView(type), space, flags);
    };
    const struct {
        const char* change;
        std::function<void()> make;
        bool serializes;
        bool copySerializes;
    } steps[] = {
        {"first", [&] { set(0, kSrv, 0, kNoFlags); }, true, true},
        {"same view", [&] { set(0, kSrv, 0, kNoFlags); }, false, false},
        {"register", [&] { set(1, kSrv, 0, kNoFlags); }, true, true},
        {"type", [&] { set(1, kCbv, 0, kNoFlags); }, true, true},
        {"space", [&] { set(1, kCbv, 3, kNoFlags); }, true, true},
        {"flags", [&] { set(1, kCbv, 3, kStatic); }, true, true},
        {"static sampler", [&] { m_parameters->AddSampler(CD3DX12_STATIC_SAMPLER_DESC(0)); }, true,
         false},
        {"no flags", [&] { copy->SetFlags({}); }, false, true},
        {"constants", [&] { m_parameters->AddContants(1, 9, 0, kPixel); }, true, false},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.change);
        const CComPtr<ID3D12RootSignature> before = m_parameters->GetRootSignature();
        step.make();
        if (step.serializes) { // a failure is tried again
            const CreateRootSignature patch(Device()->Get(), [](auto...) { return E_OUTOFMEMORY; });
            ExpectFailure12([&] { m_parameters->SerializeRootSignature(); },
                            "Failed to create root signature", "SerializeRootSignature",
                            E_OUTOFMEMORY);
            EXPECT_EQ(m_parameters->GetRootSignature(), before);
        }
        EXPECT_EQ(m_parameters->SerializeRootSignature(), step.serializes);
        EXPECT_EQ(m_parameters->GetRootSignature() != before, step.serializes);
        EXPECT_EQ(copy->SerializeRootSignature(), step.copySerializes);
        EXPECT_FALSE(m_parameters->SerializeRootSignature() || copy->SerializeRootSignature());
    }
}

TEST_F(D3D12ShaderParametersTest, RefusesWhatDoesNotFit) {
    const auto views = m_parameters->AddViewTable(2, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(2, kPixel);
    const DescriptorPtr view = MakeView(kSrv);
    const DescriptorPtr sampler = MakeView(D12Descriptor::Sampler);
    const auto target = s_canvas->MakeTarget(8, 8, DXGI_FORMAT_R8G8B8A8_UNORM);
    const auto setView = [&](unsigned index, const DescriptorPtr& descriptor) {
        views->SetView(index, 0, descriptor, 0, kNoFlags);
    };
    const auto setSampler = [&](unsigned index, const DescriptorPtr& descriptor) {
        samplers->SetSampler(index, 0, descriptor, kNoFlags);
    };
    const boost::intrusive_ptr<D12ShaderParameters> unknown(new D12ShaderParameters(
        Device()->Get(), nullptr, static_cast<D3D_ROOT_SIGNATURE_VERSION>(0)));
    const struct {
        std::function<void()> call;
        const char* sentence;
        const char* function;
        long result = E_FAIL;
    } cases[] = {
        {[&] { setView(0, sampler); }, "Invalid descriptor type", "SetView"},
        {[&] { setView(0, target); }, "Invalid descriptor type", "SetView"},
        {[&] { setView(0, nullptr); }, "Invalid descriptor type", "SetView"},
        {[&] { setSampler(0, view); }, "Invalid descriptor type", "SetSampler"},
        {[&] { setSampler(0, nullptr); }, "Invalid descriptor type", "SetSampler"},
        {[&] { setView(2, view); }, "Table index out of range", "SetDescriptor"},
        {[&] { setSampler(2, sampler); }, "Table index out of range", "SetDescriptor"},
        {[&] { m_parameters->SerializeRootSignature(); }, kTableIncomplete, "Serialize"},
        {[&] { unknown->SerializeRootSignature(); },
         "Failed to serialize root signature: ", "SerializeRootSignature", E_INVALIDARG},
        {[&] { m_parameters->SetToCommandList(nullptr); }, "Invalid command list",
         "SetToCommandList"},
        {[&] { m_parameters->SetToCommandList(MakeList()); }, "Root signature not serialized",
         "SetToCommandList"},
    };
    for (const auto& c : cases) {
        ExpectFailure12(c.call, c.sentence, c.function, c.result);
    }
}

// 64 views, so that the empty tables begin past the heap's end.
TEST_F(D3D12ShaderParametersTest, BindsEverythingInOrder) {
    const auto constants = m_parameters->AddContants(2, 0, 0, kPixel);
    const auto first = m_parameters->AddViewTable(2, kPixel);
    const auto cbv = m_parameters->AddConstantBufferView(1, 0, kPlain, kPixel);
    const auto samplers = m_parameters->AddSamplerTable(1, kPixel);
    const auto srv = m_parameters->AddShaderResourceView(99, 0, kPlain, kPixel);
    const auto second = m_parameters->AddViewTable(62, kPixel);
    const auto uav = m_parameters->AddUnorderedAccessView(9, 0, kPlain, kPixel);
    m_parameters->AddViewTable(0, kVertex);
    m_parameters->AddSamplerTable(0, kVertex);
    const std::uint8_t bytes[] = {1, 2, 3, 4, 5};
    constants->SetData(bytes, sizeof(bytes));
    const DescriptorPtr views[] = {MakeView(kSrv), MakeView(kSrv), MakeView(kSrv)};
    const DescriptorPtr sampler = MakeView(D12Descriptor::Sampler);
    first->SetView(0, 0, views[0], 0, kNoFlags);
    first->SetView(1, 1, views[1], 0, kNoFlags);
    for (unsigned i = 0; i < 62; ++i) {
        second->SetView(i, 2 + i, views[2], 0, kNoFlags);
    }
    samplers->SetSampler(0, 0, sampler, kNoFlags);
    const CComPtr<ID3D12Resource> others[] = {MakeBuffer(), MakeBuffer()};
    cbv->SetBuffer(m_buffer);
    srv->SetBuffer(others[0]);
    m_parameters->SerializeRootSignature();

    const ListPtr list = MakeList();
    BindRecorder recorder(Device()->Get(), list->GetGraphics());
    ExpectFailure12([&] { m_parameters->SetToCommandList(list); },
                    "Inline descriptor has no buffer", "SetToCommandList");
    EXPECT_THAT(recorder.calls, testing::IsEmpty());
    uav->SetBuffer(others[1]);
    m_parameters->SetToCommandList(list);
    ASSERT_EQ(recorder.calls.size(), 73u);
    recorder.calls.erase(recorder.calls.begin() + 10, recorder.calls.begin() + 70);
    EXPECT_THAT(
        recorder.calls,
        ElementsAre("signature", "0: 67305985 5 from 0", "copy 0[0]", "copy 0[1]", "1: table 0[0]",
                    fmt::format("2: CBV {}", m_buffer->GetGPUVirtualAddress()), "copy 1[0]",
                    "3: table 1[0]", fmt::format("4: SRV {}", others[0]->GetGPUVirtualAddress()),
                    "copy 0[2]", "copy 0[63]", "5: table 0[2]",
                    fmt::format("6: UAV {}", others[1]->GetGPUVirtualAddress())));
    recorder.sources.resize(4);
    EXPECT_THAT(recorder.sources,
                ElementsAre(views[0]->GetCPUHandle().ptr, views[1]->GetCPUHandle().ptr,
                            sampler->GetCPUHandle().ptr, views[2]->GetCPUHandle().ptr));
}

TEST_F(D3D12ShaderParametersTest, BindConsumesTablesAndBuffers) {
    const auto table = m_parameters->AddViewTable(1, kPixel);
    const auto cbv = m_parameters->AddConstantBufferView(0, 0, kPlain, kPixel);
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
    ExpectFailure12([&] { m_parameters->SetToCommandList(MakeList()); }, kTableIncomplete,
                    "SetToCommandList");
    cbv->SetBuffer(m_buffer);
    setTable(m_buffer);
    EXPECT_FALSE(m_parameters->SerializeRootSignature());
    m_parameters->SetToCommandList(MakeList());

    m_list.reset();
    m_allocator.reset();
    EXPECT_FALSE(tableProbe.IsAlive());
    EXPECT_FALSE(inlineProbe.IsAlive());
}

TEST_F(D3D12ShaderParametersTest, WithoutTablesThereAreNoHeaps) {
    const auto constants = m_parameters->AddContants(1, 0, 0, kPixel);
    constants->SetData(std::vector<unsigned char>{0xFF});
    m_parameters->SerializeRootSignature();
    const ListPtr list = MakeList();
    const MethodPatch<Slot::kListSetDescriptorHeaps,
                      void(IUnknown*, UINT, ID3D12DescriptorHeap* const*)>
        patch(list->GetGraphics(), [](auto...) { FAIL() << "heaps are set"; });
    m_parameters->SetToCommandList(list);
}

} // namespace
} // namespace Norvex::DX
