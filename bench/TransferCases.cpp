// Uploads and downloads of buffers, until the data have arrived.

#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

// One staging buffer of each kind, mapped for good; one list.
class Transfers {
public:
    explicit Transfers(std::uint64_t size)
        : m_size(size),
          m_memory(size, std::uint8_t{1}),
          m_resource(MakeBuffer(D3D12_HEAP_TYPE_DEFAULT, D3D12_RESOURCE_STATE_COPY_DEST)),
          m_upload(MakeBuffer(D3D12_HEAP_TYPE_UPLOAD, D3D12_RESOURCE_STATE_GENERIC_READ)),
          m_readback(MakeBuffer(D3D12_HEAP_TYPE_READBACK, D3D12_RESOURCE_STATE_COPY_DEST)) {
        ID3D12Device* const device = m_device->Get();
        Check(device->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT,
                                             IID_PPV_ARGS(&m_allocator)));
        Check(device->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, m_allocator, nullptr,
                                        IID_PPV_ARGS(&m_list)));
        Check(m_list->Close());
        m_uploadMemory = Map(m_upload);
        m_readbackMemory = Map(m_readback);
    }

    ID3D12Device* GetDevice() const { return m_device->Get(); }

    void UploadWithLibrary() {
        DX::D12UploadRegionParams params;
        params.destination = m_resource;
        params.data = m_memory.data();
        params.size = m_size;
        m_queue->UploadRegion(params)->WaitComplete();
    }
    void UploadAsExpert() {
        std::memcpy(m_uploadMemory, m_memory.data(), m_size);
        Copy(m_resource, m_upload);
    }
    void DownloadWithLibrary() {
        DX::D12DownloadRegionParams params;
        params.source = m_resource;
        params.destination = m_memory.data();
        params.size = m_size;
        // The resource stays in the state that uploads leave it in.
        params.stateBefore = params.stateAfter = D3D12_RESOURCE_STATE_COPY_DEST;
        m_queue->DownloadRegion(params);
    }
    void DownloadAsExpert() {
        Copy(m_readback, m_resource);
        std::memcpy(m_memory.data(), m_readbackMemory, m_size);
    }

private:
    CComPtr<ID3D12Resource> MakeBuffer(D3D12_HEAP_TYPE heap, D3D12_RESOURCE_STATES state) {
        DX::D12BufferDesc desc;
        desc.heapType = heap;
        desc.size = m_size;
        desc.initialState = state;
        return m_device->CreateBuffer(desc);
    }
    static std::uint8_t* Map(ID3D12Resource* buffer) {
        void* mapped = nullptr;
        Check(buffer->Map(0, nullptr, &mapped));
        return static_cast<std::uint8_t*>(mapped);
    }
    void Transition(D3D12_RESOURCE_STATES before, D3D12_RESOURCE_STATES after) {
        const auto barrier = CD3DX12_RESOURCE_BARRIER::Transition(m_resource, before, after);
        m_list->ResourceBarrier(1, &barrier);
    }
    void Copy(ID3D12Resource* destination, ID3D12Resource* source) {
        Check(m_allocator->Reset());
        Check(m_list->Reset(m_allocator, nullptr));
        if (source == m_resource) {
            Transition(D3D12_RESOURCE_STATE_COPY_DEST, D3D12_RESOURCE_STATE_COPY_SOURCE);
        }
        m_list->CopyBufferRegion(destination, 0, source, 0, m_size);
        if (source == m_resource) {
            Transition(D3D12_RESOURCE_STATE_COPY_SOURCE, D3D12_RESOURCE_STATE_COPY_DEST);
        }
        Check(m_list->Close());
        ID3D12CommandList* const list = m_list;
        m_queue->Get()->ExecuteCommandLists(1, &list);
        m_fence.Wait(m_fence.Signal(m_queue->Get()));
    }

    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
    std::uint64_t m_size;
    std::vector<std::uint8_t> m_memory;
    CComPtr<ID3D12Resource> m_resource;
    CComPtr<ID3D12Resource> m_upload;
    CComPtr<ID3D12Resource> m_readback;
    std::uint8_t* m_uploadMemory = nullptr;
    std::uint8_t* m_readbackMemory = nullptr;
    CComPtr<ID3D12CommandAllocator> m_allocator;
    CComPtr<ID3D12GraphicsCommandList> m_list;
    Fence12 m_fence{m_device->Get()};
};

using Transfer = void (Transfers::*)();

Ways MakeTransfers(std::uint64_t size, const char* name, Transfer library, Transfer expert) {
    const auto all = std::make_shared<Transfers>(size);
    return {{MakeWay(name, [all, library] { (*all.*library)(); }, {"expert"}),
             MakeWay("expert", [all, expert] { (*all.*expert)(); })},
            [all](const Work& work) {
                return Test::CountCalls<Test::CountedObjects12>(all->GetDevice(), work);
            }};
}

} // namespace

std::vector<Case> MakeTransferCases() {
    constexpr std::uint64_t kKiB = 1024;
    std::vector<Case> cases;
    for (const std::uint64_t size : {64 * kKiB, 1024 * kKiB, 65536 * kKiB}) {
        cases.push_back({fmt::format("d3d12/upload/{}KiB", size / kKiB), Clock::Both, [size] {
                             return MakeTransfers(size, "UploadRegion",
                                                  &Transfers::UploadWithLibrary,
                                                  &Transfers::UploadAsExpert);
                         }});
        cases.push_back({fmt::format("d3d12/download/{}KiB", size / kKiB), Clock::Both, [size] {
                             return MakeTransfers(size, "DownloadRegion",
                                                  &Transfers::DownloadWithLibrary,
                                                  &Transfers::DownloadAsExpert);
                         }});
    }
    return cases;
}

} // namespace Norvex::Bench
