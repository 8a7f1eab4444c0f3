// The viewer and a clip with a device that is lost, and the viewer with a display in HDR: inside
// the test, which stands in for what the system answers.

#include <memory>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/commands/EncodeCommand.h"
#include "apps/norvexdx/commands/ViewCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "tests/apps/Expectations.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Device11.h"
#include "tests/support/Generation.h"
#include "tests/support/HDRDisplay.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;

template <class Options>
Options Parse(const std::vector<std::string>& arguments) {
    return std::get<Options>(ParseCommandLine(arguments).command);
}

class ViewerDeviceTest : public testing::TestWithParam<Generation> {
protected:
    ViewerDeviceTest() { WriteImage(m_path, m_picture); }

    static bool IsDirect3D12() { return GetParam() == Generation::Direct3D12; }

    // Runs `view`. What it fails with.
    std::string Run(const std::string& options = "--frames 6 --json") {
        const auto view = Parse<ViewOptions>(
            m_folder.Split("view @in.png --size 320x200 --screenshot @out.png --api " +
                           std::string(IsDirect3D12() ? "d3d12 " : "d3d11 ") + options));
        HANDLE old = GetStdHandle(STD_OUTPUT_HANDLE);
        HANDLE file = CreateFileW(m_folder.GetPath("stdout").c_str(), GENERIC_WRITE, 0, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        SetStdHandle(STD_OUTPUT_HANDLE, file);
        const std::string failure = FailureOf([&] { EXPECT_EQ(RunView(view), ExitCode::Success); });
        SetStdHandle(STD_OUTPUT_HANDLE, old);
        CloseHandle(file);
        m_out = ReadText(m_folder.GetPath("stdout"));
        m_report = json::parse(m_out, nullptr, false);
        return failure;
    }
    void ExpectPictureAfterLosses(int losses) {
        EXPECT_EQ(Run(), "(nothing)");
        ExpectFields(m_report, fmt::format(R"({{"deviceLosses": {}, "frames": 6}})", losses));
        EXPECT_TRUE(ReadShot().pixels == m_picture.pixels);
    }
    Image ReadShot() const { return ReadImage(m_folder.GetPath("out.png")); }

    TemporaryFolder m_folder;
    const std::filesystem::path m_path = m_folder.GetPath("in.png");
    const Image m_picture = MakeNoise(320, 200, 8, true);
    json m_report;
    std::string m_out;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest, BothGenerations(), &NameOf);

TEST_P(ViewerDeviceTest, SavesAndReportsWhatItShowedUnattended) {
    ExpectPictureAfterLosses(0);
    ExpectFields(m_report, R"({"hdr": false, "format": "R8G8B8A8_UNORM"})");
    EXPECT_GT(m_report.at("frameTimeMs").at("median"), 0.0);
    EXPECT_THAT(m_report.at("peakFramesInFlight"), testing::AllOf(testing::Ge(1), testing::Le(3)));

    // Fine stripes become grey, in every frame; without --json the report is text.
    WriteImage(m_path, MakeStripes(1024, 1024));
    for (const char* options : {"--frames 1", "--frames 3"}) {
        EXPECT_EQ(Run(options), "(nothing)");
        EXPECT_THAT(m_out, testing::HasSubstr("frame "));
        ExpectPixel(ReadShot(), 160, 100, {128, 128, 128, 255}, 6);
    }
}

// Has a method of all devices fail with that result where the function says so for the number of
// the call, from 1 on. Up to seven arguments are left alone, as in FailingMethod.
template <auto slot11, auto slot12>
std::shared_ptr<void> FailCalls(bool isDirect3D12, HRESULT result,
                                const std::function<bool(int)>& fails) {
    using Signature = HRESULT(IUnknown*, void*, void*, void*, void*, void*, void*, void*);
    const auto method = [=, calls = 0](auto original, auto... arguments) mutable {
        return fails(++calls) ? result : original(arguments...);
    };
    if (isDirect3D12) {
        return std::make_shared<MethodPatch<slot12, Signature>>(
            DX::D12Device::CreatePrimary()->Get(), method);
    }
    return std::make_shared<MethodPatch<slot11, Signature>>(MakeRawDevice11(), method);
}

TEST_P(ViewerDeviceTest, BeginsAnewWhenTheDeviceIsLost) {
    constexpr auto& fail =
        FailCalls<&ID3D11Device::GetDeviceRemovedReason, &ID3D12Device::GetDeviceRemovedReason>;
    for (const int call : {1, 2, 5, 8}) {
        const auto patch = fail(IsDirect3D12(), DXGI_ERROR_DEVICE_REMOVED,
                                [call](int number) { return number == call; });
        ExpectPictureAfterLosses(1);
    }
    {
        // Told by a call that creates something instead.
        const auto patch =
            FailCalls<&ID3D11Device::CreateTexture2D, &ID3D12Device::CreateCommittedResource>(
                IsDirect3D12(), DXGI_ERROR_DEVICE_RESET, [](int number) { return number == 2; });
        ExpectPictureAfterLosses(1);
    }
    const auto patch = fail(IsDirect3D12(), DXGI_ERROR_DEVICE_HUNG, [](int) { return true; });
    EXPECT_EQ(Run(), "the graphics device was lost 3 times within 10 seconds (0x887a0006)");
}

TEST_P(ViewerDeviceTest, ShowsLightOfTheDisplayInHDR) {
    HDRDisplay display(IsDirect3D12());
    const auto expectShot = [&](std::size_t x, double light) { // 1.0 is 100 cd/m2
        const auto code = static_cast<unsigned>(PQFromLight(light) * 65535.0);
        ExpectPixel(ReadShot(), x, 100, {code, code, code, 65535}, 8);
    };
    // White, and nothing, beside each other.
    WriteImage(m_path, MakeImage(MakePixels(4, 1, [](unsigned x, unsigned) {
                   return x < 2 ? Color{1, 1, 1, 1} : Color{};
               })));
    EXPECT_EQ(Run("--frames 2 --json --hdr on"), "(nothing)");
    expectShot(80, 2.03);
    expectShot(240, 2.03 * LightFromSRGB(0x20 / 255.0));

    const double grey = PQFromLight(1.0);
    Image picture = MakeImage({1, 1, {{grey, grey, grey, 1}}}, 16);
    picture.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    WriteImage(m_path, picture);
    const struct {
        const char* choice;
        bool isDisplayInHDR;
        bool isHDR;
    } kCases[] = {
        {"auto", true, true}, {"off", true, false}, {"auto", false, false}, {"on", false, false}};
    for (const auto& [choice, isDisplayInHDR, isHDR] : kCases) {
        display.Switch(isDisplayInHDR);
        EXPECT_EQ(Run(std::string("--frames 2 --json --hdr ") + choice), "(nothing)");
        EXPECT_EQ(m_report.at("hdr"), isHDR);
        EXPECT_EQ(m_report.at("format"), isHDR ? "R16G16B16A16_FLOAT" : "R8G8B8A8_UNORM");
        EXPECT_EQ(ReadShot().colorSpace, isHDR ? picture.colorSpace : std::nullopt);
        if (isHDR) {
            expectShot(160, 1.0);
        }
    }
}

// Only Direct3D 12 could take it for a finished frame: Direct3D 11 fails to map.
TEST(LostDeviceTest, FailsTheClip) {
    const TemporaryFolder folder;
    WriteImage(folder.GetPath("in.png"), MakePlain(4, 4, {}));
    const auto encode =
        Parse<EncodeOptions>(folder.Split("encode @in.png -o @clip --format nv12 --api d3d12"));
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(
        DX::D12Device::CreatePrimary()->Get(), DXGI_ERROR_DEVICE_HUNG);
    EXPECT_THROW(RunEncode(encode), DX::DirectX12Exception);
    EXPECT_THAT(folder.GetFiles(), testing::ElementsAre("in.png"));
}

} // namespace

} // namespace Norvex::Test
