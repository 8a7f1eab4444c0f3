// Debug mode, asked for in time. Whether this system has the debug layer decides what follows; both
// ways are checked.

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "tests/support/Device11.h"
#include "tests/support/LogCapture.h"

namespace Norvex::DX {
namespace {

using namespace Norvex::Test;

using Entry = std::pair<google::LogSeverity, std::string>;

struct Generation11 {
    using Device = D11Device;
    using Raw = ID3D11Device;
    using Queue = ID3D11InfoQueue;
    using Message = D3D11_MESSAGE;
    static constexpr auto kName = "D3D11";
};

struct Generation12 {
    using Device = D12Device;
    using Raw = ID3D12Device;
    using Queue = ID3D12InfoQueue;
    using Message = D3D12_MESSAGE;
    static constexpr auto kName = "D3D12";
};

// Messages with the severities and the ids 0 to 5, five of which exist, one that has no size and
// one that cannot be fetched.
template <class Message>
struct FakeInfoQueue : FakeObject {
    FakeInfoQueue() {
        Set(SlotOf(&ID3D11InfoQueue::GetMessage),
            [](FakeInfoQueue*, UINT64 index, Message* message, SIZE_T* size) -> HRESULT {
                if (index == 6 || (index == 7 && message != nullptr)) {
                    return E_INVALIDARG;
                }
                static constexpr char kText[] = "Something is wrong";
                *size = sizeof(Message);
                if (message != nullptr) {
                    message->Severity = static_cast<decltype(message->Severity)>(index);
                    message->ID = static_cast<decltype(message->ID)>(index);
                    message->pDescription = kText;
                    message->DescriptionByteLength = sizeof(kText);
                }
                return S_OK;
            });
        Set(SlotOf(&ID3D11InfoQueue::GetNumStoredMessages), [](FakeInfoQueue* self) { return self->count; });
        Set(SlotOf(&ID3D11InfoQueue::ClearStoredMessages), [](FakeInfoQueue* self) { self->count = 0; });
    }

    UINT64 count = 8;
};

// A host's sink that calls the library on the first line that it hears: from where it is, and from
// another thread that it waits for.
class CallingSink : public LogCapture {
public:
    explicit CallingSink(std::function<void()> call) : m_call(std::move(call)) {}

    void send(google::LogSeverity severity, const char* file, const char* name, int line,
              const google::LogMessageTime& time, const char* message,
              std::size_t length) override {
        LogCapture::send(severity, file, name, line, time, message, length);
        if (!std::exchange(m_isCalled, true)) {
            m_call();
        }
    }
    void WaitTillSent() override {
        if (!m_thread.joinable()) {
            std::promise<void> promise;
            const auto isDone = promise.get_future();
            m_thread = std::jthread([this, done = std::move(promise)]() mutable {
                m_call();
                done.set_value();
            });
            EXPECT_EQ(isDone.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        }
    }

private:
    std::function<void()> m_call;
    bool m_isCalled = false;
    std::jthread m_thread;
};

template <class Generation>
void CheckMessages(typename Generation::Device& device) {
    SCOPED_TRACE(Generation::kName);
    using Patch = InterfacePatch<typename Generation::Raw, typename Generation::Queue>;
    const std::string name = Generation::kName;
    {
        const LogCapture log;
        const Patch patch(device.Get(), nullptr);
        const Norvex::HResult result(E_FAIL, device.Get());
        EXPECT_THAT(log.GetEntries(),
                    testing::ElementsAre(
                        Entry(google::GLOG_ERROR, name + ": Failed to get information queue")));
    }
    std::vector<Entry> expected;
    const google::LogSeverity severities[] = {google::GLOG_ERROR, google::GLOG_ERROR,
                                              google::GLOG_WARNING, google::GLOG_INFO,
                                              google::GLOG_INFO};
    for (const auto severity : severities) {
        expected.emplace_back(
            severity, fmt::format("{}: Something is wrong{} ({})", name, '\0', expected.size()));
    }
    expected.resize(
        7, Entry(google::GLOG_ERROR,
                 fmt::format("{}: I{}InfoQueue::GetMessage failed with -2147024809", name, name)));

    FakeInfoQueue<typename Generation::Message> queue;
    const Patch patch(device.Get(), &queue);
    std::atomic<int> calls{0};
    const CallingSink log([&] {
        queue.count = ++calls == 1 ? 8 : 0;
        const Norvex::HResult inSink(E_FAIL, device.Get());
    });
    const Norvex::HResult result(E_FAIL, device.Get());
    // What the sink caused follows; then everything was fetched.
    const std::vector<Entry> again = expected;
    expected.insert(expected.end(), again.begin(), again.end());
    EXPECT_EQ(log.GetEntries(), expected);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.GetReferences(), 0);
    EXPECT_EQ(result.value().adapter, device.GetDescription());
}

TEST(DebugModeTest, MessagesReachTheLog) {
    EnableDebugMode();
    EnableDebugMode();

    LogCapture log;
    CComPtr<ID3D12Debug> debug;
    const bool hasLayer = SUCCEEDED(API::GetInstance().GetDebugInterface(debug));
    DXGIFactory::Create();
    DXGIFactory::Create();
    const char* const warning = "The application requested an operation that depends on an SDK "
                                "component that is missing or mismatched.\n"
                                "To resolve this issue, go to the Settings panel, under System, "
                                "Apps & features, Manage optional Features,\n"
                                "Add a feature, and then look for \"Graphics Tools\".";
    EXPECT_EQ(log.Count(google::GLOG_WARNING, warning), hasLayer ? 0 : 1);

    // Without the layer's component the same level is tried again without it.
    const CreateDevice11Patch creation([](const auto& attempt) -> HRESULT {
        return (attempt.flags & D3D11_CREATE_DEVICE_DEBUG) != 0 ? DXGI_ERROR_SDK_COMPONENT_MISSING
                                                                : S_OK;
    });
    const auto device11 = D11Device::CreatePrimary();
    const auto level = D3D_FEATURE_LEVEL_11_1;
    EXPECT_THAT(creation.attempts,
                testing::ElementsAre(
                    CreateDevice11Patch::Attempt{
                        level, 1, D3D11_CREATE_DEVICE_BGRA_SUPPORT | D3D11_CREATE_DEVICE_DEBUG},
                    CreateDevice11Patch::Attempt{level, 1, D3D11_CREATE_DEVICE_BGRA_SUPPORT}));
    CheckMessages<Generation11>(*device11);
    CheckMessages<Generation12>(*D12Device::CreatePrimary());
}

} // namespace
} // namespace Norvex::DX
