#include "tests/support/Canvas.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"

namespace Norvex::Test {

namespace {

constexpr unsigned kChannels = 4;

unsigned BytesPerPixel(DXGI_FORMAT format) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return 4;
    case DXGI_FORMAT_R16G16B16A16_UNORM:
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return 8;
    case DXGI_FORMAT_R32G32B32A32_FLOAT:
        return 16;
    default:
        throw std::invalid_argument("a format that the canvas does not know");
    }
}

template <class T>
T ToUnorm(double value) {
    constexpr double kMax = static_cast<T>(~T{0});
    return static_cast<T>(std::lround(std::clamp(value, 0.0, 1.0) * kMax));
}

void Store(double value, DXGI_FORMAT format, std::uint8_t* out) {
    const auto put = [out](auto encoded) { std::memcpy(out, &encoded, sizeof(encoded)); };
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return put(ToUnorm<std::uint8_t>(value));
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return put(ToUnorm<std::uint16_t>(value));
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return put(FloatToHalf(static_cast<float>(value)));
    default:
        return put(static_cast<float>(value));
    }
}

template <class T>
T Get(const std::uint8_t* in) {
    T value;
    std::memcpy(&value, in, sizeof(value));
    return value;
}

double Load(DXGI_FORMAT format, const std::uint8_t* in) {
    switch (format) {
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return Get<std::uint8_t>(in) / 255.0;
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return Get<std::uint16_t>(in) / 65535.0;
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return HalfToFloat(Get<std::uint16_t>(in));
    default:
        return Get<float>(in);
    }
}

std::vector<std::uint8_t> Encode(const Pixels& pixels, DXGI_FORMAT format) {
    const unsigned channelSize = BytesPerPixel(format) / kChannels;
    std::vector<std::uint8_t> bytes(pixels.colors.size() * BytesPerPixel(format));
    std::uint8_t* out = bytes.data();
    for (const Color& color : pixels.colors) {
        for (const double channel : color) {
            Store(channel, format, out);
            out += channelSize;
        }
    }
    return bytes;
}

Pixels Decode(const std::vector<std::uint8_t>& bytes, unsigned width, unsigned height,
              DXGI_FORMAT format) {
    const unsigned channelSize = BytesPerPixel(format) / kChannels;
    const std::uint8_t* in = bytes.data();
    return MakePixels(width, height, [&](unsigned, unsigned) {
        Color color = {};
        for (double& channel : color) {
            channel = Load(format, in);
            in += channelSize;
        }
        return color;
    });
}

} // namespace

Pixels MakePixels(unsigned width, unsigned height,
                  const std::function<Color(unsigned x, unsigned y)>& colorAt) {
    Pixels pixels{width, height, {}};
    pixels.colors.reserve(std::size_t{width} * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            pixels.colors.push_back(colorAt(x, y));
        }
    }
    return pixels;
}

float HalfToFloat(std::uint16_t half) {
    const int exponent = half >> 10 & 0x1F;
    const int mantissa = half & 0x3FF;
    const float sign = (half & 0x8000) != 0 ? -1.0F : 1.0F;
    if (exponent == 0x1F) {
        return mantissa == 0 ? sign * INFINITY : NAN;
    }
    return sign * (exponent == 0 ? std::ldexp(static_cast<float>(mantissa), -24)
                                 : std::ldexp(static_cast<float>(mantissa + 0x400), exponent - 25));
}

// Round to nearest even, infinity beyond the range.
std::uint16_t FloatToHalf(float value) {
    const auto sign =
        static_cast<std::uint16_t>(std::bit_cast<std::uint32_t>(value) >> 16 & 0x8000);
    const float magnitude = std::fabs(value);
    if (std::isnan(value)) {
        return static_cast<std::uint16_t>(sign | 0x7E00);
    }
    if (magnitude >= 65520.0F) {
        return static_cast<std::uint16_t>(sign | 0x7C00);
    }
    int exponent = 0;
    std::frexp(magnitude, &exponent);
    const int scale = std::max(exponent - 1, -14) - 10; // of the last bit
    const auto units = static_cast<std::uint32_t>(std::nearbyint(std::ldexp(magnitude, -scale)));
    const std::uint32_t bits =
        units == 0 ? 0 : units + (static_cast<std::uint32_t>(scale + 24) << 10);
    return static_cast<std::uint16_t>(sign | bits);
}

Pixels Quantize(const Pixels& pixels, DXGI_FORMAT format) {
    return Decode(Encode(pixels, format), pixels.width, pixels.height, format);
}

Canvas::Canvas()
    : m_device(DX::D12Device::CreatePrimary()),
      m_queue(new DX::D12CommandQueue(m_device, D3D12_COMMAND_QUEUE_DESC{})) {}

CComPtr<ID3D12Resource> Canvas::MakeTexture(const Pixels& pixels, DXGI_FORMAT format) {
    DX::D12Texture2DDesc desc;
    desc.width = pixels.width;
    desc.height = pixels.height;
    desc.format = format;
    desc.initialState = D3D12_RESOURCE_STATE_COPY_DEST;
    auto texture = m_device->CreateTexture2D(desc);

    const std::vector<std::uint8_t> bytes = Encode(pixels, format);
    DX::D12UploadResourceParams params;
    params.destination = texture;
    params.stateAfter = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
    params.subresources = {
        {bytes.data(), std::uint64_t{pixels.width} * BytesPerPixel(format), bytes.size()}};
    m_queue->UploadResource(params);
    return texture;
}

boost::intrusive_ptr<DX::D12Descriptor> Canvas::MakeSource(const Pixels& pixels,
                                                           DXGI_FORMAT format) {
    return m_device->CreateTextureShaderResourceView(MakeTexture(pixels, format));
}

boost::intrusive_ptr<DX::D12Descriptor>
Canvas::MakeTarget(unsigned width, unsigned height, DXGI_FORMAT format, const Proc::ColorF& color) {
    DX::D12Texture2DDesc desc;
    desc.width = width;
    desc.height = height;
    desc.format = format;
    desc.resourceFlags = D3D12_RESOURCE_FLAG_ALLOW_RENDER_TARGET;
    desc.initialState = D3D12_RESOURCE_STATE_RENDER_TARGET;
    const auto target = m_device->CreateRenderTargetView(m_device->CreateTexture2D(desc));
    const auto allocator = m_queue->CreateCommandAllocator();
    allocator->ClearRenderTargetView(target, color, {});
    allocator->Execute();
    return target;
}

Pixels Canvas::Read(const boost::intrusive_ptr<DX::D12Descriptor>& target) {
    const DX::Size2DT<long> size = target->GetSize();
    const auto width = static_cast<unsigned>(size.width);
    const auto height = static_cast<unsigned>(size.height);
    const std::uint64_t pitch = std::uint64_t{width} * BytesPerPixel(target->GetFormat());
    std::vector<std::uint8_t> bytes(pitch * height);
    DX::D12DownloadResourceParams params;
    params.source = target->GetFirstResource();
    params.stateBefore = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.stateAfter = D3D12_RESOURCE_STATE_RENDER_TARGET;
    params.subresources = {{bytes.data(), pitch, bytes.size()}};
    m_queue->DownloadResource(params);
    return Decode(bytes, width, height, target->GetFormat());
}

} // namespace Norvex::Test
