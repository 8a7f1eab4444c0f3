// Submission by itself: lists are recorded before.

#include <memory>

#include "bench/Cases.h"
#include "bench/Direct3D12Twin.h"

namespace Norvex::Bench {

namespace {

class Submissions {
public:
    ID3D12Device* GetDevice() const { return m_device->Get(); }

    void PrepareLibrary(std::int64_t times) {
        m_queue->WaitComplete();
        m_ready.clear();
        for (; times > 0; --times) {
            m_ready.push_back(m_queue->CreateCommandAllocator());
            m_ready.back()->RecordList(nullptr, [](const auto&) {});
        }
    }
    void ExecuteLibrary() {
        for (const auto& allocator : m_ready) {
            allocator->Execute();
        }
    }
    void PrepareExpert(std::int64_t times) {
        m_fence.Wait(m_fence.Signal(m_queue->Get()));
        while (m_lists.size() < static_cast<std::size_t>(times)) {
            CComPtr<ID3D12GraphicsCommandList> list;
            Check(m_device->Get()->CreateCommandList(0, D3D12_COMMAND_LIST_TYPE_DIRECT, m_allocator,
                                                     nullptr, IID_PPV_ARGS(&list)));
            Check(list->Close());
            m_lists.push_back(std::move(list));
        }
        Check(m_allocator->Reset());
        for (const auto& list : m_lists) {
            Check(list->Reset(m_allocator, nullptr));
            Check(list->Close());
        }
    }
    void ExecuteExpert() {
        for (const auto& list : m_lists) {
            ID3D12CommandList* const raw = list;
            m_queue->Get()->ExecuteCommandLists(1, &raw);
            m_fence.Signal(m_queue->Get());
        }
    }

    Submissions() {
        Check(m_device->Get()->CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE_DIRECT,
                                                      IID_PPV_ARGS(&m_allocator)));
    }
    ~Submissions() { m_queue->WaitComplete(); }
    Submissions(const Submissions&) = delete;
    Submissions& operator=(const Submissions&) = delete;

private:
    boost::intrusive_ptr<DX::D12Device> m_device = DX::D12Device::CreatePrimary();
    boost::intrusive_ptr<DX::D12CommandQueue> m_queue{new DX::D12CommandQueue(m_device, {})};
    std::vector<boost::intrusive_ptr<DX::D12CommandAllocator>> m_ready;
    CComPtr<ID3D12CommandAllocator> m_allocator;
    std::vector<CComPtr<ID3D12GraphicsCommandList>> m_lists;
    Fence12 m_fence{m_device->Get()};
};

Ways MakeSubmissions() {
    const auto all = std::make_shared<Submissions>();
    return {{{"Execute",
              [all](std::int64_t) { all->ExecuteLibrary(); },
              {"expert"},
              [all](std::int64_t times) { all->PrepareLibrary(times); }},
             {"expert",
              [all](std::int64_t) { all->ExecuteExpert(); },
              {},
              [all](std::int64_t times) { all->PrepareExpert(times); }}},
            {}};
}

} // namespace

std::vector<Case> MakeSubmissionCases() {
    return {{"d3d12/submit", Clock::Wall, &MakeSubmissions}};
}

} // namespace Norvex::Bench
