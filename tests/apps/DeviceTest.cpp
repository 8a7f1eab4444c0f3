// The viewer and a clip with a device that is lost, and the viewer with a display in HDR: inside
// the test, which stands in for what the system answers.

#include <memory>

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
using testing::HasSubstr;

template <class Options>
Options Parse(const std::vector<std::string>& arguments) {
    return std::get<Options>(ParseCommandLine(arguments).command);
}

// What the call prints on a standard stream.
template <class Call>
std::string Capture(DWORD stream, const std::filesystem::path& path, const Call& call) {
    HANDLE old = GetStdHandle(stream);
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    SetStdHandle(stream, file);
    call();
    SetStdHandle(stream, old);
    CloseHandle(file);
    return ReadText(path);
}

class ViewerDeviceTest : public testing::TestWithParam<Generation> {
protected:
    ViewerDeviceTest() { WriteImage(m_folder.GetPath("in.png"), m_picture); }

    static bool IsDirect3D12() { return GetParam() == Generation::Direct3D12; }

    // Runs `view`. What it says on standard error and, in brackets, fails with.
    std::string Run(const std::string& options = "--frames 6 --json") {
        const std::string api = IsDirect3D12() ? "d3d12 " : "d3d11 ";
        const auto view = Parse<ViewOptions>(m_folder.Split(
            "view @in.png --size 320x200 --screenshot @out.png --api " + api + options));
        std::string failure;
        const auto run = [&] {
            failure = FailureOf([&] { EXPECT_EQ(RunView(view), ExitCode::Success); });
        };
        std::string messages;
        m_out = Capture(STD_OUTPUT_HANDLE, m_folder.GetPath("stdout"), [&] {
            messages = Capture(STD_ERROR_HANDLE, m_folder.GetPath("stderr"), run);
        });
        m_report = json::parse(m_out, nullptr, false);
        return messages + failure;
    }
    void ExpectPictureAfterLoss(const std::string& reason) {
        EXPECT_EQ(Run(), "norvexdx: the graphics device was lost (" + reason +
                             "): started anew\n(nothing)");
        ExpectFields(m_report, R"({"deviceLosses": 1, "frames": 6})");
        EXPECT_TRUE(ReadShot().pixels == m_picture.pixels);
    }
    Image ReadShot() const { return ReadImage(m_folder.GetPath("out.png")); }

    TemporaryFolder m_folder;
    const Image m_picture = MakeNoise(320, 200, 8, true);
    json m_report;
    std::string m_out;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest, BothGenerations(), &NameOf);

TEST_P(ViewerDeviceTest, SavesAndReportsWhatItShowedUnattended) {
    EXPECT_EQ(Run("--frames 60 --json"), "(nothing)");
    EXPECT_TRUE(ReadShot().pixels == m_picture.pixels);
    ExpectFields(m_report, R"({"frames": 60, "hdr": false, "format": "R8G8B8A8_UNORM",
                               "deviceLosses": 0})");
    EXPECT_GT(m_report.at("frameTimeMs").at("median"), 0.0);
    EXPECT_THAT(m_report.at("peakFramesInFlight"), testing::AllOf(testing::Ge(1), testing::Le(3)));

    // Fine stripes become grey, in every frame; without --json the report is text.
    WriteImage(m_folder.GetPath("in.png"), MakeStripes(1024, 1024));
    for (const char* options : {"--frames 1", "--frames 3"}) {
        EXPECT_EQ(Run(options), "(nothing)");
        EXPECT_THAT(m_out, HasSubstr("frame "));
        ExpectPixel(ReadShot(), 160, 100, {128, 128, 128, 255}, 6);
    }
}

// Answers of a method of all devices: a failure where the function gives one for the number of the
// call, from 1 on, else the real one. Up to seven arguments are left alone, as in FailingMethod.
template <auto slot11, auto slot12>
std::shared_ptr<void> Interpose(bool isDirect3D12, const std::function<HRESULT(int)>& answer) {
    using Signature = HRESULT(IUnknown*, void*, void*, void*, void*, void*, void*, void*);
    const auto method = [answer, calls = 0](auto original, auto... arguments) mutable {
        const HRESULT result = answer(++calls);
        return FAILED(result) ? result : original(arguments...);
    };
    if (isDirect3D12) {
        return std::make_shared<MethodPatch<slot12, Signature>>(
            DX::D12Device::CreatePrimary()->Get(), method);
    }
    return std::make_shared<MethodPatch<slot11, Signature>>(MakeRawDevice11(), method);
}

constexpr auto& InterposeRemovedReason =
    Interpose<&ID3D11Device::GetDeviceRemovedReason, &ID3D12Device::GetDeviceRemovedReason>;
constexpr auto& InterposeCreation =
    Interpose<&ID3D11Device::CreateTexture2D, &ID3D12Device::CreateCommittedResource>;

TEST_P(ViewerDeviceTest, BeginsAnewWhenTheDeviceIsLost) {
    for (const int call : {1, 2, 5, 8}) {
        const auto patch = InterposeRemovedReason(IsDirect3D12(), [call](int number) {
            return number == call ? DXGI_ERROR_DEVICE_REMOVED : S_OK;
        });
        ExpectPictureAfterLoss("0x887a0005");
    }
    // Told by a call that creates something instead.
    const auto patch = InterposeCreation(
        IsDirect3D12(), [](int number) { return number == 2 ? DXGI_ERROR_DEVICE_RESET : S_OK; });
    ExpectPictureAfterLoss("0x887a0007");
    const auto always =
        InterposeRemovedReason(IsDirect3D12(), [](int) { return DXGI_ERROR_DEVICE_HUNG; });
    EXPECT_THAT(Run(), testing::EndsWith("anew\nthe graphics device was lost 3 times within 10 "
                                         "seconds (0x887a0006)"));
}

TEST_P(ViewerDeviceTest, ShowsLightOfTheDisplayInHDR) {
    constexpr Conf::RGBColorSpace kPQ = {Conf::ColorPrimaries::BT2020,
                                         Conf::TransferCharacteristics::PQ};
    const std::string kNoHDR = "norvexdx: the display is not in HDR: pictures are shown in SDR\n";
    HDRDisplay display(IsDirect3D12());
    const auto expectShot = [&](std::size_t x, double light) { // 1.0 is 100 cd/m2
        const auto code = static_cast<unsigned>(PQFromLight(light) * 65535.0);
        ExpectPixel(ReadShot(), x, 100, {code, code, code, 65535}, 8);
    };
    const auto grey = [](double left, double right) {
        return MakePixels(64, 40, [=](unsigned x, unsigned) {
            const double value = x < 32 ? left : right;
            return Color{value, value, value, value > 0.0 ? 1.0 : 0.0};
        });
    };
    // White, and nothing, beside each other.
    WriteImage(m_folder.GetPath("in.png"), MakeImage(grey(1.0, 0.0)));
    EXPECT_EQ(Run(), "(nothing)");
    expectShot(80, 2.03);
    expectShot(240, 2.03 * LightFromSRGB(0x20 / 255.0));

    Image picture = MakeImage(grey(PQFromLight(1.0), PQFromLight(1.0)), 16);
    picture.colorSpace = kPQ;
    WriteImage(m_folder.GetPath("in.png"), picture);
    const struct {
        const char* choice;
        bool isDisplayInHDR;
        bool isHDR;
        std::string messages = {};
    } kCases[] = {
        {"auto", true, true},   {"on", true, true},           {"off", true, false},
        {"auto", false, false}, {"on", false, false, kNoHDR},
    };
    for (const auto& [choice, isDisplayInHDR, isHDR, messages] : kCases) {
        display.Switch(isDisplayInHDR);
        EXPECT_EQ(Run(std::string("--frames 2 --json --hdr ") + choice), messages + "(nothing)");
        EXPECT_EQ(m_report.at("hdr"), isHDR);
        EXPECT_EQ(m_report.at("format"), isHDR ? "R16G16B16A16_FLOAT" : "R8G8B8A8_UNORM");
        EXPECT_EQ(ReadShot().bitsPerChannel, isHDR ? 16U : 8U);
        EXPECT_EQ(ReadShot().colorSpace, isHDR ? std::optional(kPQ) : std::nullopt);
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
