#include "apps/norvexdx/pictures/WicReader.h"

#include <algorithm>
#include <cstring>

#include "Platform/ComPtr.h"
#include "Platform/Direct3D.h"

#include <wincodec.h>

#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/ImageFile.h"

namespace Norvex::App {

namespace {

constexpr int kOpaque = -1;

// Where RGBA lies in a pixel of a WIC format that needs no arithmetic.
struct Layout {
    const GUID& format;
    unsigned bitsPerChannel;
    unsigned channels;
    int order[Image::kChannels]; // channel index of R, G, B, A; or kOpaque
};

const Layout kLayouts[] = {
    {GUID_WICPixelFormat8bppGray, 8, 1, {0, 0, 0, kOpaque}},
    {GUID_WICPixelFormat24bppRGB, 8, 3, {0, 1, 2, kOpaque}},
    {GUID_WICPixelFormat24bppBGR, 8, 3, {2, 1, 0, kOpaque}},
    {GUID_WICPixelFormat32bppBGR, 8, 4, {2, 1, 0, kOpaque}},
    {GUID_WICPixelFormat32bppRGBA, 8, 4, {0, 1, 2, 3}},
    {GUID_WICPixelFormat32bppPRGBA, 8, 4, {0, 1, 2, 3}},
    {GUID_WICPixelFormat32bppBGRA, 8, 4, {2, 1, 0, 3}},
    {GUID_WICPixelFormat32bppPBGRA, 8, 4, {2, 1, 0, 3}},
    {GUID_WICPixelFormat16bppGray, 16, 1, {0, 0, 0, kOpaque}},
    {GUID_WICPixelFormat48bppRGB, 16, 3, {0, 1, 2, kOpaque}},
    {GUID_WICPixelFormat48bppBGR, 16, 3, {2, 1, 0, kOpaque}},
    {GUID_WICPixelFormat64bppRGBA, 16, 4, {0, 1, 2, 3}},
    {GUID_WICPixelFormat64bppPRGBA, 16, 4, {0, 1, 2, 3}},
    {GUID_WICPixelFormat64bppBGRA, 16, 4, {2, 1, 0, 3}},
    {GUID_WICPixelFormat64bppPBGRA, 16, 4, {2, 1, 0, 3}},
};

const Layout* FindLayout(const GUID& format) {
    const auto* found = std::find_if(std::begin(kLayouts), std::end(kLayouts),
                                     [&](const Layout& l) { return l.format == format; });
    return found != std::end(kLayouts) ? found : nullptr;
}

class ComApartment {
public:
    ComApartment() : m_result(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~ComApartment() {
        if (SUCCEEDED(m_result)) {
            CoUninitialize();
        }
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

private:
    HRESULT m_result;
};

void Check(HRESULT result) {
    if (result == E_OUTOFMEMORY) {
        throw std::bad_alloc();
    }
    if (FAILED(result)) {
        throw Failure("the file is damaged or cut short");
    }
}

CComPtr<IWICImagingFactory> CreateFactory() {
    CComPtr<IWICImagingFactory> factory;
    if (FAILED(factory.CoCreateInstance(CLSID_WICImagingFactory))) {
        throw Failure("the Windows Imaging Component is not on this system");
    }
    return factory;
}

// The first frame of the file, which must outlive it.
CComPtr<IWICBitmapFrameDecode> OpenFrame(IWICImagingFactory* factory,
                                         std::span<const std::uint8_t> file) {
    CComPtr<IWICStream> stream;
    Check(factory->CreateStream(&stream));
    // The stream only reads, whatever its parameter's type.
    Check(stream->InitializeFromMemory(const_cast<BYTE*>(file.data()),
                                       static_cast<DWORD>(file.size())));
    CComPtr<IWICBitmapDecoder> decoder;
    const HRESULT result =
        factory->CreateDecoderFromStream(stream, nullptr, WICDecodeMetadataCacheOnDemand, &decoder);
    if (result == WINCODEC_ERR_COMPONENTNOTFOUND || result == WINCODEC_ERR_UNKNOWNIMAGEFORMAT) {
        throw Failure("not a picture of a kind that this system reads");
    }
    Check(result);
    CComPtr<IWICBitmapFrameDecode> frame;
    Check(decoder->GetFrame(0, &frame));
    return frame;
}

// Whether the system's conversion to 8 bits a channel would lose nothing.
bool FitsInto8Bits(IWICImagingFactory* factory, const GUID& format) {
    CComPtr<IWICComponentInfo> component;
    CComPtr<IWICPixelFormatInfo> info;
    UINT bitsPerPixel = 0;
    UINT channels = 0;
    return SUCCEEDED(factory->CreateComponentInfo(format, &component)) &&
           SUCCEEDED(component.QueryInterface(&info)) &&
           SUCCEEDED(info->GetBitsPerPixel(&bitsPerPixel)) &&
           SUCCEEDED(info->GetChannelCount(&channels)) &&
           bitsPerPixel <= 8 * std::max(channels, 1U);
}

CComPtr<IWICBitmapSource> ConvertToBGRA(IWICImagingFactory* factory, IWICBitmapSource* source,
                                        const GUID& format) {
    CComPtr<IWICFormatConverter> converter;
    Check(factory->CreateFormatConverter(&converter));
    if (!FitsInto8Bits(factory, format) ||
        FAILED(converter->Initialize(source, GUID_WICPixelFormat32bppBGRA, WICBitmapDitherTypeNone,
                                     nullptr, 0.0, WICBitmapPaletteTypeCustom))) {
        throw Failure("its kind of samples is not supported");
    }
    return {converter};
}

template <class Sample>
void CopyRow(const Layout& layout, const std::uint8_t* from, std::uint8_t* to, std::size_t width) {
    for (std::size_t x = 0; x < width; ++x) {
        Sample pixel[Image::kChannels];
        for (std::size_t i = 0; i < Image::kChannels; ++i) {
            pixel[i] = static_cast<Sample>(~Sample{0});
            if (layout.order[i] != kOpaque) {
                const auto channel = static_cast<std::size_t>(layout.order[i]);
                std::memcpy(&pixel[i], from + channel * sizeof(Sample), sizeof(Sample));
            }
        }
        std::memcpy(to, pixel, sizeof(pixel));
        from += layout.channels * sizeof(Sample);
        to += sizeof(pixel);
    }
}

void CopyPixels(IWICBitmapSource* source, const Layout& layout, Image& image) {
    constexpr std::uint32_t kBandHeight = 256; // rows that are copied at once
    const std::size_t pitch =
        std::size_t{image.width} * layout.channels * layout.bitsPerChannel / 8;
    const std::uint32_t tallest = std::min(kBandHeight, image.height);
    std::vector<std::uint8_t> band(pitch * tallest);
    for (std::uint32_t top = 0; top < image.height; top += tallest) {
        const std::uint32_t rows = std::min(tallest, image.height - top);
        const WICRect rect = {0, static_cast<INT>(top), static_cast<INT>(image.width),
                              static_cast<INT>(rows)};
        Check(source->CopyPixels(&rect, static_cast<UINT>(pitch), static_cast<UINT>(pitch * rows),
                                 band.data()));
        for (std::uint32_t y = 0; y < rows; ++y) {
            std::uint8_t* to = image.pixels.data() + (top + y) * image.GetRowSize();
            const std::uint8_t* from = band.data() + y * pitch;
            layout.bitsPerChannel == 16 ? CopyRow<std::uint16_t>(layout, from, to, image.width)
                                        : CopyRow<std::uint8_t>(layout, from, to, image.width);
        }
    }
}

// The first ICC profile of the picture; a file may have several contexts.
std::optional<IccProfile> ReadProfile(IWICImagingFactory* factory, IWICBitmapFrameDecode* frame) {
    UINT count = 0;
    if (FAILED(frame->GetColorContexts(0, nullptr, &count)) || count == 0) {
        return std::nullopt;
    }
    std::vector<CComPtr<IWICColorContext>> contexts(count);
    std::vector<IWICColorContext*> pointers;
    for (auto& context : contexts) {
        Check(factory->CreateColorContext(&context));
        pointers.push_back(context);
    }
    if (FAILED(frame->GetColorContexts(count, pointers.data(), &count))) {
        return std::nullopt;
    }
    for (const auto& context : contexts) {
        WICColorContextType type = WICColorContextUninitialized;
        UINT size = 0;
        if (SUCCEEDED(context->GetType(&type)) && type == WICColorContextProfile &&
            SUCCEEDED(context->GetProfileBytes(0, nullptr, &size)) && size != 0) {
            IccProfile profile{.bytes = std::vector<std::uint8_t>(size), .name = {}};
            Check(context->GetProfileBytes(size, profile.bytes.data(), &size));
            return profile;
        }
    }
    return std::nullopt;
}

} // namespace

Image ReadWithWic(std::span<const std::uint8_t> file) {
    const ComApartment apartment;
    const CComPtr<IWICImagingFactory> factory = CreateFactory();
    const CComPtr<IWICBitmapFrameDecode> frame = OpenFrame(factory, file);
    UINT width = 0;
    UINT height = 0;
    Check(frame->GetSize(&width, &height));
    CheckDimensions(width, height);

    WICPixelFormatGUID format = {};
    Check(frame->GetPixelFormat(&format));
    CComPtr<IWICBitmapSource> source(frame);
    const Layout* layout = FindLayout(format);
    if (layout == nullptr) {
        source = ConvertToBGRA(factory, frame, format);
        layout = FindLayout(GUID_WICPixelFormat32bppBGRA);
    }
    Image image =
        Image::Make({static_cast<long>(width), static_cast<long>(height)}, layout->bitsPerChannel);
    image.profile = ReadProfile(factory, frame);
    CopyPixels(source, *layout, image);
    return image;
}

} // namespace Norvex::App
