#pragma once

// Look-up tables of colours, as colourists make them: the table, a value; and the table on a
// device, for who draws and converts frames (D3FrameDraw.h, D3FrameConverter.h). It is applied to
// encoded R'G'B' of the target, straight of alpha, before the target's codes; what lies outside its
// domain counts as the nearest colour inside. How exact: docs/colour.md. Throws DirectXException,
// DirectX11Exception, DirectX12Exception.

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Platform/Export.h"
#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12CommandQueue.h"
#include "Proc/DirectX/Manager/D3D12Resource.h"
#include "Proc/DirectX/Manager/LiveObject.h"

namespace Norvex::DX {

// A table. Of one dimension: each channel by itself, linear between entries. Of three: tetrahedral.
struct NORVEX_DX_API D3ColorLut {
    using Color = std::array<float, 3>; // R', G', B'

    unsigned dimensions = 3;         // 1 or 3
    unsigned size = 0;               // entries of an axis: 2 to 129, of one dimension to 65536
    Color domainMin = {0, 0, 0};     // of the first entry
    Color domainMax = {1, 1, 1};     // of the last
    std::vector<Color> entries = {}; // size, or size^3 of which red changes fastest
    std::string title = {};          // may be empty

    // The text of a .cube file: TITLE, LUT_1D_SIZE or LUT_3D_SIZE, DOMAIN_MIN and DOMAIN_MAX or
    // LUT_1D_INPUT_RANGE or LUT_3D_INPUT_RANGE, comments behind #, a row an entry; line ends and
    // spaces of any kind, numbers with a point whatever the locale. "Wrong color LUT, line 12: "
    // and what is wrong there: "three numbers are expected", "unknown keyword NAME", "the size is
    // given twice", "the size is not 2 to 129", "the domain is empty", "a row without a size",
    // "more rows than the size says"; at the end "Wrong color LUT: 35937 rows are expected, 35936
    // are there", "Wrong color LUT: there is no size".
    static D3ColorLut FromCube(std::string_view text);

    // Throws what is wrong in itself: "A color LUT has one dimension or three", "The size of the
    // color LUT is out of range", "The color LUT has too few or too many entries", "The domain of
    // the color LUT is empty", "The color LUT has an entry that is not finite".
    void Validate() const;
};

// On Direct3D 12. Any thread.
class NORVEX_DX_API D12ColorLut : public LiveObject {
public:
    // Blocks until it is on the device; 34 MB of 129 entries an axis, 0.6 MB of 33. Any queue.
    // "Command queue is null", D3ColorLut::Validate's, and what uploading throws.
    D12ColorLut(const boost::intrusive_ptr<D12CommandQueue>& queue, const D3ColorLut& lut);
    ~D12ColorLut() override;

    unsigned GetDimensions() const { return m_dimensions; } // 1 or 3
    // For shaders: two quads that say how it is laid out, then the entries.
    const boost::intrusive_ptr<D12Descriptor>& GetView() const { return m_view; }

private:
    unsigned m_dimensions;
    boost::intrusive_ptr<D12Descriptor> m_view;
};

// On Direct3D 11. Any thread.
class NORVEX_DX_API D11ColorLut : public LiveObject {
public:
    // "DirectX 11 device is null", D3ColorLut::Validate's, and what making buffers and views
    // throws.
    D11ColorLut(const boost::intrusive_ptr<D11Device>& device, const D3ColorLut& lut);
    ~D11ColorLut() override;

    unsigned GetDimensions() const { return m_dimensions; } // 1 or 3
    // As on Direct3D 12.
    ID3D11ShaderResourceView* GetView() const { return m_view; }

private:
    unsigned m_dimensions;
    CComPtr<ID3D11ShaderResourceView> m_view;
};

} // namespace Norvex::DX
