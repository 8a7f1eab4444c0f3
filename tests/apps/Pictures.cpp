#include "tests/apps/Pictures.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <random>

#include "Platform/ComPtr.h"
#include "Platform/Direct3D.h"

#include <wincodec.h>
#include <zlib.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "apps/norvexdx/InputFile.h"

namespace Norvex::Test {

namespace fs = std::filesystem;
using App::Image;

TemporaryFolder::TemporaryFolder() {
    static std::atomic<int> counter{0};
    m_path = fs::temp_directory_path() /
             fmt::format("norvexdx-test-{}-{}", GetCurrentProcessId(), counter.fetch_add(1));
    fs::create_directories(m_path);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code error;
    fs::remove_all(m_path, error);
}

std::string TemporaryFolder::GetText(const char* name) const {
    return App::Utf8FromPath(m_path / App::PathFromUtf8(name));
}

std::vector<std::string> TemporaryFolder::GetFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_path)) {
        names.push_back(App::Utf8FromPath(entry.path().filename()));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void WriteBytes(const fs::path& path, std::span<const std::uint8_t> bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Image MakeNoise(std::uint32_t width, std::uint32_t height, unsigned bitsPerChannel, bool isOpaque,
                unsigned seed) {
    Image image{.width = width,
                .height = height,
                .bitsPerChannel = bitsPerChannel,
                .pixels = {},
                .colorSpace = {}};
    image.Allocate();
    std::mt19937 random(seed);
    const std::size_t sampleSize = bitsPerChannel / 8;
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        const bool isAlpha = i / sampleSize % Image::kChannels == 3;
        image.pixels[i] = isAlpha && isOpaque ? 0xFF : static_cast<std::uint8_t>(random() >> 8);
    }
    return image;
}

Image MakePlain(std::uint32_t width, std::uint32_t height,
                const std::array<std::uint8_t, 4>& rgba) {
    Image image{
        .width = width, .height = height, .bitsPerChannel = 8, .pixels = {}, .colorSpace = {}};
    image.Allocate();
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        image.pixels[i] = rgba[i % rgba.size()];
    }
    return image;
}

unsigned GetSample(const Image& image, std::size_t x, std::size_t y, std::size_t channel) {
    const std::size_t index = (y * image.width + x) * Image::kChannels + channel;
    if (image.bitsPerChannel == 8) {
        return image.pixels.at(index);
    }
    std::uint16_t sample = 0;
    std::memcpy(&sample, &image.pixels.at(index * 2), sizeof(sample));
    return sample;
}

namespace {

void AppendBigEndian(std::string& bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
}

void AppendChunk(std::string& file, const std::string& name, const std::string& data) {
    AppendBigEndian(file, static_cast<std::uint32_t>(data.size()));
    const std::string body = name + data;
    file += body;
    AppendBigEndian(file,
                    static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                                                     static_cast<uInt>(body.size()))));
}

void Expect(HRESULT result) {
    if (FAILED(result)) {
        throw std::runtime_error(fmt::format("WIC: {:08x}", static_cast<std::uint32_t>(result)));
    }
}

void WriteWithWic(const fs::path& path, const GUID& container, const GUID& format,
                  std::uint32_t width, std::uint32_t height, std::vector<std::uint8_t> pixels) {
    const HRESULT apartment = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        CComPtr<IWICImagingFactory> factory;
        Expect(factory.CoCreateInstance(CLSID_WICImagingFactory));
        CComPtr<IWICStream> stream;
        Expect(factory->CreateStream(&stream));
        Expect(stream->InitializeFromFilename(path.c_str(), GENERIC_WRITE));
        CComPtr<IWICBitmapEncoder> encoder;
        Expect(factory->CreateEncoder(container, nullptr, &encoder));
        Expect(encoder->Initialize(stream, WICBitmapEncoderNoCache));
        CComPtr<IWICBitmapFrameEncode> frame;
        Expect(encoder->CreateNewFrame(&frame, nullptr));
        Expect(frame->Initialize(nullptr));
        Expect(frame->SetSize(width, height));
        WICPixelFormatGUID accepted = format;
        Expect(frame->SetPixelFormat(&accepted));
        Expect(accepted == format ? S_OK : WINCODEC_ERR_UNSUPPORTEDPIXELFORMAT);
        const auto size = static_cast<UINT>(pixels.size());
        Expect(frame->WritePixels(height, size / height, size, pixels.data()));
        Expect(frame->Commit());
        Expect(encoder->Commit());
    }
    if (SUCCEEDED(apartment)) {
        CoUninitialize();
    }
}

// The channels named by `order`, of every pixel.
std::vector<std::uint8_t> PickChannels(const Image& image,
                                       std::initializer_list<std::size_t> order) {
    const std::size_t sampleSize = image.bitsPerChannel / 8;
    std::vector<std::uint8_t> result;
    for (std::size_t pixel = 0; pixel < image.pixels.size(); pixel += image.GetPixelSize()) {
        for (const std::size_t channel : order) {
            for (std::size_t i = 0; i < sampleSize; ++i) {
                result.push_back(image.pixels[pixel + channel * sampleSize + i]);
            }
        }
    }
    return result;
}

} // namespace

std::vector<std::uint8_t> MakePng(std::uint32_t width, std::uint32_t height, unsigned bitDepth,
                                  unsigned colorType, const std::vector<std::string>& rows,
                                  const std::string& palette, const std::string& transparency) {
    std::string file = "\x89PNG\r\n\x1a\n";
    std::string header;
    AppendBigEndian(header, width);
    AppendBigEndian(header, height);
    header += {static_cast<char>(bitDepth), static_cast<char>(colorType), 0, 0, 0};
    AppendChunk(file, "IHDR", header);
    if (!palette.empty()) {
        AppendChunk(file, "PLTE", palette);
    }
    if (!transparency.empty()) {
        AppendChunk(file, "tRNS", transparency);
    }
    std::string data;
    for (const std::string& row : rows) {
        data += '\0' + row; // no filter
    }
    std::string packed(compressBound(static_cast<uLong>(data.size())), '\0');
    auto size = static_cast<uLongf>(packed.size());
    compress(reinterpret_cast<Bytef*>(packed.data()), &size,
             reinterpret_cast<const Bytef*>(data.data()), static_cast<uLong>(data.size()));
    packed.resize(size);
    AppendChunk(file, "IDAT", packed);
    AppendChunk(file, "IEND", {});
    return {file.begin(), file.end()};
}

void WriteTiff16(const fs::path& path, const Image& image) {
    WriteWithWic(path, GUID_ContainerFormatTiff, GUID_WICPixelFormat48bppRGB, image.width,
                 image.height, PickChannels(image, {0, 1, 2}));
}

void WriteJpeg(const fs::path& path, const Image& image) {
    WriteWithWic(path, GUID_ContainerFormatJpeg, GUID_WICPixelFormat24bppBGR, image.width,
                 image.height, PickChannels(image, {2, 1, 0}));
}

} // namespace Norvex::Test
