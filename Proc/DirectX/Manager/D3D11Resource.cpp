#include "Proc/DirectX/Manager/D3D11Resource.h"

#include <limits>
#include <source_location>
#include <utility>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/Annotation.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D11DeviceContext.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

void Require(const boost::intrusive_ptr<D11Device>& device,
             const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(device != nullptr, "DirectX 11 device is null", location);
}

CComPtr<ID3D11Texture2D>
Required(const CComPtr<ID3D11Texture2D>& texture,
         const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX11Exception>(texture != nullptr, "Texture is null", location);
    return texture;
}

CComPtr<ID3D11Device> GetDevice(ID3D11DeviceChild* object) {
    CComPtr<ID3D11Device> device;
    object->GetDevice(&device);
    return device;
}

Size2DT<long> SizeOf(ID3D11Texture2D* texture) {
    D3D11_TEXTURE2D_DESC desc = {};
    texture->GetDesc(&desc);
    return {static_cast<long>(desc.Width), static_cast<long>(desc.Height)};
}

DXGI_FORMAT FormatOf(ID3D11Texture2D* texture) {
    D3D11_TEXTURE2D_DESC desc = {};
    texture->GetDesc(&desc);
    return desc.Format;
}

template <class Object>
CComPtr<Object> Named(CComPtr<Object> object, const char* name) {
    SetName(object, name);
    return object;
}

// What may be made anew for every frame.
template <class Object>
CComPtr<Object> NamedForTool(CComPtr<Object> object, const char* name) {
    return IsToolPresent() ? Named(std::move(object), name) : object;
}

CComPtr<ID3D11RenderTargetView>
CreateRenderTargetView(ID3D11Texture2D* texture, const std::optional<DXGI_FORMAT>& viewFormat) {
    const auto device = GetDevice(texture);
    D3D11_RENDER_TARGET_VIEW_DESC desc = {};
    desc.Format = viewFormat.value_or(FormatOf(texture));
    desc.ViewDimension = D3D11_RTV_DIMENSION_TEXTURE2D;
    CComPtr<ID3D11RenderTargetView> view;
    ThrowIfFailed<DirectX11Exception>(device->CreateRenderTargetView(texture, &desc, &view),
                                      "Failed to create render rarget view", device);
    return NamedForTool(view, "render target view");
}

CComPtr<ID3D11ShaderResourceView>
CreateShaderResourceView(ID3D11Texture2D* texture, const std::optional<DXGI_FORMAT>& viewFormat) {
    const auto device = GetDevice(texture);
    D3D11_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = viewFormat.value_or(FormatOf(texture));
    desc.ViewDimension = D3D11_SRV_DIMENSION_TEXTURE2D;
    desc.Texture2D.MipLevels = 1;
    CComPtr<ID3D11ShaderResourceView> view;
    ThrowIfFailed<DirectX11Exception>(device->CreateShaderResourceView(texture, &desc, &view),
                                      "Failed to create shader resource view", device);
    return NamedForTool(view, "shader resource view");
}

CComPtr<IDXGIKeyedMutex> GetKeyedMutex(ID3D11Texture2D* texture) {
    CComPtr<IDXGIKeyedMutex> mutex;
    ThrowIfFailed<DirectX11Exception>(texture->QueryInterface(IID_PPV_ARGS(&mutex)),
                                      "Failed to get texture key mutex", GetDevice(texture));
    return mutex;
}

template <class Index>
CComPtr<ID3D11Buffer>
CreateIndices(const boost::intrusive_ptr<D11Device>& device, const std::vector<Index>& indices,
              const std::source_location& location = std::source_location::current()) {
    return Named(CreateFilledBuffer(device, D3D11_BIND_INDEX_BUFFER, indices.data(),
                                    UINT64{sizeof(Index)} * indices.size(), location),
                 "index buffer");
}

} // namespace

CComPtr<ID3D11Buffer> CreateFilledBuffer(const boost::intrusive_ptr<D11Device>& device,
                                         D3D11_BIND_FLAG bind, const void* data, UINT64 sizeInBytes,
                                         const std::source_location& location) {
    Require(device, location);
    if (data == nullptr || sizeInBytes == 0 || sizeInBytes > std::numeric_limits<UINT>::max()) {
        ThrowResult<DirectX11Exception>(
            E_INVALIDARG, fmt::format("Failed to create ID3D11Buffer: byteWidth = {}", sizeInBytes),
            device->Get(), location);
    }
    D3D11_BUFFER_DESC desc = {};
    desc.ByteWidth = static_cast<UINT>(sizeInBytes);
    desc.Usage = D3D11_USAGE_DEFAULT;
    desc.BindFlags = bind;
    const D3D11_SUBRESOURCE_DATA initialData = {data, 0, 0};
    return device->CreateBuffer(desc, &initialData);
}

D11RenderTexture2D::D11RenderTexture2D(const CComPtr<ID3D11Texture2D>& texture,
                                       const std::optional<DXGI_FORMAT>& viewFormat)
    : m_texture(Required(texture)),
      m_view(CreateRenderTargetView(texture, viewFormat)) {}

D11RenderTexture2D::~D11RenderTexture2D() = default;

boost::intrusive_ptr<D11RenderTexture2D>
D11RenderTexture2D::Create(const boost::intrusive_ptr<D11Device>& device,
                           const D3D11_TEXTURE2D_DESC& desc) {
    Require(device);
    D3D11_TEXTURE2D_DESC bound = desc;
    bound.BindFlags |= D3D11_BIND_RENDER_TARGET;
    return boost::intrusive_ptr<D11RenderTexture2D>(new D11RenderTexture2D(
        NamedForTool(device->CreateTexture2D(bound, nullptr), "render texture"), std::nullopt));
}

Size2DT<long> D11RenderTexture2D::GetSize() const {
    return SizeOf(m_texture);
}

Rect2DT<long> D11RenderTexture2D::GetRect() const {
    const Size2DT<long> size = GetSize();
    return {0, 0, size.width, size.height};
}

D11ShaderTexture2D::D11ShaderTexture2D(const CComPtr<ID3D11Texture2D>& texture,
                                       const std::optional<DXGI_FORMAT>& viewFormat)
    : m_texture(Required(texture)),
      m_view(CreateShaderResourceView(texture, viewFormat)) {}

D11ShaderTexture2D::~D11ShaderTexture2D() = default;

boost::intrusive_ptr<D11ShaderTexture2D>
D11ShaderTexture2D::Create(const boost::intrusive_ptr<D11Device>& device,
                           const D3D11_TEXTURE2D_DESC& desc,
                           const D3D11_SUBRESOURCE_DATA* initialData) {
    Require(device);
    D3D11_TEXTURE2D_DESC bound = desc;
    bound.BindFlags |= D3D11_BIND_SHADER_RESOURCE;
    return boost::intrusive_ptr<D11ShaderTexture2D>(new D11ShaderTexture2D(
        NamedForTool(device->CreateTexture2D(bound, initialData), "shader texture"), std::nullopt));
}

Size2DT<long> D11ShaderTexture2D::GetSize() const {
    return SizeOf(m_texture);
}

D11SharedTexture2D::D11SharedTexture2D(const CComPtr<ID3D11Texture2D>& texture)
    : m_texture(Required(texture)),
      m_keyedMutex(GetKeyedMutex(texture)) {}

D11SharedTexture2D::~D11SharedTexture2D() = default;

boost::intrusive_ptr<D11SharedTexture2D>
D11SharedTexture2D::Create(const boost::intrusive_ptr<D11Device>& device,
                           const D3D11_TEXTURE2D_DESC& desc) {
    Require(device);
    ThrowUnless<DirectX11Exception>(device->GetFeatureLevel() >= D3D_FEATURE_LEVEL_11_1,
                                    "Shared texture not supported");
    D3D11_TEXTURE2D_DESC shared = desc;
    shared.MiscFlags |= D3D11_RESOURCE_MISC_SHARED_KEYEDMUTEX | D3D11_RESOURCE_MISC_SHARED_NTHANDLE;
    return boost::intrusive_ptr<D11SharedTexture2D>(new D11SharedTexture2D(
        NamedForTool(device->CreateTexture2D(shared, nullptr), "shared texture")));
}

Size2DT<long> D11SharedTexture2D::GetSize() const {
    return SizeOf(m_texture);
}

// Without the encode lock: it may wait for somebody who needs that lock to release.
void D11SharedTexture2D::AcquireSync(UINT64 key, DWORD milliseconds) {
    ThrowIfFailed<DirectX11Exception>(m_keyedMutex->AcquireSync(key, milliseconds),
                                      "Failed to acquire texture key mutex", GetDevice(m_texture));
}

void D11SharedTexture2D::ReleaseSync(UINT64 key) {
    const auto device = GetDevice(m_texture);
    long result = S_OK;
    const auto release = [&](const auto&...) { result = m_keyedMutex->ReleaseSync(key); };
    if (const auto wrapper = D11Device::Find(device)) {
        wrapper->Encode(release);
    } else {
        release();
    }
    ThrowIfFailed<DirectX11Exception>(result, "Failed to release texture key mutex", device);
}

HANDLE D11SharedTexture2D::CreateSharedHandle(DWORD access) {
    const auto device = GetDevice(m_texture);
    CComPtr<IDXGIResource1> resource;
    ThrowIfFailed<DirectX11Exception>(m_texture->QueryInterface(IID_PPV_ARGS(&resource)),
                                      "Failed to query interface", device);
    HANDLE handle = nullptr;
    ThrowIfFailed<DirectX11Exception>(
        resource->CreateSharedHandle(nullptr, access, nullptr, &handle),
        "Failed to create shared handle", device);
    return handle;
}

D11VertexBuffer::D11VertexBuffer(const CComPtr<ID3D11Buffer>& buffer, UINT stride, UINT count)
    : m_buffer(buffer),
      m_stride(stride),
      m_count(count) {}

D11VertexBuffer::~D11VertexBuffer() = default;

boost::intrusive_ptr<D11VertexBuffer>
D11VertexBuffer::Create(const boost::intrusive_ptr<D11Device>& device, const void* data,
                        UINT stride, UINT count) {
    const auto buffer =
        Named(CreateFilledBuffer(device, D3D11_BIND_VERTEX_BUFFER, data, UINT64{stride} * count),
              "vertex buffer");
    return boost::intrusive_ptr<D11VertexBuffer>(new D11VertexBuffer(buffer, stride, count));
}

D11IndexBuffer::D11IndexBuffer(const CComPtr<ID3D11Buffer>& buffer, DXGI_FORMAT format, UINT count)
    : m_buffer(buffer),
      m_format(format),
      m_count(count) {}

D11IndexBuffer::~D11IndexBuffer() = default;

boost::intrusive_ptr<D11IndexBuffer>
D11IndexBuffer::Create(const boost::intrusive_ptr<D11Device>& device,
                       const std::vector<std::uint16_t>& indices) {
    return boost::intrusive_ptr<D11IndexBuffer>(new D11IndexBuffer(
        CreateIndices(device, indices), DXGI_FORMAT_R16_UINT, static_cast<UINT>(indices.size())));
}

boost::intrusive_ptr<D11IndexBuffer>
D11IndexBuffer::Create(const boost::intrusive_ptr<D11Device>& device,
                       const std::vector<std::uint32_t>& indices) {
    return boost::intrusive_ptr<D11IndexBuffer>(new D11IndexBuffer(
        CreateIndices(device, indices), DXGI_FORMAT_R32_UINT, static_cast<UINT>(indices.size())));
}

D11CompletionEvent::D11CompletionEvent(const CComPtr<ID3D11Fence>& fence,
                                       const boost::intrusive_ptr<D12CompletionEvent>& event)
    : m_fence(fence),
      m_event(event) {
    ThrowUnless<DirectX11Exception>(m_fence != nullptr && m_event != nullptr,
                                    "Completion event is null");
}

D11CompletionEvent::~D11CompletionEvent() = default;

boost::intrusive_ptr<D11CompletionEvent>
D11CompletionEvent::OpenShared(const boost::intrusive_ptr<D11Device>& device,
                               const boost::intrusive_ptr<D12CompletionEvent>& event) {
    Require(device);
    ThrowUnless<DirectX11Exception>(device->IsFencesSupported(), "Shared fence not supported");
    ThrowUnless<DirectX11Exception>(event != nullptr, "Completion event is null");
    ThrowUnless<DirectX11Exception>(event->GetSharedHandle() != nullptr,
                                    "D12 completion event not shared");
    CComPtr<ID3D11Fence> fence;
    ThrowIfFailed<DirectX11Exception>(
        device->Get5()->OpenSharedFence(event->GetSharedHandle(), IID_PPV_ARGS(&fence)),
        "Failed to create fence", device->Get());
    SetName(fence, "completion fence");
    return boost::intrusive_ptr<D11CompletionEvent>(new D11CompletionEvent(fence, event));
}

UINT64 D11CompletionEvent::GetValue() const {
    return m_event->GetValue();
}

UINT64 D11CompletionEvent::PreIncrementValue() const {
    return m_event->PreIncrementValue();
}

long D11CompletionEvent::SignalOn(ID3D11DeviceContext4& context) const {
    return m_event->SignalNext([&](std::uint64_t value) { return context.Signal(m_fence, value); });
}

} // namespace Norvex::DX
