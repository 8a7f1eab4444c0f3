#include "Proc/DirectX/Manager/DirectXDebug.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <glog/logging.h>

#include "Platform/ComPtr.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/LiveObject.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

struct LogEntry {
    int severity; // of Direct3D
    std::string text;
};

struct DebugState {
    Platform::Mutex lock;            // not held while the log is written
    std::vector<LogEntry> unwritten; // in the order of the drains
    bool isWriting = false;          // by one thread at a time
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
    static constexpr const char* kGeneration = "D3D11";
};

struct Names12 {
    using Queue = ID3D12InfoQueue;
    using Message = D3D12_MESSAGE;
    static constexpr const char* kNoQueue = "D3D12: Failed to get information queue";
    static constexpr const char* kFetchFailed = "D3D12: ID3D12InfoQueue::GetMessage failed with ";
    static constexpr const char* kGeneration = "D3D12";
};

// Both generations number the severities alike: corruption, error, warning, info, message.
void WriteEntry(const LogEntry& entry) {
    switch (entry.severity) {
    case D3D12_MESSAGE_SEVERITY_CORRUPTION:
    case D3D12_MESSAGE_SEVERITY_ERROR:
        LOG(ERROR) << entry.text;
        break;
    case D3D12_MESSAGE_SEVERITY_WARNING:
        LOG(WARNING) << entry.text;
        break;
    case D3D12_MESSAGE_SEVERITY_INFO:
    case D3D12_MESSAGE_SEVERITY_MESSAGE:
        LOG(INFO) << entry.text;
        break;
    default:
        break;
    }
}

LogEntry MakeError(std::string text) {
    return {D3D12_MESSAGE_SEVERITY_ERROR, std::move(text)};
}

template <class Names>
LogEntry FetchMessage(typename Names::Queue& queue, UINT64 index) {
    SIZE_T size = 0;
    HRESULT result = queue.GetMessage(index, nullptr, &size);
    std::unique_ptr<std::byte[]> buffer;
    if (SUCCEEDED(result)) {
        buffer = std::make_unique<std::byte[]>(size);
        result = queue.GetMessage(index, reinterpret_cast<typename Names::Message*>(buffer.get()),
                                  &size);
    }
    if (FAILED(result)) {
        return MakeError(fmt::format("{}{}", Names::kFetchFailed, result));
    }
    const auto& message = *reinterpret_cast<const typename Names::Message*>(buffer.get());
    // The byte length counts the terminating zero, which stays in the text.
    const std::string_view description(message.pDescription, message.DescriptionByteLength);
    return {
        static_cast<int>(message.Severity),
        fmt::format("{}: {} ({})", Names::kGeneration, description, static_cast<int>(message.ID))};
}

template <class Names, class Device>
void FetchMessages(Device* device, std::vector<LogEntry>& entries) {
    const auto queue = Platform::Query<typename Names::Queue>(device);
    if (queue == nullptr) {
        entries.push_back(MakeError(Names::kNoQueue));
        return;
    }
    const UINT64 count = queue->GetNumStoredMessagesAllowedByRetrievalFilter();
    for (UINT64 i = 0; i < count; ++i) {
        entries.push_back(FetchMessage<Names>(*queue, i));
    }
    if (count != 0) {
        queue->ClearStoredMessages();
    }
}

// Whoever comes while another thread writes, or the writer's own sink, leaves it to the writer.
void WriteEntries(DebugState& state, std::unique_lock<Platform::Mutex>& lock) {
    if (state.isWriting) {
        return;
    }
    state.isWriting = true;
    while (!state.unwritten.empty()) {
        const std::vector<LogEntry> entries = std::exchange(state.unwritten, {});
        lock.unlock();
        try {
            std::ranges::for_each(entries, WriteEntry);
        } catch (const std::bad_alloc&) {
            // As above.
        }
        lock.lock();
    }
    state.isWriting = false;
}

template <class Names, class Device>
void Drain(Device* device) {
    DebugState& state = GetState();
    std::unique_lock lock(state.lock);
    if (!state.requested) {
        return;
    }
    try {
        FetchMessages<Names>(device, state.unwritten);
    } catch (const std::bad_alloc&) {
        // The failure that the messages explain matters more; those that were fetched are written.
    }
    WriteEntries(state, lock);
}

// What the system answers.
long EnableLayer() {
    CComPtr<ID3D12Debug> debug;
    const long result = API::GetInstance().GetDebugInterface(debug);
    if (SUCCEEDED(result)) {
        debug->EnableDebugLayer();
        GetState().layerActive = true;
    }
    return result;
}

} // namespace

void EnableDebugMode() {
    DebugState& state = GetState();
    const std::lock_guard guard(state.lock);
    ThrowUnless<DirectXException>(
        !state.firstObjectCreated,
        "Debug mode must be enabled before creating the first DirectX object");
    state.requested = true;
    RememberLiveObjects();
}

void ReportDirectXLeaks() {}

namespace Debug {

bool MarkFirstObject() {
    DebugState& state = GetState();
    const std::lock_guard guard(state.lock);
    state.firstObjectCreated = true;
    return state.requested;
}

bool IsRequested() noexcept {
    DebugState& state = GetState();
    const std::lock_guard guard(state.lock);
    return state.requested;
}

void EnableLayerOnce() {
    long result = S_OK;
    std::call_once(GetState().layerOnce, [&result] { result = EnableLayer(); });
    // Only now, for a sink of the host that makes a factory.
    if (result == DXGI_ERROR_SDK_COMPONENT_MISSING) {
        LOG(WARNING) << "The application requested an operation that depends on an SDK component "
                        "that is missing or mismatched.\n"
                        "To resolve this issue, go to the Settings panel, under System, Apps & "
                        "features, Manage optional Features,\n"
                        "Add a feature, and then look for \"Graphics Tools\".";
    }
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
