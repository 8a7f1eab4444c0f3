#pragma once

// Pictures for tests, made in code, and folders to put them in.

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "apps/norvexdx/pictures/Image.h"
#include "apps/norvexdx/viewer/View.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

using Bytes = std::vector<std::uint8_t>;

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

// Values from 0 to 1.
App::Image MakeImage(const Pixels& pixels, unsigned bitsPerChannel = 8);
Pixels GetPixels(const App::Image& image);
// Sample of one channel, 8 or 16 bits.
unsigned GetSample(const App::Image& image, std::size_t x, std::size_t y, std::size_t channel);

// Random samples; the same for the same seed.
App::Image MakeNoise(unsigned width, unsigned height, unsigned bitsPerChannel, bool isOpaque,
                     unsigned seed = 1);
App::Image MakePlain(unsigned width, unsigned height, const std::array<int, 4>& rgba);
// Columns of white and black by turns.
App::Image MakeStripes(unsigned width, unsigned height);

// Where a point of a picture (-1 to 1, y up) lies in a window of this size: pixels, y down.
std::array<float, 2> Locate(const App::View& view, const DX::Size2DT<long>& picture,
                            const DX::Size2DT<long>& window, float x, float y);

// A PNG file put together by hand, without libpng: one byte string a row; palette and tRNS may be
// empty.
Bytes MakePng(std::uint32_t width, std::uint32_t height, unsigned bitDepth, unsigned colorType,
              const std::vector<std::string>& rows, const std::string& palette = {},
              const std::string& transparency = {});

// Through the system's encoders. TIFF keeps 16-bit RGB exactly; JPEG gets 8-bit RGB.
void WriteTiff16(const std::filesystem::path& path, const App::Image& image);
void WriteJpeg(const std::filesystem::path& path, const App::Image& image);

} // namespace Norvex::Test
