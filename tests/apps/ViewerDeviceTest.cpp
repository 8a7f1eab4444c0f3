// The viewer with a device that is lost, and with a display in HDR: inside the test, which stands
// in for what the system answers.

#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "apps/norvexdx/Console.h"
#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/ViewCommand.h"
#include "apps/norvexdx/ViewerScene.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ColorReference.h"
#include "tests/support/HDRDisplay.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using nlohmann::json;

constexpr Conf::RGBColorSpace kPQ = {Conf::ColorPrimaries::BT2020,
                                     Conf::TransferCharacteristics::PQ};

// What the program prints while this object lives.
class CapturedStream {
public:
    CapturedStream(DWORD stream, const std::filesystem::path& path)
        : m_stream(stream),
          m_path(path),
          m_old(GetStdHandle(stream)),
          m_file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr)) {
        SetStdHandle(m_stream, m_file);
    }
    ~CapturedStream() {
        SetStdHandle(m_stream, m_old);
        CloseHandle(m_file);
    }
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;

    std::string GetText() const {
        std::ifstream file(m_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    DWORD m_stream;
    std::filesystem::path m_path;
    HANDLE m_old;
    HANDLE m_file;
};

class ViewerDeviceTest : public testing::TestWithParam<ApiChoice> {
protected:
    ViewerDeviceTest() {
        WriteImage(m_folder.GetPath("in.png"), MakePlain(64, 40, {30, 140, 220, 255}));
        m_options.files = {m_folder.GetText("in.png")};
        m_options.graphics.api = GetParam();
        m_options.size = DX::Size2DT<long>{320, 200};
        m_options.frames = 6;
        m_options.screenshot = m_folder.GetText("out.png");
        m_options.json = true;
    }

    bool IsDirect3D12() const { return GetParam() == ApiChoice::Direct3D12; }

    // Runs the command, with its report and its messages.
    void Run() {
        const CapturedStream out(STD_OUTPUT_HANDLE, m_folder.GetPath("stdout"));
        const CapturedStream err(STD_ERROR_HANDLE, m_folder.GetPath("stderr"));
        EXPECT_EQ(RunView(m_options), ExitCode::Success);
        m_report = json::parse(out.GetText());
        m_messages = err.GetText();
    }
    Image ReadShot() const { return ReadImage(m_folder.GetPath("out.png")); }
    void ExpectPicture() const {
        EXPECT_TRUE(ReadShot().pixels == MakePlain(320, 200, {30, 140, 220, 255}).pixels);
    }

    TemporaryFolder m_folder;
    ViewOptions m_options;
    json m_report;
    std::string m_messages;
};

INSTANTIATE_TEST_SUITE_P(, ViewerDeviceTest,
                         testing::Values(ApiChoice::Direct3D11, ApiChoice::Direct3D12),
                         [](const auto& api) {
                             return api.param == ApiChoice::Direct3D11 ? "Direct3D11"
                                                                       : "Direct3D12";
                         });

// Answers of a method of all devices: the real one, but for the calls that the function picks by
// their number, from 1 on. Its other arguments are left alone, as in FailingMethod.
template <auto slot>
class DeviceMethod {
public:
    DeviceMethod(IUnknown* device, std::function<HRESULT(int)> answer)
        : m_answer(std::move(answer)) {
        m_patch.emplace(device, [this](auto original, IUnknown* self, void* a, void* b, void* c,
                                       void* d, void* e, void* f, void* g) {
            const HRESULT result = m_answer(++m_calls);
            return FAILED(result) ? result : original(self, a, b, c, d, e, f, g);
        });
    }

private:
    std::function<HRESULT(int)> m_answer;
    int m_calls = 0;
    std::optional<
        MethodPatch<slot, HRESULT(IUnknown*, void*, void*, void*, void*, void*, void*, void*)>>
        m_patch;
};

template <auto slot11, auto slot12>
std::shared_ptr<void> Interpose(bool isDirect3D12, const std::function<HRESULT(int)>& answer) {
    if (isDirect3D12) {
        CComPtr<ID3D12Device> device;
        D3D12CreateDevice(nullptr, D3D_FEATURE_LEVEL_11_0, __uuidof(ID3D12Device),
                          reinterpret_cast<void**>(&device));
        return std::make_shared<DeviceMethod<slot12>>(device.p, answer);
    }
    CComPtr<ID3D11Device> device;
    D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0, D3D11_SDK_VERSION,
                      &device, nullptr, nullptr);
    return std::make_shared<DeviceMethod<slot11>>(device.p, answer);
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
        Run();
        EXPECT_EQ(m_messages,
                  "norvexdx: the graphics device was lost (0x887a0005): started anew\n");
        EXPECT_EQ(m_report.at("deviceLosses"), 1);
        EXPECT_EQ(m_report.at("frames"), 6);
        ExpectPicture();
    }
    // Told by a call that creates something instead.
    const auto patch = InterposeCreation(
        IsDirect3D12(), [](int number) { return number == 2 ? DXGI_ERROR_DEVICE_RESET : S_OK; });
    Run();
    EXPECT_EQ(m_messages, "norvexdx: the graphics device was lost (0x887a0007): started anew\n");
    ExpectPicture();
}

TEST_P(ViewerDeviceTest, GivesUpOnADeviceThatIsAlwaysLost) {
    const auto patch =
        InterposeRemovedReason(IsDirect3D12(), [](int) { return DXGI_ERROR_DEVICE_HUNG; });
    std::string line;
    try {
        Run();
    } catch (const Failure& failure) {
        line = failure.what();
    }
    EXPECT_EQ(line, "the graphics device was lost 3 times within 10 seconds (0x887a0006)");
}

// White, and nothing, beside each other.
Image MakeWhiteAndNothing() {
    Image image = MakePlain(64, 40, {255, 255, 255, 255});
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        if (i / 4 % 64 >= 32) {
            image.pixels[i] = 0;
        }
    }
    return image;
}

// 100 cd/m2.
Image MakePQGrey() {
    Image image{.width = 64, .height = 40, .bitsPerChannel = 16, .pixels = {}, .colorSpace = kPQ};
    image.Allocate();
    const auto code = static_cast<std::uint16_t>(std::lround(PQFromLight(1.0) * 65535.0));
    for (std::size_t i = 0; i < image.pixels.size(); i += 8) {
        for (std::size_t channel = 0; channel < 4; ++channel) {
            const std::uint16_t sample = channel == 3 ? 0xFFFF : code;
            std::memcpy(&image.pixels[i + 2 * channel], &sample, sizeof(sample));
        }
    }
    return image;
}

TEST_P(ViewerDeviceTest, BackBuffersInHDRHoldLightOfTheDisplay) {
    const HDRDisplay display(IsDirect3D12());
    const TestWindow window({64, 40});
    ViewerScene scene(Graphics::Open(m_options.graphics, DrawKind::Over, &Console::PrintMessage),
                      window.Get());
    const auto read = [&](std::size_t x) {
        ScreenPixels pixels;
        EXPECT_TRUE(scene.Draw({}, &pixels).has_value());
        EXPECT_EQ(pixels.format, DXGI_FORMAT_R16G16B16A16_FLOAT);
        std::array<float, 4> color{};
        for (std::size_t i = 0; i < color.size(); ++i) {
            std::uint16_t half = 0;
            std::memcpy(&half, &pixels.bytes.at(((std::size_t{20} * 64 + x) * 4 + i) * 2), 2);
            color[i] = FloatFromHalf(half);
        }
        return color;
    };
    const auto expect = [&](std::size_t x, float level) {
        const auto color = read(x);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(color[i], level, level / 1000.0F) << "channel " << i;
        }
        EXPECT_EQ(color[3], 1.0F);
    };
    ASSERT_TRUE(scene.GetScreen().SetHDR(true));
    const Image image = MakeWhiteAndNothing();
    scene.SetPicture(&image, {});
    expect(10, 203.0F / 80.0F);
    const double background = LightFromSRGB(0x20 / 255.0) * 203.0 / 80.0;
    expect(50, static_cast<float>(background));
    const Image grey = MakePQGrey();
    scene.SetPicture(&grey, kPQ);
    expect(10, 1.25F);
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
        Run();
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
