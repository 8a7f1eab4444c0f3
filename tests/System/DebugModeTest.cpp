// Debug mode, asked for in time. Whether this system has the debug layer decides what follows; both
// ways are checked.

#include <string>

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

struct Generation11 {
    using Device = D11Device;
    using Raw = ID3D11Device;
    using Queue = ID3D11InfoQueue;
    using Message = D3D11_MESSAGE;
    static constexpr auto kError = D3D11_MESSAGE_SEVERITY_ERROR;
    static constexpr auto kInformation = D3D11_MESSAGE_SEVERITY_INFO;
    static constexpr auto kName = "D3D11";
};

struct Generation12 {
    using Device = D12Device;
    using Raw = ID3D12Device;
    using Queue = ID3D12InfoQueue;
    using Message = D3D12_MESSAGE;
    static constexpr auto kError = D3D12_MESSAGE_SEVERITY_ERROR;
    static constexpr auto kInformation = D3D12_MESSAGE_SEVERITY_INFO;
    static constexpr auto kName = "D3D12";
};

// Three stored messages: an error, one that cannot be fetched, an information.
template <class Generation>
struct FakeInfoQueue : FakeObject {
    using Message = typename Generation::Message;

    FakeInfoQueue() {
        Set(Slot::kInfoQueueGetMessage,
            [](FakeInfoQueue*, UINT64 index, Message* message, SIZE_T* size) -> HRESULT {
                if (index == 1) {
                    return E_INVALIDARG;
                }
                static constexpr char kText[] = "Something is wrong";
                *size = sizeof(Message);
                if (message != nullptr) {
                    message->Severity = index == 0 ? Generation::kError : Generation::kInformation;
                    message->ID = {};
                    message->pDescription = kText;
                    message->DescriptionByteLength = sizeof(kText);
                }
                return S_OK;
            });
        Set(Slot::kInfoQueueGetNumStoredMessages, [](FakeInfoQueue*) { return UINT64{3}; });
        Set(Slot::kInfoQueueClearStoredMessages,
            [](FakeInfoQueue* self) { self->isCleared = true; });
    }

    bool isCleared = false;
};

template <class Generation>
void CheckMessages(typename Generation::Device& device) {
    SCOPED_TRACE(Generation::kName);
    using Patch = InterfacePatch<typename Generation::Raw, typename Generation::Queue>;
    const std::string name = Generation::kName;
    LogCapture log;
    {
        const Patch patch(device.Get(), nullptr);
        const Norvex::HResult withoutQueue(E_FAIL, device.Get());
    }
    EXPECT_EQ(log.Count(google::GLOG_ERROR, name + ": Failed to get information queue"), 1);

    FakeInfoQueue<Generation> queue;
    const Patch patch(device.Get(), &queue);
    const Norvex::HResult withQueue(E_FAIL, device.Get());
    const std::string text = name + std::string(": Something is wrong\0 (0)", 25);
    EXPECT_EQ(log.Count(google::GLOG_ERROR, text), 1);
    EXPECT_EQ(log.Count(google::GLOG_INFO, text), 1);
    EXPECT_EQ(log.Count(google::GLOG_ERROR, fmt::format("{}: I{}InfoQueue::GetMessage failed with "
                                                        "-2147024809",
                                                        name, name)),
              1);
    EXPECT_TRUE(queue.isCleared);
    EXPECT_EQ(queue.GetReferences(), 0);
    EXPECT_EQ(withQueue.value().adapter, device.GetDescription());
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
