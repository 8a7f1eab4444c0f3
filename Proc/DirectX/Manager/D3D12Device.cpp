// The device registry, creation, capabilities, and the pools of idle allocators and lists.

#include "Proc/DirectX/Manager/D3D12Device.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <unordered_set>

#include <fmt/format.h>

#include "Host/RefCountable.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D12DevicePool.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Throw.h"
// Upwards by nature: the device makes and keeps the objects that record and submit on it.
#include "Proc/DirectX/Manager/D3D12BufferPool.h"
#include "Proc/DirectX/Manager/D3D12Command.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/D3D12Query.h"

namespace Norvex::DX {

namespace {

struct DeviceRegistry {
    // Recursive: a failure while Create holds the lock builds an error record, which looks the
    // device up here again.
    Platform::RecursiveMutex lock;
    std::unordered_set<D12Device*> devices;
};

DeviceRegistry& GetRegistry() {
    static DeviceRegistry registry;
    return registry;
}

D3D_FEATURE_LEVEL GetMaxSupportedFeatureLevel(ID3D12Device* device) {
    static constexpr D3D_FEATURE_LEVEL kLevels[] = {
        D3D_FEATURE_LEVEL_12_2, D3D_FEATURE_LEVEL_12_1,     D3D_FEATURE_LEVEL_12_0,
        D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0,     D3D_FEATURE_LEVEL_10_1,
        D3D_FEATURE_LEVEL_10_0, D3D_FEATURE_LEVEL_9_3,      D3D_FEATURE_LEVEL_9_2,
        D3D_FEATURE_LEVEL_9_1,  D3D_FEATURE_LEVEL_1_0_CORE,
    };
    D3D12_FEATURE_DATA_FEATURE_LEVELS levels = {};
    levels.NumFeatureLevels = static_cast<UINT>(std::size(kLevels));
    levels.pFeatureLevelsRequested = kLevels;
    const long result =
        device->CheckFeatureSupport(D3D12_FEATURE_FEATURE_LEVELS, &levels, sizeof(levels));
    if (result == DXGI_ERROR_UNSUPPORTED) {
        return D3D_FEATURE_LEVEL_11_1;
    }
    ThrowIfFailed<DirectX12Exception>(result, "Failed to check feature level for D3D12 device",
                                      device);
    return levels.MaxSupportedFeatureLevel;
}

D3D_ROOT_SIGNATURE_VERSION ProbeRootSignatureVersion(ID3D12Device* device) {
    // An older runtime fails on a version it does not know, so ask downwards.
    for (const auto version : {D3D_ROOT_SIGNATURE_VERSION_1_2, D3D_ROOT_SIGNATURE_VERSION_1_1,
                               D3D_ROOT_SIGNATURE_VERSION_1_0}) {
        D3D12_FEATURE_DATA_ROOT_SIGNATURE data = {version};
        if (SUCCEEDED(
                device->CheckFeatureSupport(D3D12_FEATURE_ROOT_SIGNATURE, &data, sizeof(data)))) {
            return data.HighestVersion;
        }
    }
    return D3D_ROOT_SIGNATURE_VERSION_1_0;
}

void ThrowUnlessAvailable(const std::source_location& location) {
    if (!D12Device::IsAvailable()) {
        ThrowResult<DirectX12Exception>(
            DXGI_ERROR_UNSUPPORTED, "DirectX 12 device interface is not supported on this system",
            {}, location);
    }
}

} // namespace

bool D12Device::IsAvailable() {
    return API::GetInstance().IsD12Loaded();
}

boost::intrusive_ptr<D12Device> D12Device::FindUsable(const LUID& luid) {
    const auto& devices = GetRegistry().devices;
    const auto found = std::ranges::find_if(devices, [&luid](D12Device* device) {
        return device->GetDeviceRemovedReason() == S_OK &&
               IsSameLuid(device->GetAdapterLuid(), luid);
    });
    return found != devices.end() ? boost::intrusive_ptr<D12Device>(*found) : nullptr;
}

boost::intrusive_ptr<D12Device>
D12Device::CreateOn(const DXGIAdapter& adapter,
                    std::shared_ptr<const AdapterDescription> description,
                    const std::source_location& location) {
    CComPtr<ID3D12Device> device;
    ThrowIfFailed<DirectX12Exception>(
        API::GetInstance().CreateDevice(adapter.Get(), GetMinFeatureLevel(), device),
        "Failed to create D3D12 device", {}, location);
    const D3D_FEATURE_LEVEL level = GetMaxSupportedFeatureLevel(device);
    return boost::intrusive_ptr<D12Device>(new D12Device(
        device, Platform::Query<IDXGIAdapter3>(adapter.Get()), std::move(description), level));
}

boost::intrusive_ptr<D12Device> D12Device::Create(const DXGIAdapter& adapter) {
    ThrowUnlessAvailable(std::source_location::current());
    auto description = adapter.GetDescription();
    const std::lock_guard guard(GetRegistry().lock);
    if (auto found = FindUsable(description->adapterLuid)) {
        return found;
    }
    return CreateOn(adapter, std::move(description), std::source_location::current());
}

boost::intrusive_ptr<D12Device> D12Device::Create(const LUID& luid) {
    ThrowUnlessAvailable(std::source_location::current());
    const std::lock_guard guard(GetRegistry().lock);
    if (auto found = FindUsable(luid)) {
        return found;
    }
    const DXGIAdapter adapter = DXGIFactory::Create()->GetAdapter(luid);
    return CreateOn(adapter, adapter.GetDescription(), std::source_location::current());
}

boost::intrusive_ptr<D12Device> D12Device::CreatePrimary() {
    return Create(DXGIFactory::Create()->GetPrimaryAdapter());
}

boost::intrusive_ptr<D12Device> D12Device::Find(ID3D12Device* device) {
    const std::lock_guard guard(GetRegistry().lock);
    const auto& devices = GetRegistry().devices;
    const auto found = std::ranges::find(devices, device, &D12Device::Get);
    return found != devices.end() ? boost::intrusive_ptr<D12Device>(*found) : nullptr;
}

D12Device::D12Device(const CComPtr<ID3D12Device>& device, const CComPtr<IDXGIAdapter3>& adapter,
                     std::shared_ptr<const AdapterDescription> description,
                     D3D_FEATURE_LEVEL featureLevel)
    : D3Device(std::move(description), featureLevel),
      m_device(device),
      m_adapter(adapter),
      m_rootSignatureVersion(ProbeRootSignatureVersion(device)),
      m_descriptorHeapPool(new D12DescriptorHeapPool(device)),
      m_queryHeapPool(new D12QueryHeapPool(device)),
      m_readbackBufferPool(new D12BufferPool(device, D3D12_HEAP_TYPE_READBACK)),
      m_uploadBufferPool(new D12BufferPool(device, D3D12_HEAP_TYPE_UPLOAD)),
      m_allocatorPool(std::make_unique<D12DevicePool<D12AllocatorState>>()),
      m_commandListPool(std::make_unique<D12DevicePool<CComPtr<ID3D12CommandList>>>()) {
    GetRegistry().devices.insert(this);
}

D12Device::~D12Device() = default;

// The last one is counted under the lock that Create and Find take, so that they never hand out a
// device whose count has reached zero; the others are many, everything that is recorded holds the
// device. It goes after the lock: its timers are waited for, and with Direct3D's objects go those
// that the host stored in them, which may call us.
std::uint32_t D12Device::Release() {
    if (const std::uint32_t count = DecrementUnlessLast()) {
        return count;
    }
    std::unique_ptr<D12Device> last;
    const std::lock_guard guard(GetRegistry().lock);
    const std::uint32_t left = DecrementRefCount();
    if (left == 0) {
        GetRegistry().devices.erase(this);
        last.reset(this);
    }
    return left;
}

long D12Device::GetDeviceRemovedReason() {
    return m_device->GetDeviceRemovedReason();
}

void D12Device::LogDebugMessages() const {
    Debug::DrainMessages(m_device.p);
}

std::optional<unsigned> D12Device::GetSDKVersion() const {
    return API::GetInstance().D3D12SDKVersion();
}

std::pair<bitflags<D3D12_FORMAT_SUPPORT1>, bitflags<D3D12_FORMAT_SUPPORT2>>
D12Device::CheckFormatSupport(DXGI_FORMAT format) const {
    D3D12_FEATURE_DATA_FORMAT_SUPPORT data = {};
    data.Format = format;
    if (FAILED(m_device->CheckFeatureSupport(D3D12_FEATURE_FORMAT_SUPPORT, &data, sizeof(data)))) {
        return {};
    }
    return {data.Support1, data.Support2};
}

std::optional<unsigned> D12Device::GetFormatPlaneCount(DXGI_FORMAT format) const {
    D3D12_FEATURE_DATA_FORMAT_INFO data = {};
    data.Format = format;
    if (FAILED(m_device->CheckFeatureSupport(D3D12_FEATURE_FORMAT_INFO, &data, sizeof(data)))) {
        return std::nullopt;
    }
    return data.PlaneCount;
}

D12AllocatorState D12Device::CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE type) {
    if (auto idle = m_allocatorPool->Take(type)) {
        return std::move(*idle);
    }
    return D12AllocatorState(m_device, type);
}

void D12Device::ReuseCommandAllocator(D3D12_COMMAND_LIST_TYPE type, D12AllocatorState&& state) {
    m_allocatorPool->Put(type, std::move(state));
}

CComPtr<ID3D12GraphicsCommandList>
D12Device::CreateCommandList(D3D12_COMMAND_LIST_TYPE type,
                             const CComPtr<ID3D12CommandAllocator>& allocator,
                             const CComPtr<ID3D12PipelineState>& pipelineState) {
    if (type < D3D12_COMMAND_LIST_TYPE_DIRECT || type > D3D12_COMMAND_LIST_TYPE_COPY) {
        Throw<DirectX12Exception>(
            fmt::format("Unsupported command list type: {}", static_cast<int>(type)));
    }
    CComPtr<ID3D12GraphicsCommandList> list;
    if (const auto idle = m_commandListPool->Take(type)) {
        list = Platform::Query<ID3D12GraphicsCommandList>(*idle);
    }
    if (list != nullptr) {
        ThrowIfFailed<DirectX12Exception>(list->Reset(allocator, pipelineState),
                                          "Failed to reset command list", m_device);
        return list;
    }
    ThrowIfFailed<DirectX12Exception>(
        m_device->CreateCommandList(0, type, allocator, pipelineState, IID_PPV_ARGS(&list)),
        "Failed to create command list", m_device);
    SetName(list, type, "command list");
    return list;
}

CComPtr<ID3D12CommandList> D12Device::CreateClosedCommandList(D3D12_COMMAND_LIST_TYPE type,
                                                              const GUID& riid) {
    static constexpr const char* kFailed = "Failed to create command list";
    CComPtr<ID3D12CommandList> list;
    // A list without the interface stays in the pool.
    long result = S_OK;
    m_commandListPool->TakeIf(type, [&](const CComPtr<ID3D12CommandList>& idle) {
        result = idle->QueryInterface(riid, reinterpret_cast<void**>(&list));
        return SUCCEEDED(result);
    });
    ThrowIfFailed<DirectX12Exception>(result, kFailed, m_device);
    if (list != nullptr) {
        return list;
    }
    CComPtr<ID3D12Device4> device4;
    ThrowIfFailed<DirectX12Exception>(m_device->QueryInterface(IID_PPV_ARGS(&device4)), kFailed,
                                      m_device);
    ThrowIfFailed<DirectX12Exception>(
        device4->CreateCommandList1(0, type, D3D12_COMMAND_LIST_FLAG_NONE, riid,
                                    reinterpret_cast<void**>(&list)),
        kFailed, m_device);
    SetName(list, type, "command list");
    return list;
}

void D12Device::ReuseCommandList(CComPtr<ID3D12CommandList>&& list) {
    const D3D12_COMMAND_LIST_TYPE type = list->GetType();
    m_commandListPool->Put(type, std::move(list));
}

D12PoolSizes D12Device::GetPoolSizes() const {
    D12PoolSizes sizes;
    sizes.commandAllocators = m_allocatorPool->Count();
    sizes.commandLists = m_commandListPool->Count();
    sizes.descriptorHeaps = m_descriptorHeapPool->CountFreeHeaps();
    sizes.queryHeaps = m_queryHeapPool->CountFreeHeaps();
    for (const auto& pool : {m_uploadBufferPool, m_readbackBufferPool}) {
        const auto [buffers, bytes] = pool->CountFree();
        sizes.buffers += buffers;
        sizes.bufferBytes += bytes;
    }
    return sizes;
}

D12DeviceStatistics D12Device::GetStatistics() const {
    D12DeviceStatistics statistics;
    static_cast<DeviceStatistics&>(statistics) = MakeStatistics(m_adapter);
    statistics.uploadBuffers = m_uploadBufferPool->GetStatistics();
    statistics.readbackBuffers = m_readbackBufferPool->GetStatistics();
    statistics.descriptorHeaps = m_descriptorHeapPool->GetStatistics();
    statistics.queryHeaps = m_queryHeapPool->GetStatistics();
    statistics.commandAllocators.inUse = m_allocatorsInUse;
    statistics.commandAllocators.idle = m_allocatorPool->Count();
    statistics.commandLists.inUse = m_listsInUse;
    statistics.commandLists.idle = m_commandListPool->Count();
    return statistics;
}

} // namespace Norvex::DX
