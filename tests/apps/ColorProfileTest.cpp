// ICC profiles in picture files.

#include <cmath>

#include <gmock/gmock.h>

#include "Platform/Direct3D.h"

#include <zlib.h>

#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "tests/apps/Pictures.h"

namespace Norvex::Test {

namespace {

using namespace App;
using namespace std::string_literals;
using testing::HasSubstr;

// Big-endian, as profiles and PNG files are.
std::string Word(std::size_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

std::string LittleWord(std::size_t value) {
    const std::string bytes = Word(value);
    return {bytes.rbegin(), bytes.rend()};
}

std::string MakeXYZ(double x, double y, double z) {
    const auto fixed = [](double v) { return Word(static_cast<std::size_t>(v * 65536.0)); };
    return "XYZ "s + Word(0) + fixed(x) + fixed(y) + fixed(z);
}

// Linear light in sRGB's primaries, red and blue exchanged. ICC.1:2001.
std::string MakeProfile(const std::string& colorModel) {
    const std::string curve = "curv"s + Word(0) + Word(0);
    const std::pair<const char*, std::string> kTags[] = {
        {"desc", "desc"s + Word(0) + Word(5) + "swap"s + std::string(79, '\0')},
        {"wtpt", MakeXYZ(0.9642, 1.0, 0.8249)},
        {"rXYZ", MakeXYZ(0.14308, 0.06062, 0.71417)},
        {"gXYZ", MakeXYZ(0.38506, 0.71688, 0.09710)},
        {"bXYZ", MakeXYZ(0.43607, 0.22250, 0.01393)},
        {"rTRC", curve},
        {"gTRC", curve},
        {"bTRC", curve},
    };
    std::string table = Word(std::size(kTags));
    std::string data;
    for (const auto& [name, value] : kTags) {
        table += name + Word(132 + 12 * std::size(kTags) + data.size()) + Word(value.size());
        data += value;
        data.resize((data.size() + 3) / 4 * 4);
    }
    std::string header(128, '\0');
    header.replace(0, 4, Word(header.size() + table.size() + data.size()));
    header.replace(8, 4, Word(0x02100000));
    header.replace(12, 12, "mntr" + colorModel + "XYZ ");
    header.replace(36, 4, "acsp");
    header.replace(68, 12, Word(0xF6D6) + Word(0x10000) + Word(0xD32D));
    return header + table + data;
}

// Each a picture of one colour, which its profile sees as (188, 0, 255) of sRGB.
constexpr Samples kColor = {255, 0, 128, 255};

std::string MakePngWith(const TemporaryFolder& folder, const std::string& profile) {
    auto size = compressBound(static_cast<uLong>(profile.size()));
    std::string packed(size, '\0');
    compress(reinterpret_cast<Bytef*>(packed.data()), &size,
             reinterpret_cast<const Bytef*>(profile.data()), static_cast<uLong>(profile.size()));
    const std::string chunk = "iCCPswap\0\0"s + packed.substr(0, size);
    WriteImage(folder.GetPath("plain.png"), MakePlain(1, 1, kColor));
    std::string file = ReadText(folder.GetPath("plain.png"));
    constexpr std::size_t kBehindHeader = 33;
    file.insert(kBehindHeader, Word(chunk.size() - 4) + chunk +
                                   Word(crc32(0, reinterpret_cast<const Bytef*>(chunk.data()),
                                              static_cast<uInt>(chunk.size()))));
    return file;
}

std::string MakeJpegWith(const TemporaryFolder& folder, const std::string& profile) {
    WriteJpeg(folder.GetPath("plain.jpg"), MakePlain(16, 16, kColor));
    std::string file = ReadText(folder.GetPath("plain.jpg"));
    return file.insert(2, "\xFF\xE2"s + Word(profile.size() + 16).substr(2) + "ICC_PROFILE\0\1\1"s +
                              profile);
}

std::string MakeTiffWith(const std::string& profile) {
    constexpr std::size_t kShort = 3;
    constexpr std::size_t kLong = 4;
    constexpr std::size_t kUndefined = 7;
    const std::array<std::size_t, 4> kEntries[] = {
        {256, kShort, 1, 1},   {257, kShort, 1, 1},
        {258, kShort, 3, 134}, {259, kShort, 1, 1},
        {262, kShort, 1, 2},   {273, kLong, 1, 140},
        {277, kShort, 1, 3},   {278, kShort, 1, 1},
        {279, kLong, 1, 3},    {34675, kUndefined, profile.size(), 144},
    };
    std::string file = "II*\0\x08\0\0\0\x0A\0"s;
    for (const auto& [tag, type, count, value] : kEntries) {
        file += LittleWord(tag).substr(0, 2) + LittleWord(type).substr(0, 2) + LittleWord(count) +
                LittleWord(value);
    }
    return file + LittleWord(0) + "\x08\0\x08\0\x08\0\xFF\0\x80\0"s + profile;
}

void ExpectColor(const Image& image, const std::array<unsigned, 3>& color, unsigned bound) {
    for (std::size_t i = 0; i < color.size(); ++i) {
        EXPECT_NEAR(GetPixel(image, 0, 0)[i], color[i], bound) << "channel " << i;
    }
}

class ColorProfileTest : public testing::Test {
protected:
    Image Read(const std::string& file, const std::optional<Conf::RGBColorSpace>& from = {}) const {
        WriteBytes(m_path, ToBytes(file));
        return ReadImage(m_path, from);
    }

    TemporaryFolder m_folder;
    std::filesystem::path m_path = m_folder.GetPath("picture");
};

TEST_F(ColorProfileTest, PicturesBecomeSRGB) {
    const std::string profile = MakeProfile("RGB ");
    const std::pair<std::string, unsigned> kFiles[] = {{MakePngWith(m_folder, profile), 1},
                                                       {MakeJpegWith(m_folder, profile), 6},
                                                       {MakeTiffWith(profile), 1}};
    for (const auto& [file, bound] : kFiles) {
        SCOPED_TRACE(file.substr(0, 4));
        const Image image = Read(file);
        ExpectColor(image, {188, 0, 255}, bound);
        EXPECT_EQ(image.colorSpace, Conf::RGBColorSpace());
        ASSERT_TRUE(image.profile);
        EXPECT_EQ(image.profile->name, "swap");
        // The user knows better.
        const Conf::RGBColorSpace pq = {Conf::ColorPrimaries::BT2020,
                                        Conf::TransferCharacteristics::PQ};
        const Image asIs = Read(file, pq);
        ExpectColor(asIs, {255, 0, 128}, bound);
        EXPECT_FALSE(asIs.colorSpace);
    }
    std::array<wchar_t, MAX_PATH> system{};
    GetSystemDirectoryW(system.data(), MAX_PATH);
    const auto own =
        std::filesystem::path(system.data()) / L"spool/drivers/color/sRGB Color Space Profile.icm";
    ExpectColor(Read(MakePngWith(m_folder, ReadText(own))), {255, 0, 128}, 0);
}

TEST_F(ColorProfileTest, WhatCannotBeUsedIsToldAndLeftAside) {
    for (const std::string& profile : {MakeProfile("GRAY"), "no profile at all"s}) {
        for (const std::string& file : {MakePngWith(m_folder, profile), MakeTiffWith(profile)}) {
            HANDLE errors = GetStdHandle(STD_ERROR_HANDLE);
            HANDLE told = CreateFileW(m_folder.GetPath("told").c_str(), GENERIC_WRITE,
                                      FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
            SetStdHandle(STD_ERROR_HANDLE, told);
            const Image image = Read(file);
            SetStdHandle(STD_ERROR_HANDLE, errors);
            CloseHandle(told);
            ExpectColor(image, {255, 0, 128}, 0);
            EXPECT_FALSE(image.colorSpace || image.profile);
            EXPECT_THAT(ReadText(m_folder.GetPath("told")), HasSubstr("is left aside: it is"));
        }
    }
}

} // namespace

} // namespace Norvex::Test
