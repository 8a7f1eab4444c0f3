// The viewer and a clip with a device that is lost, the viewer with a display in HDR, and the
// doctor with what is wrong: inside the test, which stands in for what the system answers.

#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/commands/DoctorCommand.h"
#include "apps/norvexdx/commands/EncodeCommand.h"
#include "apps/norvexdx/console/CommandLine.h"
#include "apps/norvexdx/doctor/ConversionCheck.h"
#include "apps/norvexdx/doctor/StressCheck.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/reference/ColorReference.h"
#include "apps/norvexdx/viewer/Screenshot.h"
#include "apps/norvexdx/viewer/ViewSession.h"
#include "tests/apps/Expectations.h"
#include "tests/support/Device11.h"
#include "tests/support/Generation.h"
#include "tests/support/HDRDisplay.h"

#define main DrawOnLostDevice
#include "examples/device_loss.cpp"
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
    std::string Run(const std::string& options = "--frames 6") {
        const std::string api = IsDirect3D12() ? "d3d12 " : "d3d11 ";
        const auto arguments = m_folder.Split("view @in.png --size 320x200 --api " + api + options);
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
    // Has a method of all devices fail with that result where the function says so for the number
    // of the call, from 1 on. Up to seven arguments are left alone, as in FailingMethod.
    template <auto slot11, auto slot12>
    static std::shared_ptr<void> FailCalls(HRESULT result, const std::function<bool(int)>& fails) {
        using Signature = HRESULT(IUnknown*, void*, void*, void*, void*, void*, void*, void*);
        const auto method = [=, calls = 0](auto original, auto... arguments) mutable {
            return fails(++calls) ? result : original(arguments...);
        };
        if (IsDirect3D12()) {
            return std::make_shared<MethodPatch<slot12, Signature>>(
                DX::D12Device::CreatePrimary()->Get(), method);
        }
        return std::make_shared<MethodPatch<slot11, Signature>>(MakeRawDevice11(), method);
    }
    void ExpectPictureAfterLoss() {
        EXPECT_EQ(Run(), "(nothing)");
        EXPECT_EQ(m_report.at("deviceLosses"), 1);
        EXPECT_TRUE(m_shot.pixels == m_picture.pixels);
    }

    TemporaryFolder m_folder;
    const std::filesystem::path m_path = m_folder.GetPath("in.png");
    const Image m_picture = MakeNoise(320, 200, 8, true);
    Image m_shot; // what was seen
    json m_report;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest, BothGenerations(), &NameOf);

TEST_P(ViewerDeviceTest, BeginsAnewWhenTheDeviceIsLost) {
    constexpr auto& fail =
        FailCalls<&ID3D11Device::GetDeviceRemovedReason, &ID3D12Device::GetDeviceRemovedReason>;
    for (const int call : {1, 2, 5, 8}) {
        const auto patch =
            fail(DXGI_ERROR_DEVICE_REMOVED, [call](int number) { return number == call; });
        ExpectPictureAfterLoss();
    }
    // Told by a call that creates something instead.
    const auto creation =
        FailCalls<&ID3D11Device::CreateTexture2D, &ID3D12Device::CreateCommittedResource>(
            DXGI_ERROR_DEVICE_RESET, [](int number) { return number == 2; });
    ExpectPictureAfterLoss();
    const auto always = fail(DXGI_ERROR_DEVICE_HUNG, [](int) { return true; });
    EXPECT_EQ(Run(), "the graphics device was lost 3 times within 10 seconds (0x887a0006)");
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
        const MethodPatch<&ID3D11DeviceContext::Draw> leaveOut(
            GetImmediateContext(DX::D11Device::CreatePrimary()->Get()), [](auto...) {});
        const StressResult wrong = RunStress(*graphics, 0.1);
        EXPECT_EQ(wrong.wrong, wrong.pictures);
    }
    const FailingMethod<&ID3D11Device::CreateTexture2D> noTextures(raw, E_OUTOFMEMORY);
    EXPECT_EQ(RunDoctor(options), ExitCode::Failure);
}

// Only Direct3D 12 could take it for a finished frame: Direct3D 11 fails to map.
TEST(LostDeviceTest, FailsTheClip) {
    const TemporaryFolder folder;
    WriteImage(folder.GetPath("in.png"), MakePlain(4, 4, {}));
    const auto arguments = folder.Split("encode @in.png -o @clip --format nv12 --api d3d12");
    const auto encode = std::get<EncodeOptions>(ParseCommandLine(arguments).command);
    const FailingMethod<&ID3D12Device::GetDeviceRemovedReason> removed(
        DX::D12Device::CreatePrimary()->Get(), DXGI_ERROR_DEVICE_HUNG);
    EXPECT_THROW(RunEncode(encode), DX::DirectX12Exception);
    EXPECT_EQ(folder.CountFiles(), 1) << "beside the picture";
}

// The example, where a device is removed that is asked to be.
TEST(LostDeviceTest, LeavesTheExampleItsPicture) {
    const auto device = DX::D12Device::CreatePrimary();
    const boost::intrusive_ptr queue(new DX::D12CommandQueue(device, {}));
    CComPtr<ID3D12Device5> device5;
    ASSERT_EQ(device->Get()->QueryInterface(IID_PPV_ARGS(&device5)), S_OK);
    CComPtr<ID3D12Device> removed; // kept, so that no other has its address
    const MethodPatch<&ID3D12Device5::RemoveDevice> removing(
        device5, [&](auto, ID3D12Device5* self) { removed = self; });
    const MethodPatch<&ID3D12Device::GetDeviceRemovedReason> reason(
        device5, [&](auto original, ID3D12Device* self) {
            return self == removed.p ? DXGI_ERROR_DEVICE_REMOVED : original(self);
        });
    const MethodPatch<&ID3D12CommandQueue::Signal> signal(
        queue->Get(), [&](auto original, auto* self, auto... args) {
            CComPtr<ID3D12Device> owner;
            self->GetDevice(IID_PPV_ARGS(&owner));
            return owner == removed ? DXGI_ERROR_DEVICE_REMOVED : original(self, args...);
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
