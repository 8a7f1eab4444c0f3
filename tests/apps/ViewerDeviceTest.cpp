// The viewer with a device that is lost, and with a display in HDR: inside the test, which stands
// in for what the system answers.

#include <cmath>
#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/commands/ViewCommand.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/viewer/ViewerScene.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ColorReference.h"
#include "tests/support/Device11.h"
#include "tests/support/Generation.h"
#include "tests/support/HDRDisplay.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;

constexpr Conf::RGBColorSpace kPQ = {Conf::ColorPrimaries::BT2020,
                                     Conf::TransferCharacteristics::PQ};

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
    ViewerDeviceTest() {
        WriteImage(m_folder.GetPath("in.png"), m_picture);
        m_options.files = m_folder.Split("@in.png");
        m_options.graphics.api = IsDirect3D12() ? ApiChoice::Direct3D12 : ApiChoice::Direct3D11;
        m_options.size = DX::Size2DT<long>{320, 200};
        m_options.frames = 6;
        m_options.screenshot = m_folder.Split("@out.png").front();
        m_options.json = true;
    }

    static bool IsDirect3D12() { return GetParam() == Generation::Direct3D12; }

    // Runs the command. What it fails with, "(nothing)" when it succeeds.
    std::string Run() {
        std::string failure;
        const auto run = [&] {
            failure = FailureOf([&] { EXPECT_EQ(RunView(m_options), ExitCode::Success); });
        };
        m_out = Capture(STD_OUTPUT_HANDLE, m_folder.GetPath("stdout"), [&] {
            m_messages = Capture(STD_ERROR_HANDLE, m_folder.GetPath("stderr"), run);
        });
        m_report = json::parse(m_out, nullptr, false);
        return failure;
    }
    void ExpectPictureAfterLoss(const char* reason) {
        EXPECT_EQ(Run(), "(nothing)");
        EXPECT_EQ(m_messages, std::string("norvexdx: the graphics device was lost (") + reason +
                                  "): started anew\n");
        EXPECT_EQ(m_report.at("deviceLosses"), 1);
        EXPECT_EQ(m_report.at("frames"), 6);
        EXPECT_TRUE(ReadShot().pixels == m_picture.pixels);
    }
    Image ReadShot() const { return ReadImage(m_folder.GetPath("out.png")); }

    TemporaryFolder m_folder;
    const Image m_picture = MakeNoise(320, 200, 8, true);
    ViewOptions m_options;
    json m_report;
    std::string m_out;
    std::string m_messages;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest, BothGenerations(), &NameOf);

TEST_P(ViewerDeviceTest, SavesAndReportsWhatItShowedUnattended) {
    EXPECT_EQ(Run() + m_messages, "(nothing)");
    EXPECT_EQ(ReadShot().bitsPerChannel, 8U);
    EXPECT_TRUE(ReadShot().pixels == m_picture.pixels);
    ExpectFields(m_report, R"({"frames": 6, "hdr": false, "format": "R8G8B8A8_UNORM",
                               "deviceLosses": 0})");
    EXPECT_EQ(m_report.at("api"), IsDirect3D12() ? "d3d12" : "d3d11");
    EXPECT_NE(m_report.at("adapter"), "");
    for (const char* times : {"frameTimeMs", "recordingMs", "presentIntervalMs"}) {
        EXPECT_GT(m_report.at(times).at("median"), 0.0) << times;
    }
    EXPECT_GE(m_report.at("frameTimeMs").at("p95"), m_report.at("frameTimeMs").at("median"));
    EXPECT_GE(m_report.at("redraws"), 6);
    EXPECT_GE(m_report.at("peakFramesInFlight"), 1);
    EXPECT_LE(m_report.at("peakFramesInFlight"), 3);
    EXPECT_EQ(m_report.at("idlePools").is_null(), !IsDirect3D12());

    // Fine stripes become grey, in every frame; without --json the report is text.
    WriteImage(m_folder.GetPath("in.png"), MakeStripes(1024, 1024));
    m_options.json = false;
    for (const unsigned frames : {1U, 3U}) {
        m_options.frames = frames;
        EXPECT_EQ(Run(), "(nothing)");
        EXPECT_NE(m_out.find("frame "), std::string::npos);
        EXPECT_NEAR(GetSample(ReadShot(), 160, 100, 0), 128, 6);
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
}

TEST_P(ViewerDeviceTest, GivesUpOnADeviceThatIsAlwaysLost) {
    const auto patch =
        InterposeRemovedReason(IsDirect3D12(), [](int) { return DXGI_ERROR_DEVICE_HUNG; });
    EXPECT_EQ(Run(), "the graphics device was lost 3 times within 10 seconds (0x887a0006)");
}

// 100 cd/m2.
Image MakePQGrey() {
    const double code = PQFromLight(1.0);
    Image image = MakeImage(
        MakePixels(64, 40, [&](unsigned, unsigned) { return Color{code, code, code, 1.0}; }), 16);
    image.colorSpace = kPQ;
    return image;
}

TEST_P(ViewerDeviceTest, BackBuffersInHDRHoldLightOfTheDisplay) {
    const HDRDisplay display(IsDirect3D12());
    const TestWindow window({64, 40});
    ViewerScene scene(Graphics::Open(m_options.graphics, DrawKind::Over, &Console::PrintMessage),
                      window.Get());
    const auto expect = [&](unsigned x, double level) {
        ScreenPixels pixels;
        EXPECT_TRUE(scene.Draw({}, &pixels).has_value());
        ASSERT_EQ(pixels.format, DXGI_FORMAT_R16G16B16A16_FLOAT);
        const Color color =
            DecodePixels(pixels.bytes.data(), 64 * 8, 64, 40, pixels.format).At(x, 20);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(color[i], level, level / 1000.0) << "channel " << i;
        }
        EXPECT_EQ(color[3], 1.0);
    };
    ASSERT_TRUE(scene.GetScreen().SetHDR(true));
    // White, and nothing, beside each other.
    const Image image = MakeImage(MakePixels(
        64, 40, [](unsigned x, unsigned) { return x < 32 ? Color{1, 1, 1, 1} : Color{}; }));
    scene.SetPicture(&image, {});
    expect(10, 203.0 / 80.0);
    expect(50, LightFromSRGB(0x20 / 255.0) * 203.0 / 80.0);
    const Image grey = MakePQGrey();
    scene.SetPicture(&grey, kPQ);
    expect(10, 1.25);
    EXPECT_FALSE(scene.GetScreen().SetHDR(false));
    EXPECT_EQ(scene.GetScreen().GetFormat(), DXGI_FORMAT_R8G8B8A8_UNORM);
}

TEST_P(ViewerDeviceTest, FollowsTheChoiceOfHDR) {
    HDRDisplay display(IsDirect3D12());
    WriteImage(m_folder.GetPath("in.png"), MakePQGrey());
    constexpr const char* kNoHDR =
        "norvexdx: the display is not in HDR: pictures are shown in SDR\n";
    const struct {
        HDRChoice choice;
        bool isDisplayInHDR;
        bool isHDR;
        const char* messages;
    } kCases[] = {
        {HDRChoice::Auto, true, true, ""},     {HDRChoice::On, true, true, ""},
        {HDRChoice::Off, true, false, ""},     {HDRChoice::Auto, false, false, ""},
        {HDRChoice::On, false, false, kNoHDR},
    };
    for (const auto& c : kCases) {
        display.Switch(c.isDisplayInHDR);
        m_options.hdr = c.choice;
        EXPECT_EQ(Run(), "(nothing)");
        EXPECT_EQ(m_messages, c.messages);
        EXPECT_EQ(m_report.at("hdr"), c.isHDR);
        EXPECT_EQ(m_report.at("format"), c.isHDR ? "R16G16B16A16_FLOAT" : "R8G8B8A8_UNORM");
        const Image shot = ReadShot();
        EXPECT_EQ(shot.bitsPerChannel, c.isHDR ? 16U : 8U);
        EXPECT_EQ(shot.colorSpace, c.isHDR ? std::optional(kPQ) : std::nullopt);
        if (c.isHDR) {
            EXPECT_NEAR(GetSample(shot, 160, 100, 1), PQFromLight(1.0) * 65535.0, 8.0);
        }
    }
}

} // namespace

} // namespace Norvex::Test
