#pragma once

// Pictures for tests, made in code, and folders to put them in.

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "apps/norvexdx/Image.h"

namespace Norvex::Test {

// A new folder, removed with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path GetPath(const char* name) const { return m_path / name; }
    std::string GetText(const char* name) const;
    // Names, sorted.
    std::vector<std::string> GetFiles() const;

private:
    std::filesystem::path m_path;
};

void WriteBytes(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

// Random samples; the same for the same seed.
App::Image MakeNoise(std::uint32_t width, std::uint32_t height, unsigned bitsPerChannel,
                     bool isOpaque, unsigned seed = 1);
App::Image MakePlain(std::uint32_t width, std::uint32_t height,
                     const std::array<std::uint8_t, 4>& rgba);
// Sample of one channel, 8 or 16 bits.
unsigned GetSample(const App::Image& image, std::size_t x, std::size_t y, std::size_t channel);

// A PNG file put together by hand, without libpng: one byte string a row; palette and tRNS may be
// empty.
std::vector<std::uint8_t> MakePng(std::uint32_t width, std::uint32_t height, unsigned bitDepth,
                                  unsigned colorType, const std::vector<std::string>& rows,
                                  const std::string& palette = {},
                                  const std::string& transparency = {});

// Through the system's encoders. TIFF keeps 16-bit RGB exactly; JPEG gets 8-bit RGB.
void WriteTiff16(const std::filesystem::path& path, const App::Image& image);
void WriteJpeg(const std::filesystem::path& path, const App::Image& image);

} // namespace Norvex::Test
