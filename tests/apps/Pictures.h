#pragma once

// Pictures for tests, made in code, and folders to put them in. File names are in UTF-8.

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <boost/core/noncopyable.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Platform/ComPtr.h"
#include "apps/norvexdx/pictures/Image.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "tests/support/Pixels.h"

#include <wincodec.h>

namespace Norvex::Test {

using Bytes = std::vector<std::uint8_t>;
using Samples = std::array<unsigned, 4>; // of a pixel: red, green, blue, alpha

// A new folder, removed with all that is in it. Its name has a space and letters that no code page
// has together. One thread.
class TemporaryFolder : boost::noncopyable {
public:
    TemporaryFolder() { std::filesystem::create_directories(m_path); }
    ~TemporaryFolder() {
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }

    std::filesystem::path GetPath(const std::string& name) const {
        return m_path / App::PathFromUtf8(name);
    }
    // The words of a command line, between spaces: @name is that file in this folder.
    std::vector<std::string> Split(const std::string& commandLine) const {
        std::istringstream stream(commandLine);
        std::vector<std::string> words;
        for (std::string word; stream >> word;) {
            const bool isFile = word.front() == '@';
            words.push_back(isFile ? App::Utf8FromPath(GetPath(word.substr(1))) : word);
        }
        return words;
    }
    auto CountFiles() const {
        return std::distance(std::filesystem::directory_iterator(m_path), {});
    }

private:
    static inline int s_count = 0;

    std::filesystem::path m_path =
        std::filesystem::temp_directory_path() /
        App::PathFromUtf8(fmt::format("norvexdx test \xC3\xA4\xE2\x82\xAC\xCF\x80 {} {}",
                                      GetCurrentProcessId(), ++s_count));
};

// Bytes or text.
template <class Content>
void WriteBytes(const std::filesystem::path& path, const Content& content) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(std::data(content)), std::ssize(content));
}
inline std::string ReadText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The system's own.
inline std::string ReadSRGBProfile() {
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    return ReadText(std::filesystem::path(system) /
                    L"spool/drivers/color/sRGB Color Space Profile.icm");
}

inline DXGI_FORMAT FormatOfDepth(unsigned bitsPerChannel) {
    return bitsPerChannel == 8 ? DXGI_FORMAT_R8G8B8A8_UNORM : DXGI_FORMAT_R16G16B16A16_UNORM;
}
// Values from 0 to 1.
inline App::Image MakeImage(const Pixels& pixels, unsigned bitsPerChannel = 8) {
    App::Image image{pixels.width, pixels.height, bitsPerChannel, {}, {}};
    image.pixels = EncodePixels(pixels, FormatOfDepth(bitsPerChannel));
    return image;
}
inline Pixels GetPixels(const App::Image& image) {
    return DecodePixels(image.pixels.data(), image.GetRowSize(), image.width, image.height,
                        FormatOfDepth(image.bitsPerChannel));
}
inline Samples GetPixel(const App::Image& image, std::size_t x, std::size_t y) {
    const std::size_t size = image.bitsPerChannel / 8;
    Samples samples{};
    for (std::size_t i = 0; i < samples.size(); ++i) {
        std::memcpy(&samples[i], &image.pixels.at(((y * image.width + x) * 4 + i) * size), size);
    }
    return samples;
}
inline void ExpectPixel(const App::Image& image, std::size_t x, std::size_t y, const Samples& rgba,
                        unsigned tolerance = 1) {
    const Samples samples = GetPixel(image, x, y);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        EXPECT_NEAR(samples[i], rgba[i], tolerance) << x << ", " << y << " channel " << i;
    }
}

// Random samples; the same for the same seed.
inline App::Image MakeNoise(unsigned width, unsigned height, unsigned bitsPerChannel, bool isOpaque,
                            unsigned seed = 1) {
    std::mt19937 random(seed);
    const auto sample = [&random] { return random() / 4294967295.0; };
    const auto color = [&](unsigned, unsigned) {
        return Color{sample(), sample(), sample(), isOpaque ? 1.0 : sample()};
    };
    return MakeImage(MakePixels(width, height, color), bitsPerChannel);
}
inline App::Image MakePlain(unsigned width, unsigned height, const Samples& rgba) {
    return MakeImage(MakePixels(width, height, [&](unsigned, unsigned) {
        return Color{rgba[0] / 255.0, rgba[1] / 255.0, rgba[2] / 255.0, rgba[3] / 255.0};
    }));
}
// Columns of white and black by turns.
inline App::Image MakeStripes(unsigned width, unsigned height) {
    return MakeImage(MakePixels(width, height, [](unsigned x, unsigned) {
        return x % 2 == 0 ? Color{1, 1, 1, 1} : Color{0, 0, 0, 1};
    }));
}

// A file of the system's encoders: rows without padding of pixels of that format.
inline void WriteWithWic(const std::filesystem::path& path, const GUID& container,
                         WICPixelFormatGUID format, unsigned width, unsigned height, Bytes pixels) {
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
    check(frame->WritePixels(height, size / height, size, pixels.data()));
    check(frame->Commit());
    check(encoder->Commit());
}
// Of a picture of 8 bits a channel, without its alpha.
inline void WriteJpeg(const std::filesystem::path& path, const App::Image& image) {
    Bytes pixels;
    for (auto at = image.pixels.begin(); at != image.pixels.end(); at += 4) {
        pixels.insert(pixels.end(), {at[2], at[1], at[0]});
    }
    WriteWithWic(path, GUID_ContainerFormatJpeg, GUID_WICPixelFormat24bppBGR, image.width,
                 image.height, pixels);
}

} // namespace Norvex::Test
