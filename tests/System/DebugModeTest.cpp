// Debug mode, asked for in time. Whether this system has the debug layer decides what follows; both
// ways are checked.

#include <functional>
#include <string>
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

// Messages with the severities and the ids 0 to 4, one that has no size and one that cannot be
// fetched.
template <class Message>
struct FakeInfoQueue : FakeObject {
    FakeInfoQueue() {
        Set(&ID3D11InfoQueue::GetMessage,
            [](FakeInfoQueue*, UINT64 index, Message* message, SIZE_T* size) -> HRESULT {
                if (index == 5 || (index == 6 && message != nullptr)) {
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
        Set(&ID3D11InfoQueue::GetNumStoredMessagesAllowedByRetrievalFilter,
            [](FakeInfoQueue* self) { return self->count; });
        Set(&ID3D11InfoQueue::ClearStoredMessages, [](FakeInfoQueue* self) { self->count = 0; });
    }

    UINT64 count = 7;
};

// A host's sink that calls the library on the first line that it hears.
class CallingSink : public LogCapture {
public:
    explicit CallingSink(std::function<void()> call) : m_call(std::move(call)) {}

    void send(google::LogSeverity severity, const char* file, const char* name, int line,
              const google::LogMessageTime& time, const char* message,
              std::size_t length) override {
        LogCapture::send(severity, file, name, line, time, message, length);
        if (const auto call = std::exchange(m_call, {})) {
            call();
        }
    }

private:
    std::function<void()> m_call;
};

template <class Queue, class Message, class Device>
void CheckMessages(const Device& device, const std::string& name) {
    SCOPED_TRACE(name);
    const auto fail = [&device] { return Norvex::HResult(E_FAIL, device->Get()); };
    FakeInfoQueue<Message> queue;
    InterfacePatch<std::remove_reference_t<decltype(*device->Get())>, Queue> patch(device->Get(),
                                                                                   nullptr);
    const CallingSink log([&] {
        patch.fake = &queue;
        fail();
    });
    EXPECT_EQ(fail().value().adapter, device->GetDescription());
    std::vector<Entry> expected = {
        {google::GLOG_ERROR, name + ": Failed to get information queue"}};
    for (const google::LogSeverity severity :
         {google::GLOG_ERROR, google::GLOG_ERROR, google::GLOG_WARNING, google::GLOG_INFO,
          google::GLOG_INFO}) {
        expected.emplace_back(severity, fmt::format("{}: Something is wrong{} ({})", name, '\0',
                                                    expected.size() - 1));
    }
    const std::string refused =
        fmt::format("{}: I{}InfoQueue::GetMessage failed with -2147024809", name, name);
    expected.resize(expected.size() + 2, Entry(google::GLOG_ERROR, refused));
    EXPECT_EQ(log.GetEntries(), expected);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(queue.GetReferences(), 0);
}

TEST(DebugModeTest, MessagesReachTheLog) {
    EnableDebugMode();
    EnableDebugMode();

    const LogCapture log;
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
    std::vector<UINT> flagsTried;
    const CreateDevice11Patch creation([&](D3D_FEATURE_LEVEL, UINT flags) -> HRESULT {
        flagsTried.push_back(flags & D3D11_CREATE_DEVICE_DEBUG);
        return flagsTried.back() != 0 ? DXGI_ERROR_SDK_COMPONENT_MISSING : S_OK;
    });
    const auto device11 = D11Device::CreatePrimary();
    EXPECT_EQ(device11->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_1);
    EXPECT_THAT(flagsTried, testing::ElementsAre(D3D11_CREATE_DEVICE_DEBUG, 0));
    CheckMessages<ID3D11InfoQueue, D3D11_MESSAGE>(device11, "D3D11");
    CheckMessages<ID3D12InfoQueue, D3D12_MESSAGE>(D12Device::CreatePrimary(), "D3D12");
}

} // namespace
} // namespace Norvex::DX
