#include "Proc/DirectX/Manager/D3YUVFormat.h"

#include <array>
#include <cstddef>
#include <cstring>

#include <fmt/format.h>

#include "QuadShaders.h"

namespace Norvex::DX {

namespace {

constexpr std::size_t kParamsSizeInBytes = 256;

using Vector = std::array<float, 4>; // an HLSL float3 and what follows it up to 16 bytes

// In the order of the shader's declaration.
struct ParamsBuffer {
    std::uint32_t sourceAlphaType = 0;
    std::array<std::uint32_t, 3> unused = {};
    std::array<Vector, 4> yCbCrMatrix = {};
    Vector min = {};
    Vector max = {};
    Vector translation = {};
    Vector scale = {};
    Vector norm = {};
};
static_assert(sizeof(ParamsBuffer) == 160 && sizeof(ParamsBuffer) <= kParamsSizeInBytes);

// HLSL keeps a matrix by columns and multiplies a row vector from the left, so that a column holds
// what one output takes of each input: a row of this matrix.
std::array<Vector, 4> MakeMatrix(Conf::YCbCrMatrix matrix) {
    const auto rows = Conf::GetRGBToYpPbPrMatrix(matrix);
    std::array<Vector, 4> result = {};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (std::size_t j = 0; j < rows[i].size(); ++j) {
            result[i][j] = static_cast<float>(rows[i][j]);
        }
    }
    result[3][3] = 1.0F;
    return result;
}

} // namespace

std::optional<YUVFormat> FindYUVFormat(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_NV12:
        return YUVFormat{8, DXGI_FORMAT_R8_UNORM, DXGI_FORMAT_R8G8_UNORM};
    case DXGI_FORMAT_P010:
        return YUVFormat{10, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM};
    case DXGI_FORMAT_P016:
        return YUVFormat{16, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM};
    default:
        return std::nullopt;
    }
}

bool HasPlaneFormat(const YUVPlane& plane, DXGI_FORMAT format) {
    const auto typeless = [](DXGI_FORMAT typed) {
        switch (typed) {
        case DXGI_FORMAT_R8_UNORM:
            return DXGI_FORMAT_R8_TYPELESS;
        case DXGI_FORMAT_R8G8_UNORM:
            return DXGI_FORMAT_R8G8_TYPELESS;
        case DXGI_FORMAT_R16_UNORM:
            return DXGI_FORMAT_R16_TYPELESS;
        default:
            return DXGI_FORMAT_R16G16_TYPELESS;
        }
    };
    return plane.format == format || plane.format == typeless(format);
}

bool IsHalf(const Size2DT<long>& chroma, const Size2DT<long>& luma) {
    const auto fits = [](long half, long full) {
        return half == full / 2 || half == full - full / 2;
    };
    return fits(chroma.width, luma.width) && fits(chroma.height, luma.height);
}

std::vector<std::uint8_t> MakeYUVParams(Proc::AlphaType alphaType, Conf::YCbCrMatrix matrix,
                                        unsigned bitDepth) {
    const auto code = [shift = bitDepth - 8](unsigned value) {
        return static_cast<float>(value << shift);
    };
    const float black = code(16);
    const float zero = code(128); // of chroma
    const float chromaScale = 2.0F * (code(240) - zero);
    const float norm = code(256);
    ParamsBuffer params;
    params.sourceAlphaType = static_cast<std::uint32_t>(alphaType);
    params.yCbCrMatrix = MakeMatrix(matrix);
    params.min = {black, black, black};
    params.max = {code(235), code(240), code(240)};
    params.translation = {black, zero, zero};
    params.scale = {code(219), chromaScale, chromaScale};
    params.norm = {norm, norm, norm};
    std::vector<std::uint8_t> bytes(kParamsSizeInBytes);
    std::memcpy(bytes.data(), &params, sizeof(params));
    return bytes;
}

Size2DT<float> GetChromaExtent(const Size2DT<long>& luma, const Size2DT<long>& chroma) {
    const auto ratio = [](long half, long full) {
        return 2.0F * static_cast<float>(half) / static_cast<float>(full);
    };
    return {ratio(chroma.width, luma.width), ratio(chroma.height, luma.height)};
}

std::string GetYUVPixelShader() {
    return fmt::format("static const uint AlphaTypeNonPremultiplied = {};\n",
                       static_cast<std::uint32_t>(Proc::AlphaType::NonPremultiplied)) +
           std::string(Shaders::kYCbCrPixel);
}

} // namespace Norvex::DX
