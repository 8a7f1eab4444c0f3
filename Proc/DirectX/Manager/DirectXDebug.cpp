#include "Proc/DirectX/Manager/DirectXDebug.h"

#include <memory>
#include <mutex>
#include <string_view>

#include <fmt/format.h>
#include <glog/logging.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

struct DebugState {
    std::mutex lock;
    bool requested = false;
    bool firstObjectCreated = false;
    bool layerActive = false;
    std::once_flag layerOnce;
};

DebugState& GetState() {
    static DebugState state;
    return state;
}

// What differs between the generations.
struct Names11 {
    using Queue = ID3D11InfoQueue;
    using Message = D3D11_MESSAGE;
    static constexpr const char* kNoQueue = "D3D11: Failed to get information queue";
    static constexpr const char* kFetchFailed = "D3D11: ID3D11InfoQueue::GetMessage failed with ";
    static constexpr std::string_view kGeneration = "D3D11";
};

struct Names12 {
    using Queue = ID3D12InfoQueue;
    using Message = D3D12_MESSAGE;
    static constexpr const char* kNoQueue = "D3D12: Failed to get information queue";
    static constexpr const char* kFetchFailed = "D3D12: ID3D12InfoQueue::GetMessage failed with ";
    static constexpr std::string_view kGeneration = "D3D12";
};

// Both generations number the severities alike: corruption, error, warning, info, message.
void LogAtSeverity(int severity, const std::string& text) {
    switch (severity) {
    case D3D12_MESSAGE_SEVERITY_CORRUPTION:
    case D3D12_MESSAGE_SEVERITY_ERROR:
        LOG(ERROR) << text;
        break;
    case D3D12_MESSAGE_SEVERITY_WARNING:
        LOG(WARNING) << text;
        break;
    case D3D12_MESSAGE_SEVERITY_INFO:
    case D3D12_MESSAGE_SEVERITY_MESSAGE:
        LOG(INFO) << text;
        break;
    default:
        break;
    }
}

template <class Names>
void LogStoredMessage(typename Names::Queue& queue, UINT64 index) {
    SIZE_T size = 0;
    HRESULT result = queue.GetMessage(index, nullptr, &size);
    if (FAILED(result)) {
        LOG(ERROR) << Names::kFetchFailed << result;
        return;
    }
    const auto buffer = std::make_unique<std::byte[]>(size);
    auto* message = reinterpret_cast<typename Names::Message*>(buffer.get());
    result = queue.GetMessage(index, message, &size);
    if (FAILED(result)) {
        LOG(ERROR) << Names::kFetchFailed << result;
        return;
    }
    // The byte length counts the terminating zero, which stays in the text.
    const std::string_view description(message->pDescription, message->DescriptionByteLength);
    LogAtSeverity(message->Severity, fmt::format("{}: {} ({})", Names::kGeneration, description,
                                                 static_cast<int>(message->ID)));
}

template <class Names, class Device>
void Drain(Device* device) {
    const std::lock_guard guard(GetState().lock);
    if (!GetState().requested) {
        return;
    }
    CComPtr<typename Names::Queue> queue;
    if (FAILED(device->QueryInterface(__uuidof(typename Names::Queue),
                                      reinterpret_cast<void**>(&queue)))) {
        LOG(ERROR) << Names::kNoQueue;
        return;
    }
    const UINT64 count = queue->GetNumStoredMessagesAllowedByRetrievalFilter();
    if (count == 0) {
        return;
    }
    for (UINT64 i = 0; i < count; ++i) {
        LogStoredMessage<Names>(*queue, i);
    }
    queue->ClearStoredMessages();
}

void EnableLayer() {
    CComPtr<ID3D12Debug> debug;
    const long result = API::GetInstance().GetDebugInterface(debug);
    if (SUCCEEDED(result)) {
        debug->EnableDebugLayer();
        GetState().layerActive = true;
    } else if (result == DXGI_ERROR_SDK_COMPONENT_MISSING) {
        LOG(WARNING) << "The application requested an operation that depends on an SDK component "
                        "that is missing or "
                        "mismatched."
                     << std::endl
                     << "To resolve this issue, go to the Settings panel, under System, Apps & "
                        "features, Manage "
                        "optional Features,"
                     << std::endl
                     << "Add a feature, and then look for \"Graphics Tools\".";
    }
}

} // namespace

void EnableDebugMode() {
    DebugState& state = GetState();
    const std::lock_guard guard(state.lock);
    ThrowUnless<DirectXException>(
        !state.firstObjectCreated,
        "Debug mode must be enabled before creating the first DirectX object");
    state.requested = true;
}

void ReportDirectXLeaks() {}

namespace Debug {

bool MarkFirstObject() {
    DebugState& state = GetState();
    const std::lock_guard guard(state.lock);
    state.firstObjectCreated = true;
    return state.requested;
}

void EnableLayerOnce() {
    std::call_once(GetState().layerOnce, EnableLayer);
}

bool IsLayerActive() {
    return GetState().layerActive;
}

void DrainMessages(ID3D11Device* device) {
    Drain<Names11>(device);
}

void DrainMessages(ID3D12Device* device) {
    Drain<Names12>(device);
}

} // namespace Debug

} // namespace Norvex::DX
