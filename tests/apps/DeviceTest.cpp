// The viewer and a clip with a device that is lost, the viewer with a display in HDR, and the
// doctor with what is wrong: inside the test, which stands in for what the system answers.

#include <algorithm>
#include <filesystem>
#include <functional>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/commands/ConvertCommand.h"
#include "apps/norvexdx/commands/DoctorCommand.h"
#include "apps/norvexdx/commands/EncodeCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "apps/norvexdx/doctor/ConversionCheck.h"
#include "apps/norvexdx/doctor/FrameCheck.h"
#include "apps/norvexdx/doctor/StressCheck.h"
#include "apps/norvexdx/graphics/Graphics.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/reference/ColorReference.h"
#include "apps/norvexdx/viewer/Screenshot.h"
#include "apps/norvexdx/viewer/ViewSession.h"
#include "tests/apps/Expectations.h"
#include "tests/support/Device11.h"
#include "tests/support/Faults.h"
#include "tests/support/Generation.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/Thrown.h"

// NOLINTBEGIN(readability-identifier-naming, bugprone-suspicious-include): as a function
#define main DrawOnLostDevice
#include "examples/device_loss.cpp"
// NOLINTEND(readability-identifier-naming, bugprone-suspicious-include)
#undef main

namespace Norvex::Test {

namespace {

using namespace Reference;
using namespace App;
using nlohmann::json;

class ViewerDeviceTest : public testing::TestWithParam<Generation> {
protected:
    ViewerDeviceTest() { WriteImage(m_path, m_picture); }

    static bool IsDirect3D12() { return GetParam() == Generation::Direct3D12; }

    // Shows the picture. What fails.
    std::string Run(const std::string& options = "--frames 6", const char* file = "@in.png ") {
        const std::string api = IsDirect3D12() ? "d3d12 " : "d3d11 ";
        const auto arguments =
            m_folder.Split("view --size 320x200 " + (file + options) + " --api " + api);
        const auto view = std::get<ViewOptions>(ParseCommandLine(arguments).command);
        return FailureOf([&] {
            ViewSession session(view);
            EXPECT_TRUE(session.Open());
            ScreenPixels pixels;
            session.RunFrames(*view.frames, &pixels);
            m_shot = MakeScreenshot(pixels);
            m_report = json::parse(session.MakeJson());
        });
    }
    // Has the device lost at a call of what `run` does, one after another: some of them, or all
    // where NORVEX_SWEEP is set. Nothing may be left.
    static void LoseAtEachCall(const std::function<void(bool isLost)>& run,
                               std::size_t times = 10) {
        Faults faults;
        Interpose(faults, IsDirect3D12());
        faults.Begin(-1, {});
        run(false);
        auto calls = faults.End();
        const bool isWhole = GetEnvironmentVariableW(L"NORVEX_SWEEP", nullptr, 0) != 0;
        const std::size_t step = isWhole ? 1 : std::max<std::size_t>(calls.size() / times, 1);
        for (std::size_t call = 0; call < calls.size(); ++call) {
            if (!faults.EndsWithDevice(calls[call])) {
                continue;
            }
            SCOPED_TRACE(fmt::format("call {}, {}", call, calls[call]));
            faults.Begin(static_cast<int>(call), kLoss);
            run(true);
            Graphics::WaitUntilReleased();
            faults.End();
            EXPECT_FALSE(faults.IsAnythingLeft());
            call += step - 1;
        }
    }
    template <class Device>
    std::string RunLost(Device* device) {
        const FailingMethod<&Device::GetDeviceRemovedReason> lost(device, DXGI_ERROR_DEVICE_HUNG);
        return Run();
    }

    TemporaryFolder m_folder;
    const std::filesystem::path m_path = m_folder.GetPath("in.png");
    const Image m_picture = MakeNoise(320, 200, 8, true);
    Image m_shot; // what was seen
    json m_report;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest, BothGenerations(), &NameOf);

TEST_P(ViewerDeviceTest, BeginsAnewWhereverTheDeviceIsLost) {
    EXPECT_EQ(IsDirect3D12() ? RunLost(DX::D12Device::CreatePrimary()->Get())
                             : RunLost(MakeRawDevice11().p),
              "the graphics device was lost 3 times within 10 seconds (0x887a0006)");
    LoseAtEachCall([this](bool isLost) {
        EXPECT_EQ(Run("--frames 3 --hdr off"), "(nothing)");
        EXPECT_LE(m_report.at("deviceLosses"), isLost ? 1 : 0);
        EXPECT_TRUE(m_shot.pixels == m_picture.pixels);
    });
}

TEST_P(ViewerDeviceTest, AClipGoesOnWhereTheDeviceWasLost) {
    std::string clip = "YUV4MPEG2 W8 H8 C420 XCOLORRANGE=FULL\n";
    for (const char grey : {'\x10', '\x30', '\x70'}) {
        clip += "FRAME\n" + std::string(64, grey) + std::string(32, '\x80');
    }
    WriteBytes(m_folder.GetPath("in.y4m"), clip);
    LoseAtEachCall(
        [this](bool isLost) {
            EXPECT_EQ(Run("--frames 3 --hdr off", "@in.y4m "), "(nothing)");
            EXPECT_LE(m_report.at("deviceLosses"), isLost ? 1 : 0);
            EXPECT_EQ(m_report.at("clip").at("frame"), 3);
            ExpectPixel(m_shot, 160, 100, {0x70, 0x70, 0x70, 255});
        },
        4);
}

TEST_P(ViewerDeviceTest, ALossFailsClipsAndPicturesAndLeavesNoFile) {
    const std::string api = IsDirect3D12() ? " --api d3d12" : " --api d3d11";
    const auto parse = [&](const std::string& line) {
        return ParseCommandLine(m_folder.Split(line + api)).command;
    };
    const auto encode = std::get<EncodeOptions>(parse("encode @in.png -o @out.png --format nv12"));
    const auto convert = std::get<ConvertOptions>(parse("convert @in.png @out.png"));
    const std::function<bool()> ways[] = {
        [&] { return SentenceOf([&] { RunEncode(encode); }) == "(nothing)"; },
        [&] { return RunConvert(convert) == ExitCode::Success; }};
    for (const auto& way : ways) {
        std::size_t failed = 0;
        LoseAtEachCall([&](bool isLost) {
            bool isMade = false;
            EXPECT_TRUE(SentenceOf([&] { isMade = way(); }) == "(nothing)" || isLost);
            EXPECT_TRUE(isLost || isMade);
            EXPECT_EQ(std::filesystem::remove(m_folder.GetPath("out.png")), isMade);
            EXPECT_EQ(m_folder.CountFiles(), 1);
            failed += isMade ? 0 : 1;
        });
        EXPECT_GT(failed, 3u);
    }
}

TEST_P(ViewerDeviceTest, ShowsLightOfTheDisplayInHDR) {
    HDRDisplay display(IsDirect3D12());
    const auto expectShot = [&](std::size_t x, const Color& light) { // 1.0 is 100 cd/m2
        const auto code = [&](std::size_t i) {
            return static_cast<unsigned>(PQFromLight(light.at(i)) * 65535.0);
        };
        ExpectPixel(m_shot, x, 100, {code(0), code(1), code(2), 65535}, 20);
    };
    // White, red, and nothing, beside each other. Red of Rec. 709 in the primaries of Rec. 2020 is
    // what ITU-R BT.2087 says.
    constexpr Color kColors[] = {{1, 1, 1, 1}, {1, 0, 0, 1}, {}};
    const auto colorAt = [&](unsigned x, unsigned) { return kColors[x / 2]; };
    WriteImage(m_path, MakeImage(MakePixels(6, 1, colorAt)));
    EXPECT_EQ(Run("--frames 2 --hdr on"), "(nothing)");
    expectShot(53, {2.03, 2.03, 2.03});
    expectShot(160, {2.03 * 0.6274, 2.03 * 0.0691, 2.03 * 0.0164});
    EXPECT_EQ(m_report.at("sdrWhite"), 203);
    const double background = 2.03 * LightFromSRGB(0x20 / 255.0);
    expectShot(266, {background, background, background});
    display.sdrWhiteLevel = 3000; // as the user has set it
    EXPECT_EQ(Run("--frames 2"), "(nothing)");
    EXPECT_EQ(m_report.at("sdrWhite"), 240);
    expectShot(53, {2.4, 2.4, 2.4});

    const double grey = PQFromLight(1.0);
    Image picture = MakeImage({1, 1, {{grey, grey, grey, 1}}}, 16);
    picture.colorSpace = {Conf::ColorPrimaries::BT2020, Conf::TransferCharacteristics::PQ};
    WriteImage(m_path, picture);
    const auto expect = [&](const char* choice, bool isDisplayInHDR, bool isHDR) {
        display.Switch(isDisplayInHDR);
        EXPECT_EQ(Run(std::string("--frames 2 --hdr ") + choice), "(nothing)");
        EXPECT_EQ(m_report.at("hdr"), isHDR);
        EXPECT_EQ(m_report.at("format"), isHDR ? "R16G16B16A16_FLOAT" : "R8G8B8A8_UNORM");
        EXPECT_EQ(m_shot.colorSpace == picture.colorSpace, isHDR);
    };
    expect("off", true, false);
    expect("on", false, false);
    expect("auto", false, false);
    expect("auto", true, true);
    expectShot(160, {1, 1, 1});
}

// A doctor that cannot find what is wrong is none.
TEST(DoctorTest, FindsWhatIsWrong) {
    const auto raw = MakeRawDevice11();
    DoctorOptions options;
    options.graphics.api = ApiChoice::Direct3D11;
    options.stressSeconds = 0;
    {
        bool isShifted = false;
        const MethodPatch<&ID3D11Device::CreateBuffer> shift(
            raw, [&](auto original, auto* self, const auto* desc, const auto* data, auto** out) {
                if ((desc->BindFlags & D3D11_BIND_CONSTANT_BUFFER) == 0 || data == nullptr) {
                    return original(self, desc, data, out);
                }
                const auto* bytes = static_cast<const std::byte*>(data->pSysMem);
                std::vector<std::byte> params(bytes, bytes + desc->ByteWidth);
                float& gamma = reinterpret_cast<DX::D3ImageParams*>(params.data())->hlgOOTFGamma;
                gamma *= isShifted ? 1.01F : 1.0F;
                const D3D11_SUBRESOURCE_DATA altered = {params.data(), 0, 0};
                return original(self, desc, &altered, out);
            });
        const auto graphics = Graphics::Open(options.graphics, DrawKind::Replace, [](auto) {});
        for (const bool shifts : {false, true}) {
            isShifted = shifts;
            for (const ConversionError& error : CheckConversions(*graphics)) {
                const bool isOfHLG = (error.from.transfer == Conf::TransferCharacteristics::HLG) !=
                                     (error.to.transfer == Conf::TransferCharacteristics::HLG);
                EXPECT_EQ(error.IsRight(), !shifts || !isOfHLG)
                    << error.largest << " from " << static_cast<int>(error.from.transfer) << " to "
                    << static_cast<int>(error.to.transfer);
            }
        }
        const StressResult right = RunStress(*graphics, 0.1);
        EXPECT_GT(right.pictures, 0U);
        EXPECT_EQ(right.wrong, 0U);
        EXPECT_TRUE(std::ranges::all_of(CheckYCbCr(*graphics), &YCbCrError::IsRight));
        const MethodPatch<&ID3D11DeviceContext::Draw> leaveOut(
            GetImmediateContext(DX::D11Device::CreatePrimary()->Get()), [](auto...) {});
        const StressResult wrong = RunStress(*graphics, 0.1);
        EXPECT_EQ(wrong.wrong, wrong.pictures);
        EXPECT_FALSE(std::ranges::all_of(CheckYCbCr(*graphics), &YCbCrError::IsRight));
        EXPECT_TRUE(std::ranges::none_of(CheckFrames(*graphics), &FrameError::IsRight));
        EXPECT_TRUE(std::ranges::none_of(CheckScaler(*graphics), &FrameError::IsRight));
    }
    const FailingMethod<&ID3D11Device::CreateTexture2D> noTextures(raw, E_OUTOFMEMORY);
    EXPECT_EQ(RunDoctor(options), ExitCode::Failure);
}

// The example, where a device is removed that is asked to be.
TEST(LostDeviceTest, LeavesTheExampleItsPicture) {
    const auto device = DX::D12Device::CreatePrimary();
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    const auto device5 = Platform::Query<ID3D12Device5>(device->Get());
    CComPtr<ID3D12Device> removed; // kept, so that no other has its address
    const MethodPatch<&ID3D12Device5::RemoveDevice> removing(
        device5, [&](auto, ID3D12Device5* self) { removed = self; });
    const MethodPatch<&ID3D12Device::GetDeviceRemovedReason> reason(
        device5, [&](auto original, ID3D12Device* self) {
            return self == removed.p ? DXGI_ERROR_DEVICE_REMOVED : original(self);
        });
    const MethodPatch<&ID3D12CommandQueue::Signal> signal(
        queue->Get(), [&](auto original, auto* self, ID3D12Fence* fence, UINT64 value) {
            const HRESULT result = original(self, fence, value);
            CComPtr<ID3D12Device> owner;
            self->GetDevice(IID_PPV_ARGS(&owner));
            if (owner != removed) {
                return result;
            }
            fence->SetEventOnCompletion(value, nullptr); // what is removed does nothing any more
            return DXGI_ERROR_DEVICE_REMOVED;
        });
    std::string arguments[] = {"device_loss", "2"};
    char* raw[] = {arguments[0].data(), arguments[1].data()};
    testing::internal::CaptureStdout();
    EXPECT_EQ(DrawOnLostDevice(2, raw), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::StartsWith("Frame 1 is 255 128 0.\nThe device is removed.\n"
                                    "Lost: Failed to signal fence. Beginning anew.\n"
                                    "Frame 2 is 255 128 0.\n"));
}

} // namespace

} // namespace Norvex::Test
