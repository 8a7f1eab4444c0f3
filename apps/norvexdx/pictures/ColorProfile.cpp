#include "apps/norvexdx/pictures/ColorProfile.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <span>
#include <type_traits>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"

#include <icm.h>

#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

namespace {

using Element = std::vector<std::uint8_t>; // of a profile

constexpr DWORD kRGBData = 0x52474220;       // "RGB "
constexpr TAGTYPE kDescription = 0x64657363; // "desc"
constexpr TAGTYPE kCodePoints = 0x63696370;  // "cicp"

struct CloseProfile {
    void operator()(HPROFILE profile) const { CloseColorProfile(profile); }
};
using Profile = std::unique_ptr<std::remove_pointer_t<HPROFILE>, CloseProfile>;

struct DeleteTransform {
    void operator()(HTRANSFORM transform) const { DeleteColorTransform(transform); }
};
using ColorTransform = std::unique_ptr<std::remove_pointer_t<HTRANSFORM>, DeleteTransform>;

Profile Open(DWORD kind, void* data, std::size_t sizeInBytes) {
    PROFILE source = {kind, data, static_cast<DWORD>(sizeInBytes)};
    return Profile(OpenColorProfileW(&source, PROFILE_READ, FILE_SHARE_READ, OPEN_EXISTING));
}

// The system's own, in its folder of profiles.
Profile OpenSRGB() {
    std::array<wchar_t, MAX_PATH> folder{};
    DWORD size = sizeof(folder);
    if (!GetColorDirectoryW(nullptr, folder.data(), &size)) {
        return nullptr;
    }
    std::wstring file = std::filesystem::path(folder.data()) / L"sRGB Color Space Profile.icm";
    return Open(PROFILE_FILENAME, file.data(), (file.size() + 1) * sizeof(wchar_t));
}

// Empty where the profile has none, or claims one larger than itself.
Element GetElement(HPROFILE profile, TAGTYPE tag, std::size_t profileSize) {
    DWORD size = 0;
    BOOL isReference = FALSE;
    GetColorProfileElement(profile, tag, 0, &size, nullptr, &isReference);
    if (size == 0 || size > profileSize) {
        return {};
    }
    Element element(size);
    const BOOL isRead =
        GetColorProfileElement(profile, tag, 0, &size, element.data(), &isReference);
    return isRead != FALSE ? element : Element();
}

// Profiles are big-endian; 0 beyond the end.
std::size_t ReadNumber(const Element& element, std::size_t offset, std::size_t size) {
    std::size_t value = 0;
    for (std::size_t i = offset; i < offset + size && offset + size <= element.size(); ++i) {
        value = value << 8 | element[i];
    }
    return value;
}

// ICC.1, textDescriptionType of version 2 and, in UTF-16, multiLocalizedUnicodeType of version 4.
std::string ReadName(const Element& element) {
    const bool isWide = ReadNumber(element, 0, 4) != kDescription;
    const std::size_t offset = isWide ? ReadNumber(element, 24, 4) : 12;
    const std::size_t length = ReadNumber(element, isWide ? 20 : 8, 4);
    std::wstring name;
    for (std::size_t i = 0; i < length && offset + i < element.size(); i += isWide ? 2 : 1) {
        name += static_cast<wchar_t>(ReadNumber(element, offset + i, isWide ? 2 : 1));
    }
    std::erase_if(name, [](wchar_t c) { return c < L' '; }); // it goes to the terminal
    return Core::Utf8FromWstring(name);
}

// ICC.1, cicpType: four numbers of ITU-T H.273 behind its name.
std::optional<Conf::RGBColorSpace> ReadCodePoints(const Element& element) {
    const bool isFullRGB = ReadNumber(element, 10, 2) == 0x0001; // matrix 0, full range
    return isFullRGB ? FindColorSpace(element[8], element[9]) : std::nullopt;
}

using ProfileColors = std::vector<COLOR>; // of 16 bits a channel

ProfileColors ConvertColors(HTRANSFORM transform, ProfileColors& colors) {
    ProfileColors converted(colors.size());
    if (!TranslateColors(transform, colors.data(), static_cast<DWORD>(colors.size()), COLOR_RGB,
                         converted.data(), COLOR_RGB)) {
        throw Failure("the system cannot convert its colours");
    }
    return converted;
}

ColorTransform MakeTransform(HPROFILE source) {
    const Profile target = OpenSRGB();
    std::array<HPROFILE, 2> profiles = {source, target.get()};
    constexpr DWORD kAnyColorModule = 0; // INDEX_DONT_CARE, which not all headers have
    DWORD intent = INTENT_RELATIVE_COLORIMETRIC;
    ColorTransform transform(target != nullptr
                                 ? CreateMultiProfileTransform(profiles.data(), 2, &intent, 1,
                                                               BEST_MODE, kAnyColorModule)
                                 : nullptr);
    if (transform == nullptr) {
        throw Failure("the system cannot convert its colours");
    }
    return transform;
}

COLOR MakeColor(unsigned r, unsigned g, unsigned b) {
    COLOR color = {};
    color.rgb = {static_cast<WORD>(r), static_cast<WORD>(g), static_cast<WORD>(b)};
    return color;
}

// Whether nothing would change that is seen, at the corners of the cube of colours and between.
bool KeepsColors(HTRANSFORM transform) {
    constexpr unsigned kStep = 0xFFFF / 5;
    constexpr int kTolerance = 0xFFFF / 255;
    ProfileColors colors;
    for (unsigned r = 0; r <= 5; ++r) {
        for (unsigned g = 0; g <= 5; ++g) {
            for (unsigned b = 0; b <= 5; ++b) {
                colors.push_back(MakeColor(r * kStep, g * kStep, b * kStep));
            }
        }
    }
    const ProfileColors converted = ConvertColors(transform, colors);
    return std::ranges::equal(colors, converted, [](const COLOR& one, const COLOR& other) {
        return std::abs(one.rgb.red - other.rgb.red) <= kTolerance &&
               std::abs(one.rgb.green - other.rgb.green) <= kTolerance &&
               std::abs(one.rgb.blue - other.rgb.blue) <= kTolerance;
    });
}

template <class Sample>
void ConvertRow(HTRANSFORM transform, std::uint8_t* row, std::size_t width) {
    constexpr unsigned kScale = sizeof(Sample) == 1 ? 257 : 1; // to 16 bits
    using Pixel = std::array<Sample, Image::kChannels>;
    ProfileColors colors(width);
    for (std::size_t x = 0; x < width; ++x) {
        Pixel pixel{};
        std::memcpy(&pixel, row + x * sizeof(Pixel), sizeof(Pixel));
        colors[x] = MakeColor(pixel[0] * kScale, pixel[1] * kScale, pixel[2] * kScale);
    }
    colors = ConvertColors(transform, colors);
    for (std::size_t x = 0; x < width; ++x) {
        const auto& [red, green, blue] = colors[x].rgb;
        const std::array rgb = {static_cast<Sample>((red + kScale / 2) / kScale),
                                static_cast<Sample>((green + kScale / 2) / kScale),
                                static_cast<Sample>((blue + kScale / 2) / kScale)};
        std::memcpy(row + x * sizeof(Pixel), rgb.data(), sizeof(rgb));
    }
}

} // namespace

void ApplyProfile(Image& image) {
    Element bytes = std::move(image.profile->bytes);
    image.profile->bytes.clear();
    const Profile profile = Open(PROFILE_MEMBUFFER, bytes.data(), bytes.size());
    PROFILEHEADER header = {};
    BOOL isValid = FALSE;
    if (profile == nullptr || !GetColorProfileHeader(profile.get(), &header) ||
        !IsColorProfileValid(profile.get(), &isValid) || !isValid) {
        throw Failure("it is damaged");
    }
    image.profile->name = ReadName(GetElement(profile.get(), kDescription, bytes.size()));
    if (header.phDataColorSpace != kRGBData) {
        throw Failure("it is not one of RGB");
    }
    image.colorSpace = ReadCodePoints(GetElement(profile.get(), kCodePoints, bytes.size()));
    if (image.colorSpace) {
        return;
    }
    const ColorTransform transform = MakeTransform(profile.get());
    image.colorSpace = Conf::RGBColorSpace{};
    if (KeepsColors(transform.get())) {
        return;
    }
    const auto convert =
        image.bitsPerChannel == 16 ? &ConvertRow<std::uint16_t> : &ConvertRow<std::uint8_t>;
    for (std::size_t y = 0; y < image.height; ++y) {
        convert(transform.get(), image.pixels.data() + y * image.GetRowSize(), image.width);
    }
}

} // namespace Norvex::App
