#pragma once

// Views of the planes of a frame, and what drawers bind them with, internal; the textures fit the
// description (CheckFrame in D3FrameShader.h). Any thread. Throws what the devices throw when they
// make views.

#include <algorithm>
#include <array>
#include <span>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3ColorLut.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"

namespace Norvex::DX {

// Whether a texture of the frame has slices: all are viewed as arrays then.
template <class Frame>
bool HasArrays(const Frame& frame) {
    return std::ranges::any_of(DescribeTextures(frame),
                               [](const FrameTexture& texture) { return texture.slices > 1; });
}

// t0 to t2, and t3 for a color LUT; where there are fewer the first plane stands for them.
using D12PlaneViews = std::array<boost::intrusive_ptr<D12Descriptor>, 4>;
D12PlaneViews MakePlaneViews(D12Device& device, const D12Frame& frame,
                             const boost::intrusive_ptr<D12ColorLut>& lut);
using D11PlaneViews = std::array<CComPtr<ID3D11ShaderResourceView>, 4>;
D11PlaneViews MakePlaneViews(D11Device& device, const D11Frame& frame,
                             const boost::intrusive_ptr<D11ColorLut>& lut);

// The ranks of D3BlueNoise.h, for t4.
boost::intrusive_ptr<D12Descriptor> MakePatternView(D12Device& device);
CComPtr<ID3D11ShaderResourceView> MakePatternView(const boost::intrusive_ptr<D11Device>& device);

// A table holds a frame's planes for one draw, also when that fails; and what else it reads.
class D12PlanesOfOneDraw {
public:
    D12PlanesOfOneDraw(D12ViewTable& table,
                       std::span<const boost::intrusive_ptr<D12Descriptor>> views);
    ~D12PlanesOfOneDraw() { m_table.Clear(); }
    D12PlanesOfOneDraw(const D12PlanesOfOneDraw&) = delete;
    D12PlanesOfOneDraw& operator=(const D12PlanesOfOneDraw&) = delete;

private:
    D12ViewTable& m_table;
};

// To draw on, one a plane.
std::vector<boost::intrusive_ptr<D12Descriptor>> MakePlaneTargets(D12Device& device,
                                                                  const D12Frame& frame);
std::vector<CComPtr<ID3D11RenderTargetView>> MakePlaneTargets(D11Device& device,
                                                              const D11Frame& frame);

// Of the frame's slice alone, where the states differ.
void AddFrameTransitions(std::vector<D3D12_RESOURCE_BARRIER>& barriers, const D12Frame& frame,
                         D3D12_RESOURCE_STATES before, D3D12_RESOURCE_STATES after);

} // namespace Norvex::DX
