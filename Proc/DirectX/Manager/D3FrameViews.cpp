#include "Proc/DirectX/Manager/D3FrameViews.h"

#include <cstddef>
#include <cstring>

#include "Platform/D3D12Abi.h"
#include "Proc/DirectX/Manager/D3BlueNoise.h"
#include "Proc/DirectX/Manager/D3D11FilledBuffer.h"
#include "Proc/DirectX/Manager/D3FramePass.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"

namespace Norvex::DX {

namespace {

// Where a plane lies.
struct PlanePlace {
    unsigned texture = 0;
    unsigned plane = 0; // of the texture
    unsigned slice = 0;
    bool isArray = false;
    DXGI_FORMAT format = DXGI_FORMAT_UNKNOWN; // of its view
};

PlanePlace FindPlane(const D3FrameDesc& frame, const FrameTextures& textures, unsigned slice,
                     unsigned index) {
    const bool isPlanar = IsPlanar(frame, textures);
    const unsigned texture = isPlanar ? 0 : index;
    return {texture, isPlanar ? index : 0, slice, textures.at(texture).slices > 1,
            frame.IsRGB() ? textures[0].format : frame.GetPlane(index).format};
}

// All zero but the format, also what lies between members.
template <class ViewDesc>
ViewDesc MakePlaneDesc(const PlanePlace& place) {
    ViewDesc desc;
    std::memset(&desc, 0, sizeof(desc));
    desc.Format = place.format;
    return desc;
}

D3D12_SHADER_RESOURCE_VIEW_DESC DescribeView12(const PlanePlace& place, bool hasArrays) {
    auto desc = MakePlaneDesc<D3D12_SHADER_RESOURCE_VIEW_DESC>(place);
    desc.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    if (hasArrays) {
        desc.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE2DARRAY;
        desc.Texture2DArray.MipLevels = 1;
        desc.Texture2DArray.FirstArraySlice = place.slice;
        desc.Texture2DArray.ArraySize = 1;
        desc.Texture2DArray.PlaneSlice = place.plane;
    } else {
        desc.ViewDimension = D3D12_SRV_DIMENSION_TEXTURE2D;
        desc.Texture2D.MipLevels = 1;
        desc.Texture2D.PlaneSlice = place.plane;
    }
    return desc;
}

D3D12_RENDER_TARGET_VIEW_DESC DescribeTarget12(const PlanePlace& place) {
    auto desc = MakePlaneDesc<D3D12_RENDER_TARGET_VIEW_DESC>(place);
    if (place.isArray) {
        desc.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2DARRAY;
        desc.Texture2DArray.FirstArraySlice = place.slice;
        desc.Texture2DArray.ArraySize = 1;
        desc.Texture2DArray.PlaneSlice = place.plane;
    } else {
        desc.ViewDimension = D3D12_RTV_DIMENSION_TEXTURE2D;
        desc.Texture2D.PlaneSlice = place.plane;
    }
    return desc;
}

// On Direct3D 11 the format of a view chooses the plane.
D3D11_SHADER_RESOURCE_VIEW_DESC DescribeView11(const PlanePlace& place, bool hasArrays) {
    auto desc = MakePlaneDesc<D3D11_SHADER_RESOURCE_VIEW_DESC>(place);
    if (hasArrays) {
        desc.ViewDimension = D3D11_SRV_DIMENSION_TEXTURE2DARRAY;
        desc.Texture2DArray.MipLevels = 1;
        desc.Texture2DArray.FirstArraySlice = place.slice;
        desc.Texture2DArray.ArraySize = 1;
    } else {
        desc.ViewDimension = D3D11_SRV_DIMENSION_TEXTURE2D;
        desc.Texture2D.MipLevels = 1;
    }
    return desc;
}

D3D11_RENDER_TARGET_VIEW_DESC DescribeTarget11(const PlanePlace& place) {
    auto desc = MakePlaneDesc<D3D11_RENDER_TARGET_VIEW_DESC>(place);
    if (place.isArray) {
        desc.ViewDimension = D3D11_RTV_DIMENSION_TEXTURE2DARRAY;
        desc.Texture2DArray.FirstArraySlice = place.slice;
        desc.Texture2DArray.ArraySize = 1;
    } else {
        desc.ViewDimension = D3D11_RTV_DIMENSION_TEXTURE2D;
    }
    return desc;
}

// make(place, texture) of each plane.
template <class Frame, class Make>
void ForEachPlane(const Frame& frame, const Make& make) {
    const FrameTextures textures = DescribeTextures(frame);
    for (unsigned i = 0; i < frame.desc.GetPlaneCount(); ++i) {
        const PlanePlace place = FindPlane(frame.desc, textures, frame.slice, i);
        make(i, place, frame.textures.at(place.texture));
    }
}

} // namespace

FrameTextures DescribeTextures(const D12Frame& frame) {
    FrameTextures textures;
    for (std::size_t i = 0; i < textures.size(); ++i) {
        if (frame.textures.at(i) != nullptr) {
            const auto desc = Platform::GetDesc(frame.textures.at(i));
            textures.at(i) = {desc.Format,
                              {static_cast<long>(desc.Width), static_cast<long>(desc.Height)},
                              desc.DepthOrArraySize};
        }
    }
    return textures;
}

FrameTextures DescribeTextures(const D11Frame& frame) {
    FrameTextures textures;
    for (std::size_t i = 0; i < textures.size(); ++i) {
        if (frame.textures.at(i) != nullptr) {
            D3D11_TEXTURE2D_DESC desc = {};
            frame.textures.at(i)->GetDesc(&desc);
            textures.at(i) = {desc.Format,
                              {static_cast<long>(desc.Width), static_cast<long>(desc.Height)},
                              desc.ArraySize};
        }
    }
    return textures;
}

boost::intrusive_ptr<D12Descriptor> MakePatternView(D12Device& device) {
    const auto& ranks = GetBlueNoiseRanks();
    const auto buffer = CreateConstants(device, BytesOf(ranks), L"Blue noise");
    D3D12_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R16_UINT;
    desc.ViewDimension = D3D12_SRV_DIMENSION_BUFFER;
    desc.Shader4ComponentMapping = D3D12_DEFAULT_SHADER_4_COMPONENT_MAPPING;
    desc.Buffer.NumElements = static_cast<UINT>(ranks.size());
    return device.CreateShaderResourceView(buffer, desc);
}

CComPtr<ID3D11ShaderResourceView> MakePatternView(const boost::intrusive_ptr<D11Device>& device) {
    const auto& ranks = GetBlueNoiseRanks();
    const auto bytes = BytesOf(ranks);
    const auto buffer =
        CreateFilledBuffer(device, D3D11_BIND_SHADER_RESOURCE, bytes.data(), bytes.size());
    D3D11_SHADER_RESOURCE_VIEW_DESC desc = {};
    desc.Format = DXGI_FORMAT_R16_UINT;
    desc.ViewDimension = D3D11_SRV_DIMENSION_BUFFER;
    desc.Buffer.NumElements = static_cast<UINT>(ranks.size());
    return device->CreateShaderResourceView(buffer, desc);
}

D12PlanesOfOneDraw::D12PlanesOfOneDraw(D12ViewTable& table,
                                       std::span<const boost::intrusive_ptr<D12Descriptor>> views)
    : m_table(table) {
    for (unsigned i = 0; i < views.size(); ++i) {
        m_table.SetView(i, i, views[i], 0, D3D12_DESCRIPTOR_RANGE_FLAG_NONE);
    }
}

D12PlaneViews MakePlaneViews(D12Device& device, const D12Frame& frame,
                             const boost::intrusive_ptr<D12ColorLut>& lut) {
    const bool hasArrays = HasArrays(frame);
    D12PlaneViews views;
    ForEachPlane(frame, [&](unsigned index, const PlanePlace& place, const auto& texture) {
        views.at(index) =
            device.CreateShaderResourceView(texture, DescribeView12(place, hasArrays));
    });
    for (std::size_t i = frame.desc.GetPlaneCount(); i < views.size(); ++i) {
        views.at(i) = views[0];
    }
    if (lut != nullptr) {
        views.back() = lut->GetView();
    }
    return views;
}

D11PlaneViews MakePlaneViews(D11Device& device, const D11Frame& frame,
                             const boost::intrusive_ptr<D11ColorLut>& lut) {
    const bool hasArrays = HasArrays(frame);
    D11PlaneViews views;
    ForEachPlane(frame, [&](unsigned index, const PlanePlace& place, const auto& texture) {
        views.at(index) =
            device.CreateShaderResourceView(texture, DescribeView11(place, hasArrays));
    });
    for (std::size_t i = frame.desc.GetPlaneCount(); i < views.size(); ++i) {
        views.at(i) = views[0];
    }
    if (lut != nullptr) {
        views.back() = lut->GetView();
    }
    return views;
}

std::vector<boost::intrusive_ptr<D12Descriptor>> MakePlaneTargets(D12Device& device,
                                                                  const D12Frame& frame) {
    std::vector<boost::intrusive_ptr<D12Descriptor>> targets;
    ForEachPlane(frame, [&](unsigned, const PlanePlace& place, const auto& texture) {
        targets.push_back(device.CreateRenderTargetView(texture, DescribeTarget12(place)));
    });
    return targets;
}

std::vector<CComPtr<ID3D11RenderTargetView>> MakePlaneTargets(D11Device& device,
                                                              const D11Frame& frame) {
    std::vector<CComPtr<ID3D11RenderTargetView>> targets;
    ForEachPlane(frame, [&](unsigned, const PlanePlace& place, const auto& texture) {
        targets.push_back(device.CreateRenderTargetView(texture, DescribeTarget11(place)));
    });
    return targets;
}

void AddFrameTransitions(std::vector<D3D12_RESOURCE_BARRIER>& barriers, const D12Frame& frame,
                         D3D12_RESOURCE_STATES before, D3D12_RESOURCE_STATES after) {
    if (before == after) {
        return;
    }
    ForEachPlane(frame, [&](unsigned, const PlanePlace& place, const auto& texture) {
        if (!place.isArray && place.plane != 0) {
            return; // the transition of plane 0 is of all
        }
        const auto desc = Platform::GetDesc(texture);
        const unsigned subresource =
            place.isArray ? D3D12CalcSubresource(0, place.slice, place.plane, desc.MipLevels,
                                                 desc.DepthOrArraySize)
                          : D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES;
        barriers.push_back(
            CD3DX12_RESOURCE_BARRIER::Transition(texture, before, after, subresource));
    });
}

} // namespace Norvex::DX
