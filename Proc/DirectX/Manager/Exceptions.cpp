#include "Proc/DirectX/Manager/Exceptions.h"

#include <map>
#include <ostream>
#include <sstream>

#include <fmt/format.h>

#include "Host/CoreTracker.h"
// Upwards on purpose: an error record finds the library's wrapper of the failed device and drains
// its messages.
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIAdapter.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"

namespace Norvex {

namespace {

using Core::Utils::MEMINFO;

constexpr unsigned kMiBShift = 20;

std::shared_ptr<const MEMINFO> SnapshotMemory(long result) {
    MEMINFO info;
    if (result != E_OUTOFMEMORY || !Core::Utils::GetMemoryInfo(info)) {
        return nullptr;
    }
    return std::make_shared<const MEMINFO>(info);
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
    HResultValue value{ReasonOf(result, device), nullptr, nullptr};
    if (const auto wrapper = Wrapper::Find(device)) {
        value.adapter = wrapper->GetDescription();
    }
    value.memoryInfo = SnapshotMemory(result);
    DX::Debug::DrainMessages(device);
    return value;
}

void WriteMemoryInfo(std::ostream& out, const MEMINFO& info) {
    const auto line = [&out](const char* format, std::uint64_t first, std::uint64_t second) {
        out << fmt::format(fmt::runtime(format), first >> kMiBShift, second >> kMiBShift);
    };
    line("Process physical memory usage: {}/{} MB (cur/peak),", info.processPhysicalCurrent,
         info.processPhysicalPeak);
    out << std::endl;
    line("Process virtual memory usage: {}/{} MB (cur/peak),", info.processVirtualCurrent,
         info.processVirtualPeak);
    out << std::endl << fmt::format("Memory load: {}%,", info.memoryLoad) << std::endl;
    line("Physical memory: {}/{} MB (avail/total),", info.physicalAvailable, info.physicalTotal);
    out << std::endl;
    line("Virtual memory: {}/{} MB (avail/total),", info.virtualAvailable, info.virtualTotal);
    out << std::endl;
    line("Committed memory: {}/{} MB (avail/total).", info.committedAvailable, info.committedTotal);
}

std::string ToText(const MEMINFO& info) {
    std::ostringstream out;
    WriteMemoryInfo(out, info);
    return out.str();
}

std::string ToHex(std::int32_t result) {
    std::ostringstream out;
    out << std::hex << std::showbase << result;
    return out.str();
}

void AddAdapter(std::map<std::string, std::string>& attributes,
                const DX::AdapterDescription& adapter) {
    using Proc::ICoreTracker;
    attributes.emplace(ICoreTracker::CORE_GPU_VENDOR, adapter.vendorNames.front());
    attributes.emplace(ICoreTracker::CORE_GPU_DRIVER_VERSION, adapter.GetDriverVersion());
    attributes.emplace(ICoreTracker::CORE_GPU_BRAND_STR, adapter.name);
    attributes.emplace(ICoreTracker::CORE_GPU_VIDEO_MEMORY,
                       std::to_string(adapter.dedicatedVideoMemory >> kMiBShift));
}

} // namespace

HResult::HResult(long result) : error_info(Capture(result)) {}
HResult::HResult(long result, ID3D11Device* device)
    : error_info(Capture<DX::D11Device>(result, device)) {}
HResult::HResult(long result, ID3D12Device* device)
    : error_info(Capture<DX::D12Device>(result, device)) {}

std::string to_string(const HResultValue& value) {
    const auto [code, description] = Core::Utils::GetErrorInfo(value.result);
    std::ostringstream out;
    out << "Code: " << code;
    if (description.empty()) {
        out << ".";
    } else {
        out << ", Description: " << description;
    }
    if (value.adapter) {
        out << std::endl << fmt::format("Adapter name: {}.", value.adapter->name);
    }
    if (value.memoryInfo) {
        out << std::endl;
        WriteMemoryInfo(out, *value.memoryInfo);
    }
    return out.str();
}

namespace DX {

namespace {

// Attaching an HResult stores it as its base, and so it is looked up.
const HResultValue* FindResult(const DirectXException& exception) {
    return boost::get_error_info<boost::error_info<TagHResult, HResultValue>>(exception);
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
    using Proc::ICoreTracker;
    const HResultValue* value = FindResult(*this);
    if (value == nullptr) {
        return;
    }
    std::map<std::string, std::string> attributes = {
        {ICoreTracker::CORE_EXCEPTION_WHAT, what()},
        {ICoreTracker::CORE_EXCEPTION_DESCRIPTION, GetErrorDescription()},
        {ICoreTracker::CORE_EXCEPTION_HRESULT, ToHex(value->result)},
    };
    if (value->adapter) {
        AddAdapter(attributes, *value->adapter);
    }
    if (value->memoryInfo) {
        attributes.emplace(ICoreTracker::CORE_EXCEPTION_MEMINFO, ToText(*value->memoryInfo));
    }
    ICoreTracker::GetTracker()->OnEvent(ICoreTracker::CORE_GPU_EXCEPTION, attributes);
}

} // namespace DX

} // namespace Norvex
