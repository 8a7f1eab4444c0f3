#pragma once

// Command lists. A list collects the objects that it uses, each before the call that uses it is
// recorded; on submission they move to the allocator, which keeps them until the GPU has finished.
// One thread records a list at a time. Throws DirectX12Exception; what is null where an object is
// needed throws "... is null", with nothing recorded. The direct forwards take their arguments as
// Direct3D 12 does and keep alive the objects they are given.

#include <cstdint>
#include <memory>
#include <source_location>
#include <span>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/Color.h"
#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12CommandTracking.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

class D12DescriptorGPUHeap;
class D12DrawState;
class D12Query;
class D12QuadPipeline;
namespace Staging {
struct Subresources;
}

class NORVEX_DX_API D12CommandList : public LiveObject {
public:
    // A host's own list keeps its Direct3D allocator itself: `allocator` is null then.
    D12CommandList(const boost::intrusive_ptr<D12Device>& device,
                   const CComPtr<ID3D12CommandList>& list,
                   const CComPtr<ID3D12CommandAllocator>& allocator = nullptr);
    // Gives the Direct3D list back to the device.
    ~D12CommandList() override;
    D12CommandList(const D12CommandList&) = delete;
    D12CommandList& operator=(const D12CommandList&) = delete;

    // The raw list, borrowed.
    ID3D12CommandList* Get() const { return m_list; }
    // The queue's.
    D3D12_COMMAND_LIST_TYPE GetType() const;
    // Whether Close has succeeded.
    bool IsClosed() const { return m_closed; }

    // Keeps the object alive until the GPU has finished; null, and an object already kept, are
    // ignored. The time it takes does not grow with the number of objects.
    void TrackObject(ID3D12DeviceChild* object);
    void TrackObject(const boost::intrusive_ptr<IRefCountable>& object);

protected:
    // The queue's.
    const boost::intrusive_ptr<D12Device>& GetDevice() const { return m_device; }
    // For Close alone.
    void MarkClosed() { m_closed = true; }
    // Keeps the object without asking whether it is kept already.
    template <class Object>
    void Keep(Object* object) {
        m_tracked.Add(object);
    }
    // The Direct3D list dies with this object instead of going back to the device.
    void KeepOutOfPool() { m_isPoolable = false; }

private:
    friend class D12CommandAllocator;

    boost::intrusive_ptr<D12Device> m_device;
    // An open list needs it, even when it outlives the wrapper of the allocator.
    CComPtr<ID3D12CommandAllocator> m_allocator;
    bool m_closed = false;
    bool m_isPoolable = true;
    CComPtr<ID3D12CommandList> m_list;
    D12TrackedObjects m_tracked;
};

class NORVEX_DX_API D12GraphicsCommandList : public D12CommandList {
public:
    // The list is open. It keeps the Direct3D allocator that it records on.
    D12GraphicsCommandList(const boost::intrusive_ptr<D12Device>& device,
                           const CComPtr<ID3D12GraphicsCommandList>& list,
                           const CComPtr<ID3D12CommandAllocator>& allocator = nullptr);
    // Closes an open list: its recording was given up.
    ~D12GraphicsCommandList() override;

    // For recording what this class has not. Ask anew after each drawer's Encode on this list: each
    // call makes the drawers set all their state again, whatever is set through the pointer.
    ID3D12GraphicsCommandList* GetGraphics() const;

    // Ends recording. "Failed to close command list": what was recorded is wrong or memory ran out;
    // the list stays open.
    virtual void Close();

    // All that follows: "The command list is closed".
    //
    // depth may be null. "The descriptor is not a render target view", "... depth stencil view"; at
    // most 8 targets: "Invalid render target count".
    void OMSetRenderTarget(const boost::intrusive_ptr<D12Descriptor>& target,
                           const boost::intrusive_ptr<D12Descriptor>& depth);
    // At most 8; depth may be null. Keeps what the views show.
    void OMSetRenderTargets(const std::vector<boost::intrusive_ptr<D12Descriptor>>& targets,
                            const boost::intrusive_ptr<D12Descriptor>& depth);
    // No rectangles: the whole view.
    void ClearRenderTargetView(const boost::intrusive_ptr<D12Descriptor>& target,
                               const Proc::ColorF& color, const std::vector<RECT>& rects);

    // A null buffer leaves its slot (null index buffer: the index slot) without one.
    void IASetVertexBuffer(const boost::intrusive_ptr<D12VertexBuffer>& buffer); // slot 0
    // From startSlot on. Keeps them.
    void IASetVertexBuffers(unsigned startSlot,
                            const std::vector<boost::intrusive_ptr<D12VertexBuffer>>& buffers);
    // In its own format. Keeps it.
    void IASetIndexBuffer(const boost::intrusive_ptr<D12IndexBuffer>& buffer);
    // What vertices make up.
    void IASetPrimitiveTopology(D3D_PRIMITIVE_TOPOLOGY topology);
    // All vertices (indices) of the buffer, one instance. "Vertex buffer is null", "Index buffer is
    // null".
    void Draw(const boost::intrusive_ptr<D12VertexBuffer>& buffer);
    // As many indices as the buffer has.
    void DrawIndexed(const boost::intrusive_ptr<D12IndexBuffer>& buffer);

    // Pixels of the target.
    void RSSetViewports(const std::vector<D3D12_VIEWPORT>& viewports);
    // Pixels of the target.
    void RSSetScissorRects(const std::vector<RECT>& rects);
    // Keeps it.
    void SetPipelineState(const CComPtr<ID3D12PipelineState>& pipelineState);
    // Keeps it. Root arguments are unset then.
    void SetRootSignature(const CComPtr<ID3D12RootSignature>& rootSignature);
    // Either may be null; with both null no heap is set.
    void SetDescriptorHeaps(const boost::intrusive_ptr<D12DescriptorGPUHeap>& views,
                            const boost::intrusive_ptr<D12DescriptorGPUHeap>& samplers);
    // count values of 32 bits, copied.
    void SetRoot32BitConstants(unsigned rootIndex, unsigned count, const void* data);
    // Of a heap that SetDescriptorHeaps has set.
    void SetRootDescriptorTable(unsigned rootIndex, D3D12_GPU_DESCRIPTOR_HANDLE table);
    // The buffer behind the address is the caller's to track.
    void SetRootConstantBufferView(unsigned rootIndex, D3D12_GPU_VIRTUAL_ADDRESS address);
    // The buffer behind the address is the caller's to track.
    void SetRootShaderResourceView(unsigned rootIndex, D3D12_GPU_VIRTUAL_ADDRESS address);
    // The buffer behind the address is the caller's to track.
    void SetRootUnorderedAccessView(unsigned rootIndex, D3D12_GPU_VIRTUAL_ADDRESS address);

    // Keeps alive the resources that the barriers name.
    void ResourceBarrier(const std::vector<D3D12_RESOURCE_BARRIER>& barriers);
    // Whole resources of one size and format family. Keeps both.
    void CopyResource(const CComPtr<ID3D12Resource>& destination,
                      const CComPtr<ID3D12Resource>& source);
    // Offsets and size in bytes. Keeps both buffers.
    void CopyBufferRegion(const CComPtr<ID3D12Resource>& destination,
                          std::uint64_t destinationOffset, const CComPtr<ID3D12Resource>& source,
                          std::uint64_t sourceOffset, std::uint64_t size);
    // sourceBox may be null: the whole subresource.
    void CopyTextureRegion(const D3D12_TEXTURE_COPY_LOCATION& destination, unsigned x, unsigned y,
                           unsigned z, const D3D12_TEXTURE_COPY_LOCATION& source,
                           const D3D12_BOX* sourceBox);

    // BeginQuery not for time stamps. EndQuery also has the result written to the query's place in
    // the readback buffer.
    void BeginQuery(const boost::intrusive_ptr<D12Query>& query);
    // Ends what BeginQuery began; a time stamp is taken here. Keeps the query.
    void EndQuery(const boost::intrusive_ptr<D12Query>& query);

    // In upload memory, filled at once. The sizes are in bytes and vertices. What
    // D12Device::CreateBuffer throws.
    boost::intrusive_ptr<D12VertexBuffer> CreateVertexBuffer(const void* data, unsigned vertexSize,
                                                             unsigned vertexCount);
    // In upload memory, of at least one index. What D12Device::CreateBuffer throws.
    boost::intrusive_ptr<D12IndexBuffer>
    CreateIndexBuffer(const std::vector<std::uint16_t>& indices);
    // In upload memory, of at least one index. What D12Device::CreateBuffer throws.
    boost::intrusive_ptr<D12IndexBuffer>
    CreateIndexBuffer(const std::vector<std::uint32_t>& indices);

    // Record the transfer; messages as of D12CommandQueue. The data are read at once. When one
    // throws, nothing was recorded.
    void UploadRegion(const D12UploadRegionParams& params);
    // Into a texture; what is wrong: D12CommandQueue.
    void UploadResource(const D12UploadResourceParams& params);

private:
    friend class D12CommandAllocator;
    friend class D12CommandQueue;
    friend class D12DrawState;
    friend class D12QuadPipeline;

    // Ends a recording that failed, so that the next one finds the allocator free.
    void GiveUp() noexcept;
    // The list is open, else it throws for the operation that asks; forgets items.
    void Begin(unsigned items = 0,
               const std::source_location& location = std::source_location::current()) const;
    // Items of D12DrawState, which the host may have set.
    void Forget(unsigned items) const;
    void RecordBarriers(std::span<const D3D12_RESOURCE_BARRIER> barriers);
    // Of all subresources; nothing when the states are equal.
    void RecordTransition(const CComPtr<ID3D12Resource>& resource, D3D12_RESOURCE_STATES before,
                          D3D12_RESOURCE_STATES after);
    void RecordTransition(const CComPtr<ID3D12Resource>& resource,
                          const Staging::Subresources& subresources, D3D12_RESOURCE_STATES before,
                          D3D12_RESOURCE_STATES after);
    void SetTargets(std::span<const boost::intrusive_ptr<D12Descriptor>> targets,
                    const boost::intrusive_ptr<D12Descriptor>& depth);
    CComPtr<ID3D12Resource> CreateInputBuffer(const void* data, std::uint64_t size,
                                              const wchar_t* name);

    CComPtr<ID3D12GraphicsCommandList> m_graphicsList;
    std::unique_ptr<D12DrawState> m_drawState; // of an open list that drawers have drawn into
};

} // namespace Norvex::DX
