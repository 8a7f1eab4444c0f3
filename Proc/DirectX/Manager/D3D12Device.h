#pragma once

// The library's handle on one Direct3D 12 device, root of the Direct3D 12 side. At most one live
// D12Device an adapter: Create finds or makes it. It makes resources, pools and views, and keeps
// idle command allocators and lists for reuse. What one device made is never given to another's.
// Any thread may call any operation. Throws DirectX12Exception. Next: D3D12Command.h,
// D3D12DescriptorHeap.h.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <source_location>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/BitFlags.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3Device.h"

namespace Norvex::DX {

class D12AllocatorState;
class D12Buffer;
class D12BufferPool;
class D12CommandQueue;
class D12CompletionEvent;
class D12Descriptor;
class D12DescriptorCPUHeap;
class D12DescriptorGPUHeap;
class D12DescriptorHeapPool;
class D12Query;
class D12QueryHeapPool;
class D12ShaderParameters;
struct D12GraphicsPipelineDesc;
template <class T>
class D12DevicePool;

// What CreateBuffer makes.
struct D12BufferDesc {
    D3D12_HEAP_TYPE heapType = D3D12_HEAP_TYPE_DEFAULT; // who may touch it
    D3D12_HEAP_FLAGS heapFlags = D3D12_HEAP_FLAG_NONE;  // D3D12_HEAP_FLAG_SHARED to share it
    std::uint64_t size = 0;                             // bytes
    D3D12_RESOURCE_FLAGS resourceFlags = D3D12_RESOURCE_FLAG_NONE;    // what else it is for
    D3D12_RESOURCE_STATES initialState = D3D12_RESOURCE_STATE_COMMON; // when it is made
    const std::uint8_t* initialData = nullptr; // null, or `size` bytes; upload heap only
};

// What CreateTexture2D makes, in a default heap.
struct D12Texture2DDesc {
    D3D12_HEAP_FLAGS heapFlags = D3D12_HEAP_FLAG_NONE; // D3D12_HEAP_FLAG_SHARED to share it
    std::uint64_t width = 0;                           // pixels
    std::uint32_t height = 0;                          // pixels
    std::uint16_t arraySize = 1;                       // slices
    std::uint16_t mipLevels = 1;                       // 0: all down to 1 x 1
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN;          // of a pixel
    DXGI_SAMPLE_DESC sampleDesc = {1, 0};              // of a pixel
    D3D12_RESOURCE_FLAGS resourceFlags = D3D12_RESOURCE_FLAG_NONE;    // what else it is for
    D3D12_RESOURCE_STATES initialState = D3D12_RESOURCE_STATE_COMMON; // when it is made
    std::optional<std::array<float, 4>> clearColor; // RGBA; the optimised clear value
};

// Where one subresource lies in a linear buffer: Direct3D's placed footprint with row count and row
// size.
struct D12PlacedSubResourceFootprint {
    std::uint64_t Offset = 0;                   // bytes from the start
    D3D12_SUBRESOURCE_FOOTPRINT Footprint = {}; // format, extent and row pitch
    std::uint32_t NumRows = 0;                  // of pixels or blocks
    std::uint64_t RowSizeInBytes = 0;           // without the padding of RowPitch
};

class NORVEX_DX_API D12Device : public D3Device {
public:
    // Whether the system has Direct3D 12 (not whether an adapter does).
    static bool IsAvailable();
    // The lowest that Create takes.
    static D3D_FEATURE_LEVEL GetMinFeatureLevel() { return D3D_FEATURE_LEVEL_11_1; }

    // The live device of the adapter, or a new one; a removed device is not reused. "DirectX 12
    // device interface is not supported on this system" (DXGI_ERROR_UNSUPPORTED), "Failed to create
    // D3D12 device", "Failed to check feature level for D3D12 device", and what DXGIFactory and
    // DXGIAdapter throw.
    static boost::intrusive_ptr<D12Device> Create(const DXGIAdapter& adapter);
    static boost::intrusive_ptr<D12Device> Create(const LUID& luid);
    // On adapter 0. Also throws what DXGIFactory throws.
    static boost::intrusive_ptr<D12Device> CreatePrimary();
    // The live wrapper of a raw device, removed or not; null when there is none. There is no
    // Attach: where a process has one ID3D12Device an adapter, as on Windows, Create answers a
    // wrapper of the host's own for that one's LUID (GetAdapterLuid, Platform/D3D12Abi.h;
    // docs/lifetime.md).
    static boost::intrusive_ptr<D12Device> Find(ID3D12Device* device);

    ~D12Device() override;
    std::uint32_t Release() override;
    long GetDeviceRemovedReason() override;
    void LogDebugMessages() const override;

    // The raw device, borrowed.
    ID3D12Device* Get() const { return m_device; }
    // Of the loaded Direct3D 12 runtime; empty when it does not say.
    std::optional<unsigned> GetSDKVersion() const;
    // The newest that the device takes.
    D3D_ROOT_SIGNATURE_VERSION GetRootSignatureVersion() const { return m_rootSignatureVersion; }
    // Empty sets when the device does not know the format.
    std::pair<bitflags<D3D12_FORMAT_SUPPORT1>, bitflags<D3D12_FORMAT_SUPPORT2>>
    CheckFormatSupport(DXGI_FORMAT format) const;
    // Empty when the device does not know the format.
    std::optional<unsigned> GetFormatPlaneCount(DXGI_FORMAT format) const;

    // An upload heap needs the initial state generic read, a readback heap copy destination: else
    // "Invalid initial state". Initial data: "Invalid heap type" unless on an upload heap, "Failed
    // to map buffer". "Failed to create buffer"; size 0 too.
    CComPtr<ID3D12Resource> CreateBuffer(const D12BufferDesc& desc);
    // "Failed to create 2D texture".
    CComPtr<ID3D12Resource> CreateTexture2D(const D12Texture2DDesc& desc);
    // One record a subresource; totalBytes is the buffer's size from baseOffset on. "Subresource
    // index out of range".
    void GetCopyableFootprints(const D3D12_RESOURCE_DESC& desc, unsigned firstSubresource,
                               unsigned subresourceCount, std::uint64_t baseOffset,
                               std::vector<D12PlacedSubResourceFootprint>& footprints,
                               std::uint64_t& totalBytes) const;
    // An NT handle that the caller closes. "Failed to create shared handle", in both directions;
    // null too.
    HANDLE CreateSharedHandle(ID3D12DeviceChild* object);
    // A resource of another device or process; the handle stays the caller's.
    CComPtr<ID3D12Resource> OpenSharedResource(HANDLE handle);
    // "Failed to create graphics pipeline state", and what the description's conversion throws.
    CComPtr<ID3D12PipelineState> CreateGraphicsPipelineState(const D12GraphicsPipelineDesc& desc);

    // Default: direct, of normal priority. "Failed to create command queue".
    boost::intrusive_ptr<D12CommandQueue>
    CreateCommandQueue(const D3D12_COMMAND_QUEUE_DESC& desc = {});
    // A fence with target 0; D3D12_FENCE_FLAG_SHARED for Direct3D 11.
    boost::intrusive_ptr<D12CompletionEvent> CreateCompletionEvent(D3D12_FENCE_FLAGS flags);
    // A pool of the caller's own.
    boost::intrusive_ptr<D12BufferPool> CreateBufferPool(D3D12_HEAP_TYPE heapType);
    // From the device's own pools; contents are undefined.
    boost::intrusive_ptr<D12Buffer> CreateUploadBuffer(std::uint64_t size);
    // From the device's own pools; contents are undefined.
    boost::intrusive_ptr<D12Buffer> CreateReadbackBuffer(std::uint64_t size);
    // Empty ones.
    boost::intrusive_ptr<D12ShaderParameters> CreateShaderParameters();
    // From the device's own pool. See D12QueryHeapPool::CreateQuery.
    boost::intrusive_ptr<D12Query> CreateQuery(D3D12_QUERY_TYPE type);

    // A shader-visible heap of at least `count` views. See D12DescriptorHeapPool::CreateGPUHeap.
    boost::intrusive_ptr<D12DescriptorGPUHeap> CreateViewHeap(unsigned count);
    // CPU heaps of at least `count` descriptors, the caller's own.
    boost::intrusive_ptr<D12DescriptorCPUHeap> CreateShaderViewHeap(unsigned count);
    // For at least count samplers, not shader-visible.
    boost::intrusive_ptr<D12DescriptorCPUHeap> CreateSamplerHeap(unsigned count);
    // For at least count render targets.
    boost::intrusive_ptr<D12DescriptorCPUHeap> CreateRenderTargetViewHeap(unsigned count);
    // For at least count depth buffers.
    boost::intrusive_ptr<D12DescriptorCPUHeap> CreateDepthStencilViewHeap(unsigned count);
    // One-off views in the device's shared heaps; see D12DescriptorHeapPool.
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource);
    boost::intrusive_ptr<D12Descriptor>
    CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource,
                           const std::optional<D3D12_RENDER_TARGET_VIEW_DESC>& desc);
    // All of a texture, from the device's shared heaps.
    boost::intrusive_ptr<D12Descriptor>
    CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource);
    // As described, one plane or slice of a texture for example.
    boost::intrusive_ptr<D12Descriptor>
    CreateShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                             const std::optional<D3D12_SHADER_RESOURCE_VIEW_DESC>& desc);

    // Idle allocators and lists, for the command classes; see D12DevicePool. What comes back must
    // be idle (the GPU is done; a list is closed). "Failed to create command allocator".
    D12AllocatorState CreateCommandAllocator(D3D12_COMMAND_LIST_TYPE type);
    // Takes back what an allocator was lent.
    void ReuseCommandAllocator(D3D12_COMMAND_LIST_TYPE type, D12AllocatorState&& state);
    // Open for recording; types direct, bundle, compute and copy, else "Unsupported command list
    // type: " and the number. "Failed to reset command list", "Failed to create command list".
    CComPtr<ID3D12GraphicsCommandList>
    CreateCommandList(D3D12_COMMAND_LIST_TYPE type,
                      const CComPtr<ID3D12CommandAllocator>& allocator,
                      const CComPtr<ID3D12PipelineState>& pipelineState);
    // Closed, without allocator; as the interface `riid`, which derives from ID3D12CommandList.
    // "Failed to create command list".
    CComPtr<ID3D12CommandList> CreateClosedCommandList(D3D12_COMMAND_LIST_TYPE type,
                                                       const GUID& riid);
    // Takes back what a list was lent.
    void ReuseCommandList(CComPtr<ID3D12CommandList>&& list);

    // At this moment, for statistics. What is in use is not counted.
    D12PoolSizes GetPoolSizes() const;
    // What is in use too, and video memory.
    D12DeviceStatistics GetStatistics() const;

private:
    friend class D12CommandAllocator; // these two count themselves
    friend class D12CommandList;

    D12Device(const CComPtr<ID3D12Device>& device, const CComPtr<IDXGIAdapter3>& adapter,
              std::shared_ptr<const AdapterDescription> description,
              D3D_FEATURE_LEVEL featureLevel);

    static boost::intrusive_ptr<D12Device> FindUsable(const LUID& luid);
    static boost::intrusive_ptr<D12Device>
    CreateOn(const DXGIAdapter& adapter, std::shared_ptr<const AdapterDescription> description,
             const std::source_location& location);

    CComPtr<ID3D12Device> m_device;
    CComPtr<IDXGIAdapter3> m_adapter; // null on old systems
    std::atomic<std::size_t> m_allocatorsInUse{0};
    std::atomic<std::size_t> m_listsInUse{0};
    D3D_ROOT_SIGNATURE_VERSION m_rootSignatureVersion;
    boost::intrusive_ptr<D12DescriptorHeapPool> m_descriptorHeapPool;
    boost::intrusive_ptr<D12QueryHeapPool> m_queryHeapPool;
    boost::intrusive_ptr<D12BufferPool> m_readbackBufferPool;
    boost::intrusive_ptr<D12BufferPool> m_uploadBufferPool;
    std::unique_ptr<D12DevicePool<D12AllocatorState>> m_allocatorPool;
    std::unique_ptr<D12DevicePool<CComPtr<ID3D12CommandList>>> m_commandListPool;
};

} // namespace Norvex::DX
