#include "tests/apps/Pictures.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Platform/ComPtr.h"
#include "apps/norvexdx/pictures/InputFile.h"

namespace Norvex::Test {

namespace fs = std::filesystem;
using App::Image;

TemporaryFolder::TemporaryFolder() {
    static std::atomic<int> counter{0};
    m_path = fs::temp_directory_path() /
             App::PathFromUtf8(fmt::format("norvexdx test \xC3\xA4\xE2\x82\xAC\xCF\x80 {} {}",
                                           GetCurrentProcessId(), counter.fetch_add(1)));
    fs::create_directories(m_path);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code error;
    fs::remove_all(m_path, error);
}

fs::path TemporaryFolder::GetPath(const std::string& name) const {
    return m_path / App::PathFromUtf8(name);
}

std::vector<std::string> TemporaryFolder::Split(const std::string& commandLine) const {
    std::istringstream stream(commandLine);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word.front() == '@' ? App::Utf8FromPath(GetPath(word.substr(1))) : word);
    }
    return words;
}

std::vector<std::string> TemporaryFolder::GetFiles(const std::string& subfolder) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(GetPath(subfolder))) {
        names.push_back(App::Utf8FromPath(entry.path().filename()));
    }
    std::ranges::sort(names);
    return names;
}

void WriteBytes(const fs::path& path, std::span<const std::uint8_t> bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

std::string ReadText(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

namespace {

DXGI_FORMAT GetFormat(unsigned bitsPerChannel) {
    return bitsPerChannel == 8 ? DXGI_FORMAT_R8G8B8A8_UNORM : DXGI_FORMAT_R16G16B16A16_UNORM;
}

} // namespace

Image MakeImage(const Pixels& pixels, unsigned bitsPerChannel) {
    return {.width = pixels.width,
            .height = pixels.height,
            .bitsPerChannel = bitsPerChannel,
            .pixels = EncodePixels(pixels, GetFormat(bitsPerChannel)),
            .colorSpace = {}};
}

Pixels GetPixels(const Image& image) {
    return DecodePixels(image.pixels.data(), image.GetRowSize(), image.width, image.height,
                        GetFormat(image.bitsPerChannel));
}

Samples GetPixel(const Image& image, std::size_t x, std::size_t y) {
    const std::size_t size = image.bitsPerChannel / 8;
    Samples samples{};
    for (std::size_t i = 0; i < samples.size(); ++i) {
        std::memcpy(&samples[i], &image.pixels.at(((y * image.width + x) * 4 + i) * size), size);
    }
    return samples;
}

Image MakeNoise(unsigned width, unsigned height, unsigned bitsPerChannel, bool isOpaque,
                unsigned seed) {
    std::mt19937 random(seed);
    const auto sample = [&random] { return random() / 4294967295.0; };
    const auto color = [&](unsigned, unsigned) {
        return Color{sample(), sample(), sample(), isOpaque ? 1.0 : sample()};
    };
    return MakeImage(MakePixels(width, height, color), bitsPerChannel);
}

Image MakePlain(unsigned width, unsigned height, const Samples& rgba) {
    return MakeImage(MakePixels(width, height, [&](unsigned, unsigned) {
        return Color{rgba[0] / 255.0, rgba[1] / 255.0, rgba[2] / 255.0, rgba[3] / 255.0};
    }));
}

Image MakeStripes(unsigned width, unsigned height) {
    return MakeImage(MakePixels(width, height, [](unsigned x, unsigned) {
        return x % 2 == 0 ? Color{1, 1, 1, 1} : Color{0, 0, 0, 1};
    }));
}

void WriteWithWic(const fs::path& path, const GUID& container, WICPixelFormatGUID format,
                  unsigned width, unsigned height, Bytes pixels, std::vector<WICColor> palette) {
    const auto check = [](HRESULT result) { EXPECT_EQ(result, S_OK) << "of the encoder"; };
    const auto size = static_cast<UINT>(pixels.size());
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CComPtr<IWICImagingFactory> factory;
    check(factory.CoCreateInstance(CLSID_WICImagingFactory));
    CComPtr<IWICStream> stream;
    check(factory->CreateStream(&stream));
    check(stream->InitializeFromFilename(path.c_str(), GENERIC_WRITE));
    CComPtr<IWICBitmapEncoder> encoder;
    check(factory->CreateEncoder(container, nullptr, &encoder));
    check(encoder->Initialize(stream, WICBitmapEncoderNoCache));
    CComPtr<IWICBitmapFrameEncode> frame;
    check(encoder->CreateNewFrame(&frame, nullptr));
    check(frame->Initialize(nullptr));
    check(frame->SetSize(width, height));
    check(frame->SetPixelFormat(&format));
    if (!palette.empty()) {
        CComPtr<IWICPalette> colors;
        check(factory->CreatePalette(&colors));
        check(colors->InitializeCustom(palette.data(), static_cast<UINT>(palette.size())));
        check(frame->SetPalette(colors));
    }
    check(frame->WritePixels(height, size / height, size, pixels.data()));
    check(frame->Commit());
    check(encoder->Commit());
}

void WriteJpeg(const fs::path& path, const Image& image) {
    Bytes pixels;
    for (auto at = image.pixels.begin(); at != image.pixels.end(); at += 4) {
        pixels.insert(pixels.end(), {at[2], at[1], at[0]});
    }
    WriteWithWic(path, GUID_ContainerFormatJpeg, GUID_WICPixelFormat24bppBGR, image.width,
                 image.height, pixels);
}

} // namespace Norvex::Test
