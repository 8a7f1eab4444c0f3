// Taking an object from its pool and giving it back, beside making and releasing a raw one.

#include <memory>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12Query.h"
#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

constexpr std::uint64_t kBufferSize = 65535; // the pool rounds up from the next larger number

DX::D12Texture2DDesc MakeTargetDesc() {
    DX::D12Texture2DDesc desc;
    desc.width = 64;
    desc.height = 64;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    return desc;
}

class Pools {
public:
    Pools() {
        ID3D12Device* const device = m_device->Get();
        const D3D12_DESCRIPTOR_HEAP_DESC heapDesc = {D3D12_DESCRIPTOR_HEAP_TYPE_RTV, 64,
                                                     D3D12_DESCRIPTOR_HEAP_FLAG_NONE, 0};
        Check(device->CreateDescriptorHeap(&heapDesc, IID_PPV_ARGS(&m_heap)));
        Check(device->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT,
                                             IID_PPV_ARGS(&m_allocator)));
        Check(device->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, m_allocator, nullptr,
                                        IID_PPV_ARGS(&m_list)));
        Check(m_list->Close());
    }

    ID3D12Device* GetDevice() const { return m_device->Get(); }

    void TakeBuffer() { m_device->CreateUploadBuffer(kBufferSize); }
    void MakeBuffer() {
        const CD3DX12_HEAP_PROPERTIES heap(D3D12_HEAP_TYPE_UPLOAD);
        const auto desc = CD3DX12_RESOURCE_DESC::Buffer(kBufferSize + 1);
        CComPtr<ID3D12Resource> buffer;
        Check(m_device->Get()->CreateCommittedResource(&heap, D3D12_HEAP_FLAG_NONE, &desc,
                                                       D3D12_RESOURCE_STATE_GENERIC_READ, nullptr,
                                                       IID_PPV_ARGS(&buffer)));
    }
    void TakeTexture() { m_texturePool->ObtainTexture(); }
    void MakeTexture() { m_device->CreateTexture2D(MakeTargetDesc()); }
    void TakeView() { m_device->CreateRenderTargetView(m_texture); }
    void MakeView() {
        m_device->Get()->CreateRenderTargetView(m_texture, nullptr, Platform::GetCPUStart(m_heap));
    }
    void TakeQuery() { m_device->CreateQuery(D3D12_QUERY_TYPE_TIMESTAMP); }
    void MakeQuery() {
        const D3D12_QUERY_HEAP_DESC desc = {D3D12_QUERY_HEAP_TYPE_TIMESTAMP, 1, 0};
        CComPtr<ID3D12QueryHeap> heap;
        Check(m_device->Get()->CreateQueryHeap(&desc, IID_PPV_ARGS(&heap)));
    }
    void TakeAllocatorAndList() {
        m_queue->CreateCommandAllocator()->RecordList(nullptr, [](const auto&) {});
    }
    void MakeAllocatorAndList() {
        CComPtr<ID3D12CommandAllocator> allocator;
        CComPtr<ID3D12GraphicsCommandList> list;
        Check(m_device->Get()->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT,
                                                      IID_PPV_ARGS(&allocator)));
        Check(m_device->Get()->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, allocator,
                                                 nullptr, IID_PPV_ARGS(&list)));
        Check(list->Close());
    }
    void RecycleAllocatorAndList() {
        Check(m_allocator->Reset());
        Check(m_list->Reset(m_allocator, nullptr));
        Check(m_list->Close());
    }

private:
    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
    boost::intrusive_ptr<DX::D12Texture2DPool> m_texturePool =
        DX::D12Texture2DPool::Create(m_device, MakeTargetDesc());
    CComPtr<ID3D12Resource> m_texture = m_device->CreateTexture2D(MakeTargetDesc());
    CComPtr<ID3D12DescriptorHeap> m_heap;
    CComPtr<ID3D12CommandAllocator> m_allocator;
    CComPtr<ID3D12GraphicsCommandList> m_list;
};

struct Operation {
    const char* name;
    void (Pools::*run)();
};

Ways MakePools(const std::vector<Operation>& operations) {
    const auto all = std::make_shared<Pools>();
    Ways ways;
    for (const auto& [name, run] : operations) {
        ways.ways.push_back(MakeWay(name, [all, run] { (*all.*run)(); }));
    }
    for (const auto& [name, run] : operations) {
        if (name != ways.ways.front().name) {
            ways.ways.front().twins.emplace_back(name);
        }
    }
    ways.count = [all](const Work& work) {
        return Test::CountCalls<Test::CountedObjects12>(all->GetDevice(), work);
    };
    return ways;
}

} // namespace

std::vector<Case> MakePoolCases() {
    struct Row {
        const char* name;
        std::vector<Operation> operations; // the library's first
    };
    const std::vector<Row> rows = {
        {"buffer", {{"pool", &Pools::TakeBuffer}, {"new", &Pools::MakeBuffer}}},
        {"texture", {{"pool", &Pools::TakeTexture}, {"new", &Pools::MakeTexture}}},
        {"rtv", {{"pool", &Pools::TakeView}, {"new", &Pools::MakeView}}},
        {"query", {{"pool", &Pools::TakeQuery}, {"new", &Pools::MakeQuery}}},
        {"list",
         {{"pool", &Pools::TakeAllocatorAndList},
          {"new", &Pools::MakeAllocatorAndList},
          {"recycled", &Pools::RecycleAllocatorAndList}}},
    };
    std::vector<Case> cases;
    cases.reserve(rows.size());
    for (const Row& row : rows) {
        cases.push_back({std::string("d3d12/pool/") + row.name, Clock::Thread,
                         [operations = row.operations] { return MakePools(operations); }});
    }
    return cases;
}

} // namespace Norvex::Bench
