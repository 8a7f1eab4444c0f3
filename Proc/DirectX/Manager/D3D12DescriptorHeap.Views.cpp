// Views of whole resources, described from the resources themselves.

#include <cstring>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr unsigned kAllMipLevels = ~0u;
constexpr unsigned kCubeFaces = 6;

bool IsArray(const D3D12_RESOURCE_DESC& resource) {
    return resource.DepthOrArraySize >= 2;
}

D3D12_RESOURCE_DESC
DescOf(const CComPtr<ID3D12Resource>& resource,
       const std::source_location& location = std::source_location::current()) {
    ThrowUnless<DirectX12Exception>(resource != nullptr, "Unsupported resource", location);
    return Platform::GetDesc(resource);
}

// Buffers have operations of their own.
[[noreturn]] void
ThrowNotATexture(const D3D12_RESOURCE_DESC& resource,
                 const std::source_location& location = std::source_location::current()) {
    Throw<DirectX12Exception>(resource.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER
                                  ? "Unsupported resource"
                                  : "Unknown resource",
                              location);
}

// All zero but the format. Initialisers leave the padding of a union's first member, where others
// have fields, as it is.
template <class ViewDesc>
ViewDesc MakeViewDesc(DXGI_FORMAT format) {
    ViewDesc view;
    std::memset(&view, 0, sizeof(view));
    view.Format = format;
    return view;
}

unsigned ElementCount(const D3D12_RESOURCE_DESC& buffer, unsigned stride) {
    return static_cast<unsigned>(stride == 0 ? buffer.Width : buffer.Width / stride);
}

bool IsReadableBuffer(const D3D12_RESOURCE_DESC& resource) {
    return resource.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER &&
           (resource.Flags & D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE) == 0;
}

void DescribeTexture2D(const D3D12_RESOURCE_DESC& resource, bool cube, unsigned mipLevels,
                       D3D12_SHADER_RESOURCE_VIEW_DESC& view) {
    if (cube && resource.DepthOrArraySize > kCubeFaces) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURECUBEARRAY;
        view.TextureCubeArray.MipLevels = mipLevels;
        view.TextureCubeArray.NumCubes = resource.DepthOrArraySize / kCubeFaces;
    } else if (cube) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURECUBE;
        view.TextureCube.MipLevels = mipLevels;
    } else if (IsArray(resource)) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE2DARRAY;
        view.Texture2DArray.MipLevels = mipLevels;
        view.Texture2DArray.ArraySize = resource.DepthOrArraySize;
    } else {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE2D;
        view.Texture2D.MipLevels = mipLevels;
    }
}

void DescribeTexture2D(const D3D12_RESOURCE_DESC& resource, unsigned mipSlice,
                       D3D12_RENDER_TARGET_VIEW_DESC& view) {
    const bool isMultisampled = resource.SampleDesc.Count >= 2;
    if (isMultisampled && IsArray(resource)) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2DMSARRAY;
        view.Texture2DMSArray.ArraySize = resource.DepthOrArraySize;
    } else if (isMultisampled) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2DMS;
    } else if (IsArray(resource)) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2DARRAY;
        view.Texture2DArray.MipSlice = mipSlice;
        view.Texture2DArray.ArraySize = resource.DepthOrArraySize;
    } else {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2D;
        view.Texture2D.MipSlice = mipSlice;
    }
}

void DescribeTexture2D(const D3D12_RESOURCE_DESC& resource, unsigned mipSlice,
                       D3D12_UNORDERED_ACCESS_VIEW_DESC& view) {
    if (IsArray(resource)) {
        view.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE2DARRAY;
        view.Texture2DArray.MipSlice = mipSlice;
        view.Texture2DArray.ArraySize = resource.DepthOrArraySize;
    } else {
        view.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE2D;
        view.Texture2D.MipSlice = mipSlice;
    }
}

} // namespace

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateConstantBufferView(const CComPtr<ID3D12Resource>& resource) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    // A constant buffer view does not need shader-resource access; the check is wanted all the
    // same.
    ThrowUnless<DirectX12Exception>(IsReadableBuffer(desc), "Unsupported resource");
    return CreateConstantBufferView(
        resource, {resource->GetGPUVirtualAddress(), static_cast<unsigned>(desc.Width)});
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateBufferShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                                                     unsigned stride) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    ThrowUnless<DirectX12Exception>(IsReadableBuffer(desc), "Unsupported resource");
    auto view = MakeViewDesc<D3D12_SHADER_RESOURCE_VIEW_DESC>(DXGI_FORMAT_UNKNOWN);
    view.ViewDimension = D3D12_SRV_DIMENSION_BUFFER;
    view.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    view.Buffer.NumElements = ElementCount(desc, stride);
    view.Buffer.StructureByteStride = stride;
    return CreateShaderResourceView(resource, view);
}

boost::intrusive_ptr<D12Descriptor> D12DescriptorCPUHeap::CreateBufferUnorderedAccessView(
    const CComPtr<ID3D12Resource>& resource, unsigned stride, D3D12_BUFFER_UAV_FLAGS flags,
    unsigned counterOffset, const CComPtr<ID3D12Resource>& counter) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    ThrowUnless<DirectX12Exception>(desc.Dimension == D3D12_RESOURCE_DIMENSION_BUFFER &&
                                        (desc.Flags & D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS) !=
                                            0,
                                    "Unsupported resource");
    auto view = MakeViewDesc<D3D12_UNORDERED_ACCESS_VIEW_DESC>(DXGI_FORMAT_UNKNOWN);
    view.ViewDimension = D3D12_UAV_DIMENSION_BUFFER;
    view.Buffer.NumElements = ElementCount(desc, stride);
    view.Buffer.StructureByteStride = stride;
    view.Buffer.CounterOffsetInBytes = counterOffset;
    view.Buffer.Flags = flags;
    return CreateUnorderedAccessView(resource, counter, view);
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateTextureShaderResourceView(const CComPtr<ID3D12Resource>& resource,
                                                      bool cube) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    ThrowUnless<DirectX12Exception>((desc.Flags & D3D12_RESOURCE_FLAG_DENY_SHADER_RESOURCE) == 0,
                                    "Resource created without support for SRV");
    const unsigned mipLevels = desc.MipLevels == 0 ? kAllMipLevels : desc.MipLevels;
    auto view = MakeViewDesc<D3D12_SHADER_RESOURCE_VIEW_DESC>(desc.Format);
    view.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D && IsArray(desc)) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE1DARRAY;
        view.Texture1DArray.MipLevels = mipLevels;
        view.Texture1DArray.ArraySize = desc.DepthOrArraySize;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE1D;
        view.Texture1D.MipLevels = mipLevels;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE2D) {
        DescribeTexture2D(desc, cube, mipLevels, view);
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE3D) {
        view.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE3D;
        view.Texture3D.MipLevels = mipLevels;
    } else {
        ThrowNotATexture(desc);
    }
    return CreateShaderResourceView(resource, view);
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateRenderTargetView(const CComPtr<ID3D12Resource>& resource,
                                             unsigned mipSlice) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    ThrowUnless<DirectX12Exception>((desc.Flags & D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET) != 0,
                                    "Resource created without support for RTV");
    auto view = MakeViewDesc<D3D12_RENDER_TARGET_VIEW_DESC>(desc.Format);
    if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D && IsArray(desc)) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE1DARRAY;
        view.Texture1DArray.MipSlice = mipSlice;
        view.Texture1DArray.ArraySize = desc.DepthOrArraySize;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE1D;
        view.Texture1D.MipSlice = mipSlice;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE2D) {
        DescribeTexture2D(desc, mipSlice, view);
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE3D) {
        view.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE3D;
        view.Texture3D.MipSlice = mipSlice;
        view.Texture3D.WSize = desc.DepthOrArraySize;
    } else {
        ThrowNotATexture(desc);
    }
    return CreateRenderTargetView(resource, view);
}

boost::intrusive_ptr<D12Descriptor>
D12DescriptorCPUHeap::CreateTextureUnorderedAccessView(const CComPtr<ID3D12Resource>& resource,
                                                       unsigned mipSlice) {
    const D3D12_RESOURCE_DESC desc = DescOf(resource);
    ThrowUnless<DirectX12Exception>((desc.Flags & D3D12_RESOURCE_FLAG_ALLOW_UNORDERED_ACCESS) != 0,
                                    "Resource created without support for UAV");
    auto view = MakeViewDesc<D3D12_UNORDERED_ACCESS_VIEW_DESC>(desc.Format);
    if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D && IsArray(desc)) {
        view.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE1DARRAY;
        view.Texture1DArray.MipSlice = mipSlice;
        view.Texture1DArray.ArraySize = desc.DepthOrArraySize;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE1D) {
        view.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE1D;
        view.Texture1D.MipSlice = mipSlice;
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE2D) {
        DescribeTexture2D(desc, mipSlice, view);
    } else if (desc.Dimension == D3D12_RESOURCE_DIMENSION_TEXTURE3D) {
        view.ViewDimension = D3D12_UAV_DIMENSION_TEXTURE3D;
        view.Texture3D.MipSlice = mipSlice;
        view.Texture3D.WSize = desc.DepthOrArraySize;
    } else {
        ThrowNotATexture(desc);
    }
    return CreateUnorderedAccessView(resource, nullptr, view);
}

} // namespace Norvex::DX
