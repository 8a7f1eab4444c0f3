#include "Proc/DirectX/Manager/Exceptions.h"

#include <exception>
#include <map>
#include <new>

#include <fmt/format.h>
#include <glog/logging.h>

#include "Host/CoreTracker.h"
// Upwards on purpose: an error record finds the library's wrapper of the failed device and drains
// its messages.
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIAdapter.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Version.h"

namespace Norvex {

namespace {

using Core::Utils::MEMINFO;

constexpr unsigned kMiBShift = 20;

std::shared_ptr<const MEMINFO> SnapshotMemory(long result) {
    MEMINFO info;
    if (result != E_OUTOFMEMORY || !Core::Utils::GetMemoryInfo(info)) {
        return nullptr;
    }
    try {
        return std::make_shared<const MEMINFO>(info);
    } catch (const std::bad_alloc&) {
        return nullptr; // the result itself matters more
    }
}

template <class Device>
std::int32_t ReasonOf(long result, Device* device) {
    return result == DXGI_ERROR_DEVICE_REMOVED ? device->GetDeviceRemovedReason() : result;
}

HResultValue Capture(long result) {
    return {static_cast<std::int32_t>(result), nullptr, SnapshotMemory(result)};
}

template <class Wrapper, class Device>
HResultValue Capture(long result, Device* device) {
    HResultValue value = Capture(result);
    if (device == nullptr) {
        return value;
    }
    value.result = ReasonOf(result, device);
    if (const auto wrapper = Wrapper::Find(device)) {
        value.adapter = wrapper->GetDescription();
    }
    DX::Debug::DrainMessages(device);
    return value;
}

// Texts are made without streams, which would write numbers as the host's locale has them.
std::string ToText(const MEMINFO& info) {
    const auto inMiB = [](std::uint64_t bytes) { return bytes >> kMiBShift; };
    return fmt::format("Process physical memory usage: {}/{} MB (cur/peak),\n"
                       "Process virtual memory usage: {}/{} MB (cur/peak),\n"
                       "Memory load: {}%,\n"
                       "Physical memory: {}/{} MB (avail/total),\n"
                       "Virtual memory: {}/{} MB (avail/total),\n"
                       "Committed memory: {}/{} MB (avail/total).",
                       inMiB(info.processPhysicalCurrent), inMiB(info.processPhysicalPeak),
                       inMiB(info.processVirtualCurrent), inMiB(info.processVirtualPeak),
                       info.memoryLoad, inMiB(info.physicalAvailable), inMiB(info.physicalTotal),
                       inMiB(info.virtualAvailable), inMiB(info.virtualTotal),
                       inMiB(info.committedAvailable), inMiB(info.committedTotal));
}

// As a stream writes it with std::showbase: zero has no base.
std::string ToHex(std::int32_t result) {
    return result == 0 ? "0" : fmt::format("{:#x}", static_cast<std::uint32_t>(result));
}

void AddAdapter(std::map<std::string, std::string>& attributes,
                const DX::AdapterDescription& adapter) {
    using Proc::ICoreTracker;
    if (!adapter.vendorNames.empty()) {
        attributes.emplace(ICoreTracker::CORE_GPU_VENDOR, adapter.vendorNames.front());
    }
    attributes.emplace(ICoreTracker::CORE_GPU_DRIVER_VERSION, adapter.GetDriverVersion());
    attributes.emplace(ICoreTracker::CORE_GPU_BRAND_STR, adapter.name);
    attributes.emplace(ICoreTracker::CORE_GPU_VIDEO_MEMORY,
                       std::to_string(adapter.dedicatedVideoMemory >> kMiBShift));
}

} // namespace

HResult::HResult(long result) : ErrorResult(Capture(result)) {}
HResult::HResult(long result, ID3D11Device* device)
    : ErrorResult(Capture<DX::D11Device>(result, device)) {}
HResult::HResult(long result, ID3D12Device* device)
    : ErrorResult(Capture<DX::D12Device>(result, device)) {}

std::string to_string(const HResultValue& value) {
    const auto [code, description] = Core::Utils::GetErrorInfo(value.result);
    std::string text = "Code: " + code;
    text += description.empty() ? "." : ", Description: " + description;
    if (value.adapter) {
        text += "\nAdapter name: " + value.adapter->name + ".";
    }
    if (value.memoryInfo) {
        text += "\n" + ToText(*value.memoryInfo);
    }
    return text;
}

namespace DX {

bool IsDeviceLoss(long result) noexcept {
    return result == DXGI_ERROR_DEVICE_REMOVED || result == DXGI_ERROR_DEVICE_HUNG ||
           result == DXGI_ERROR_DEVICE_RESET || result == DXGI_ERROR_DRIVER_INTERNAL_ERROR;
}

namespace {

const HResultValue* FindResult(const DirectXException& exception) {
    return boost::get_error_info<ErrorResult>(exception);
}

void SendToTracker(const DirectXException& exception, const HResultValue& value) {
    using Proc::ICoreTracker;
    std::map<std::string, std::string> attributes = {
        {ICoreTracker::CORE_EXCEPTION_WHAT, exception.what()},
        {ICoreTracker::CORE_EXCEPTION_DESCRIPTION, exception.GetErrorDescription()},
        {ICoreTracker::CORE_EXCEPTION_HRESULT, ToHex(value.result)},
    };
    if (value.adapter) {
        AddAdapter(attributes, *value.adapter);
    }
    if (value.memoryInfo) {
        attributes.emplace(ICoreTracker::CORE_EXCEPTION_MEMINFO, ToText(*value.memoryInfo));
    }
    ICoreTracker::GetTracker()->OnEvent(ICoreTracker::CORE_GPU_EXCEPTION, attributes);
}

} // namespace

DirectXException::~DirectXException() noexcept = default;
DirectX11Exception::~DirectX11Exception() noexcept = default;
DirectX12Exception::~DirectX12Exception() noexcept = default;
D12EncoderException::~D12EncoderException() noexcept = default;

const char* DirectXException::what() const noexcept {
    return "DirectX exception";
}

const char* DirectX11Exception::what() const noexcept {
    return "DirectX 11 exception";
}

const char* DirectX12Exception::what() const noexcept {
    return "DirectX 12 exception";
}

const char* D12EncoderException::what() const noexcept {
    return "DirectX 12 encoder exception";
}

long DirectXException::GetResult() const {
    const HResultValue* value = FindResult(*this);
    return value != nullptr ? value->result : E_FAIL;
}

std::string DirectXException::GetResultDescription() const {
    const HResultValue* value = FindResult(*this);
    return value != nullptr ? to_string(*value) : "Undefined result";
}

void DirectXException::TrackException() const {
    const HResultValue* value = FindResult(*this);
    if (value == nullptr) {
        return;
    }
    try {
        SendToTracker(*this, *value);
    } catch (const std::exception& e) {
        LOG(ERROR) << "Tracking an exception failed: " << e.what();
    } catch (...) {
        LOG(ERROR) << "Tracking an exception failed";
    }
}

namespace {

template <class Info>
const typename Info::value_type* FindFact(const std::exception& exception) {
    const auto* const facts = dynamic_cast<const boost::exception*>(&exception);
    return facts != nullptr ? boost::get_error_info<Info>(*facts) : nullptr;
}

std::string DescribeResult(const HResultValue& value) {
    // The adapter has a line with more.
    std::string text = fmt::format("\n{} ({:#010x})", to_string(HResultValue{value.result, {}, {}}),
                                   static_cast<std::uint32_t>(value.result));
    if (value.adapter) {
        const AdapterDescription& adapter = *value.adapter;
        text += fmt::format("\nAdapter: {} ({:04x}:{:04x}), {} MB. Driver: {}.", adapter.name,
                            adapter.vendorId, adapter.deviceId,
                            adapter.dedicatedVideoMemory >> kMiBShift, adapter.GetDriverVersion());
    }
    if (value.memoryInfo) {
        text += "\n" + ToText(*value.memoryInfo);
    }
    return text;
}

std::string DescribePlace(const std::exception& exception) {
    const auto* const function = FindFact<boost::throw_function>(exception);
    const auto* const file = FindFact<boost::throw_file>(exception);
    const auto* const line = FindFact<boost::throw_line>(exception);
    if (function == nullptr || file == nullptr || line == nullptr) {
        return {};
    }
    return fmt::format("\nThrown by {}, {}:{}.", *function, *file, *line);
}

} // namespace

std::string Describe(const std::exception& exception) {
    const std::string* const sentence = FindFact<ErrorDescription>(exception);
    std::string text = exception.what();
    if (sentence != nullptr) {
        text = *sentence + ".\nKind: " + text + ".";
    }
    if (const auto* const value = FindFact<ErrorResult>(exception)) {
        text += DescribeResult(*value);
    }
    text += DescribePlace(exception);
    if (const auto* const stack = FindFact<ErrorCallStack>(exception)) {
        text += "\nCall stack:\n" + *stack;
    }
    text.erase(text.find_last_not_of('\n') + 1); // with which the stack ends
    return text + "\nNorvexDX " + GetVersionString() + ".";
}

} // namespace DX

} // namespace Norvex
