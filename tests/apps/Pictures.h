#pragma once

// Pictures for tests, made in code, and folders to put them in.

#include <array>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "Platform/Direct3D.h"
#include "apps/norvexdx/pictures/Image.h"
#include "tests/support/Pixels.h"

#include <wincodec.h>

namespace Norvex::Test {

using Bytes = std::vector<std::uint8_t>;
using Samples = std::array<unsigned, 4>; // of a pixel: red, green, blue, alpha

// A new folder, removed with all that is in it. Names are in UTF-8; the folder's own has a space
// and letters that no code page has together.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path GetPath(const std::string& name) const;
    // The words of a command line, between spaces: @name is that file in this folder.
    std::vector<std::string> Split(const std::string& commandLine) const;
    // Names, sorted.
    std::vector<std::string> GetFiles(const std::string& subfolder = ".") const;

private:
    std::filesystem::path m_path;
};

void WriteBytes(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);
std::string ReadText(const std::filesystem::path& path);
inline Bytes ToBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

// Values from 0 to 1.
App::Image MakeImage(const Pixels& pixels, unsigned bitsPerChannel = 8);
Pixels GetPixels(const App::Image& image);
// 8 or 16 bits a channel.
Samples GetPixel(const App::Image& image, std::size_t x, std::size_t y);

// Random samples; the same for the same seed.
App::Image MakeNoise(unsigned width, unsigned height, unsigned bitsPerChannel, bool isOpaque,
                     unsigned seed = 1);
App::Image MakePlain(unsigned width, unsigned height, const Samples& rgba);
// Columns of white and black by turns.
App::Image MakeStripes(unsigned width, unsigned height);

// A file of the system's encoders: rows without padding of pixels of that format; the palette of an
// indexed one.
void WriteWithWic(const std::filesystem::path& path, const GUID& container,
                  WICPixelFormatGUID format, unsigned width, unsigned height, Bytes pixels,
                  std::vector<WICColor> palette = {});
// 8 bits a channel, without alpha.
void WriteJpeg(const std::filesystem::path& path, const App::Image& image);

} // namespace Norvex::Test
