#include "tests/apps/Pictures.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

#include "Platform/ComPtr.h"
#include "Platform/Direct3D.h"

#include <wincodec.h>
#include <zlib.h>

#include <fmt/format.h>

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

unsigned GetSample(const Image& image, std::size_t x, std::size_t y, std::size_t channel) {
    const std::size_t index = (y * image.width + x) * Image::kChannels + channel;
    return image.bitsPerChannel == 8
               ? image.pixels.at(index)
               : image.pixels.at(2 * index) + 256U * image.pixels.at(2 * index + 1);
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

Image MakePlain(unsigned width, unsigned height, const std::array<int, 4>& rgba) {
    Color color{};
    std::ranges::transform(rgba, color.begin(), [](int sample) { return sample / 255.0; });
    return MakeImage(MakePixels(width, height, [&](unsigned, unsigned) { return color; }));
}

Image MakeStripes(unsigned width, unsigned height) {
    return MakeImage(MakePixels(width, height, [](unsigned x, unsigned) {
        return x % 2 == 0 ? Color{1, 1, 1, 1} : Color{0, 0, 0, 1};
    }));
}

std::array<float, 2> Locate(const App::View& view, const DX::Size2DT<long>& picture,
                            const DX::Size2DT<long>& window, float x, float y) {
    const auto rows = App::PlacePicture(view, picture, window).transform.rows;
    const std::array half = {static_cast<float>(window.width) / 2.0F,
                             static_cast<float>(window.height) / 2.0F};
    return {half[0] + (x * rows[0][0] + y * rows[1][0]) * half[0] + rows[3][0],
            half[1] - (x * rows[0][1] + y * rows[1][1]) * half[1] - rows[3][1]};
}

namespace {

std::string BigEndian(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

const Bytef* Data(const std::string& bytes) {
    return reinterpret_cast<const Bytef*>(bytes.data());
}

// body: the name and the data.
std::string MakeChunk(const std::string& body) {
    const auto size = static_cast<uInt>(body.size());
    return BigEndian(size - 4) + body +
           BigEndian(static_cast<std::uint32_t>(crc32(0, Data(body), size)));
}

std::string Deflate(const std::string& data) {
    auto size = compressBound(static_cast<uLong>(data.size()));
    std::string packed(size, '\0');
    compress(reinterpret_cast<Bytef*>(packed.data()), &size, Data(data),
             static_cast<uLong>(data.size()));
    return packed.substr(0, size);
}

void Check(HRESULT result) {
    if (FAILED(result)) {
        throw std::runtime_error(fmt::format("WIC: {:08x}", static_cast<std::uint32_t>(result)));
    }
}

// The channels of the order, of every pixel.
void WriteWithWic(const fs::path& path, const GUID& container, WICPixelFormatGUID format,
                  const Image& image, std::initializer_list<std::size_t> order) {
    Bytes pixels;
    const std::size_t sampleSize = image.bitsPerChannel / 8;
    for (auto at = image.pixels.begin(); at != image.pixels.end(); at += image.GetPixelSize()) {
        for (const std::size_t channel : order) {
            pixels.insert(pixels.end(), at + channel * sampleSize, at + (channel + 1) * sampleSize);
        }
    }
    const auto size = static_cast<UINT>(pixels.size());
    [[maybe_unused]] static const HRESULT kApartment =
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CComPtr<IWICImagingFactory> factory;
    Check(factory.CoCreateInstance(CLSID_WICImagingFactory));
    CComPtr<IWICStream> stream;
    Check(factory->CreateStream(&stream));
    Check(stream->InitializeFromFilename(path.c_str(), GENERIC_WRITE));
    CComPtr<IWICBitmapEncoder> encoder;
    Check(factory->CreateEncoder(container, nullptr, &encoder));
    Check(encoder->Initialize(stream, WICBitmapEncoderNoCache));
    CComPtr<IWICBitmapFrameEncode> frame;
    Check(encoder->CreateNewFrame(&frame, nullptr));
    Check(frame->Initialize(nullptr));
    Check(frame->SetSize(image.width, image.height));
    Check(frame->SetPixelFormat(&format));
    Check(frame->WritePixels(image.height, size / image.height, size, pixels.data()));
    Check(frame->Commit());
    Check(encoder->Commit());
}

} // namespace

Bytes MakePng(std::uint32_t width, std::uint32_t height, unsigned bitDepth, unsigned colorType,
              const std::vector<std::string>& rows, const std::string& palette,
              const std::string& transparency) {
    std::string header = "IHDR" + BigEndian(width) + BigEndian(height);
    header += {static_cast<char>(bitDepth), static_cast<char>(colorType), 0, 0, 0};
    std::string file = "\x89PNG\r\n\x1a\n" + MakeChunk(header);
    file += palette.empty() ? "" : MakeChunk("PLTE" + palette);
    file += transparency.empty() ? "" : MakeChunk("tRNS" + transparency);
    std::string data;
    for (const std::string& row : rows) {
        data += '\0' + row; // no filter
    }
    file += MakeChunk("IDAT" + Deflate(data)) + MakeChunk("IEND");
    return {file.begin(), file.end()};
}

void WriteTiff16(const fs::path& path, const Image& image) {
    WriteWithWic(path, GUID_ContainerFormatTiff, GUID_WICPixelFormat48bppRGB, image, {0, 1, 2});
}

void WriteJpeg(const fs::path& path, const Image& image) {
    WriteWithWic(path, GUID_ContainerFormatJpeg, GUID_WICPixelFormat24bppBGR, image, {2, 1, 0});
}

} // namespace Norvex::Test
