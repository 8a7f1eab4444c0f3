// The parts of encode by themselves, and its encoders on both generations in this process.

#include <atomic>
#include <cstring>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/BoundedQueue.h"
#include "apps/norvexdx/EncodePipeline.h"
#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/FrameEncoder11.h"
#include "apps/norvexdx/FrameEncoder12.h"
#include "apps/norvexdx/PlanePacking.h"
#include "tests/apps/Pictures.h"
#include "tests/apps/YUVReference.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using Conf::YCbCrMatrix;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

std::string GetFailure(const std::function<void()>& call) {
    try {
        call();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "(accepted)";
}

VideoFormat GetFormat(const char* name) {
    return ParseVideoFormat(name).value();
}

TEST(FrameRateTest, TakesWholeFractionalAndBroadcastRates) {
    const struct {
        const char* text;
        std::optional<FrameRate> rate;
    } kCases[] = {
        {"25", FrameRate{25, 1}},
        {"30000/1001", FrameRate{30000, 1001}},
        {"50/2", FrameRate{25, 1}},
        {"29.97", FrameRate{30000, 1001}},
        {"12.5", FrameRate{25, 2}},
        {"0.125", FrameRate{1, 8}},
        {"0", {}},
        {"0/1", {}},
        {"25/0", {}},
        {"25/", {}},
        {"/2", {}},
        {"-25", {}},
        {"25.", {}},
        {".5", {}},
        {"1.-5", {}},
        {"24.0001", {}},
        {"1000001", {}},
        {"", {}},
        {"25 ", {}},
    };
    for (const auto& [text, rate] : kCases) {
        EXPECT_EQ(ParseFrameRate(text), rate) << text;
    }
}

TEST(Y4mTest, ReadsItsOwnHeaderAndRefusesWhatItDoesNotTake) {
    const Y4mHeader written = {{1920, 1080}, FrameRate{30000, 1001}, "4:3", "444p10"};
    std::string line = MakeY4mHeader(written);
    EXPECT_EQ(line, "YUV4MPEG2 W1920 H1080 F30000:1001 Ip A4:3 C444p10 XCOLORRANGE=LIMITED\n");
    line.pop_back();
    const Y4mHeader read = ParseY4mHeader(line);
    EXPECT_EQ(read.size, written.size);
    EXPECT_EQ(read.rate, written.rate);
    EXPECT_EQ(read.aspect, written.aspect);
    EXPECT_EQ(GetY4mFrameBytes(read), 1920U * 1080 * 6);
    EXPECT_EQ(ParseY4mHeader("YUV4MPEG2 W2  H1 F0:0").rate, std::nullopt);

    for (const auto& [header, words] :
         {std::pair("RIFF", "not a Y4M file"), std::pair("YUV4MPEG2 W8 C444", "no pixels"),
          std::pair("YUV4MPEG2 Wx H8", "tells no size"),
          std::pair("YUV4MPEG2 W20000 H8 C444", "larger than"),
          std::pair("YUV4MPEG2 W8 H8 It C444", "interlaced"),
          std::pair("YUV4MPEG2 W8 H8 C444 XCOLORRANGE=FULL", "full"),
          std::pair("YUV4MPEG2 W8 H8", "C420jpeg is not taken"),
          std::pair("YUV4MPEG2 W8 H8 C422", "C422 is not taken")}) {
        EXPECT_THAT(GetFailure([text = header] { GetY4mFrameBytes(ParseY4mHeader(text)); }),
                    HasSubstr(words));
    }
}

TEST(Y4mTest, DecodesPublishedCodes) {
    const struct {
        const char* colors;
        YCbCrMatrix matrix;
        std::array<unsigned, 3> codes;
        std::array<double, 3> rgb;
        double bound; // half a code, roughly
    } kCases[] = {
        {"444", YCbCrMatrix::BT709, {235, 128, 128}, {1, 1, 1}, 0.0},
        {"444", YCbCrMatrix::BT709, {16, 128, 128}, {0, 0, 0}, 0.0},
        {"444", YCbCrMatrix::BT709, {255, 128, 128}, {1, 1, 1}, 0.0},
        {"444", YCbCrMatrix::BT601, {81, 90, 240}, {1, 0, 0}, 0.005},
        {"444p10", YCbCrMatrix::BT2020NonConstant, {658, 189, 100}, {0, 1, 0}, 0.002},
        {"444p16", YCbCrMatrix::BT601, {41 << 8, 240 << 8, 110 << 8}, {0, 0, 1}, 0.005},
    };
    for (const auto& c : kCases) {
        const Y4mHeader header = {{1, 1}, {}, "0:0", c.colors};
        Bytes samples;
        for (const unsigned code : c.codes) {
            samples.push_back(static_cast<std::uint8_t>(code));
            if (GetY4mFrameBytes(header) == 6) {
                samples.push_back(static_cast<std::uint8_t>(code >> 8));
            }
        }
        Image image;
        ConvertY4mFrame(header, samples, c.matrix, image);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(GetSample(image, 0, 0, i) / 65535.0, c.rgb[i], c.bound)
                << c.colors << " channel " << i;
        }
        EXPECT_EQ(GetSample(image, 0, 0, 3), 65535U);
    }
}

TEST(PlanePackingTest, RoundsP010AndTakesChromaApart) {
    // Samples as a device rounds codes 0, 64, 939, 940, 1023 and what is beyond: code / 1024.
    Bytes samples;
    for (const unsigned sample : {0U, 4096U, 60095U, 60159U, 65471U, 65535U}) {
        samples.push_back(static_cast<std::uint8_t>(sample));
        samples.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
    RoundToCodes(GetFormat("p010"), samples);
    EXPECT_THAT(GetSamples(GetFormat("p010"), samples.data(), samples.size()),
                testing::ElementsAre(0, 64 * 64, 939 * 64, 940 * 64, 1023 * 64, 1023 * 64));
    // 3 x 1 pixels of luma, 2 x 1 pairs of chroma.
    Bytes planes = {0x40, 0x10, 0x80, 0x20, 0xC0, 0x30, 0x00,
                    0x40, 0x00, 0x80, 0x40, 0x40, 0x40, 0x80};
    Bytes out;
    Deinterleave(GetFormat("p010"), {3, 1}, planes, out);
    EXPECT_EQ(out, (Bytes{0x41, 0, 0x82, 0, 0xC3, 0, 0x00, 1, 0x01, 1, 0x00, 2, 0x01, 2}));
    planes = {1, 2, 3, 10, 20, 11, 21};
    RoundToCodes(GetFormat("nv12"), planes);
    Deinterleave(GetFormat("nv12"), {3, 1}, planes, out);
    EXPECT_EQ(out, (Bytes{1, 2, 3, 10, 11, 20, 21}));
}

// Bytes that come in small pieces of changing length, as from a pipe.
class TrickleStream : public ByteStream {
public:
    explicit TrickleStream(std::string bytes) : ByteStream("trickle"), m_bytes(std::move(bytes)) {}

protected:
    std::size_t ReadSome(std::uint8_t* data, std::size_t sizeInBytes) override {
        m_piece = m_piece % 7 + 1;
        const std::size_t count = std::min({m_piece, sizeInBytes, m_bytes.size() - m_at});
        std::memcpy(data, m_bytes.data() + m_at, count);
        m_at += count;
        return count;
    }

private:
    std::string m_bytes;
    std::size_t m_at = 0;
    std::size_t m_piece = 0;
};

std::unique_ptr<FrameSource> MakeSource(const std::string& bytes,
                                        std::optional<DX::Size2DT<long>> size) {
    EncodePlan plan;
    plan.size = size;
    return MakeStreamSource(std::make_unique<TrickleStream>(bytes), plan);
}

TEST(FrameSourceTest, CutsAStreamIntoFrames) {
    std::string bytes;
    for (int i = 0; i < 3 * 24; ++i) {
        bytes += static_cast<char>(i);
    }
    const auto source = MakeSource(bytes, DX::Size2DT<long>{3, 2});
    Image frame;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(source->Read(frame));
        EXPECT_EQ(frame.pixels.size(), 24U);
        EXPECT_EQ(frame.pixels.front(), 24 * i);
        EXPECT_EQ(frame.pixels.back(), 24 * i + 23);
    }
    EXPECT_FALSE(source->Read(frame));

    const auto cut = MakeSource(bytes.substr(0, 30), DX::Size2DT<long>{3, 2});
    EXPECT_TRUE(cut->Read(frame));
    EXPECT_THAT(GetFailure([&] { cut->Read(frame); }),
                HasSubstr("in the middle of frame 2: 18 of its 24 bytes are missing"));
    EXPECT_THAT(GetFailure([] { MakeSource("raw", {}); }), HasSubstr("--size"));
}

TEST(FrameSourceTest, KnowsAY4mStreamByItsBeginning) {
    const std::string header = "YUV4MPEG2 W2 H1 F30:1 A4:3 C444\n";
    const std::string frame = "FRAME Ip\n\xEB\x10\x80\x80\x80\x80";
    const auto source = MakeSource(header + frame + frame, {});
    EXPECT_EQ(source->GetSize(), (DX::Size2DT<long>{2, 1}));
    EXPECT_EQ(source->GetRate(), (FrameRate{30, 1}));
    EXPECT_EQ(source->GetPixelAspect(), "4:3");
    Image image;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(source->Read(image));
        EXPECT_EQ(GetSample(image, 0, 0, 1), 65535U);
        EXPECT_EQ(GetSample(image, 1, 0, 1), 0U);
    }
    EXPECT_FALSE(source->Read(image));
    EXPECT_THAT(GetFailure([&] { MakeSource(header + "FRAM\n", {})->Read(image); }),
                HasSubstr("does not begin with FRAME"));
    EXPECT_THAT(GetFailure([&] { MakeSource(header + "FRAME\nabc", {})->Read(image); }),
                HasSubstr("3 of its 6 bytes are missing"));
    EXPECT_THAT(GetFailure([&] { MakeSource(header.substr(0, 14), {}); }), HasSubstr("no size"));
    EXPECT_THAT(GetFailure([] { MakeSource("YUV4MPEG2 " + std::string(5000, 'X'), {}); }),
                HasSubstr("longer"));
}

TEST(BoundedQueueTest, HoldsBackWhoeverIsAhead) {
    BoundedQueue<int> queue(2);
    std::atomic<int> pushed{0};
    const std::jthread producer([&] {
        for (int i = 0; i < 1000 && queue.Push(i); ++i) {
            ++pushed;
        }
        queue.Finish();
    });
    int inOrder = 0;
    int furthestAhead = 0;
    for (int i = 0; i < 1000; ++i) {
        inOrder += queue.Pop() == i ? 1 : 0;
        furthestAhead = std::max(furthestAhead, pushed - i);
    }
    EXPECT_EQ(inOrder, 1000);
    EXPECT_LE(furthestAhead, 4) << "two in the queue, one on its way, one just taken";
    EXPECT_EQ(queue.Pop(), std::nullopt);

    BoundedQueue<int> full(1);
    full.Push(1);
    BoundedQueue<int> empty(1);
    const std::jthread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        full.Stop();
        empty.Stop();
    });
    EXPECT_FALSE(full.Push(2));
    EXPECT_EQ(empty.Pop(), std::nullopt);
    EXPECT_EQ(full.Pop(), std::nullopt);
}

// Answers planes made from the frame by a function; no device.
class FakeEncoder : public FrameEncoder {
public:
    using Fill = std::function<void(const Image& frame, std::uint8_t* planes)>;

    FakeEncoder(const EncoderParams& params, Fill fill)
        : FrameEncoder(params, {}),
          m_fill(std::move(fill)) {}

private:
    void Begin(std::size_t slot, const Image& frame) override { m_frames[slot] = frame; }
    std::optional<double> End(std::size_t slot, std::uint8_t* planes) override {
        m_fill(m_frames[slot], planes);
        return 1.0;
    }

    Fill m_fill;
    std::array<Image, kSlots> m_frames;
};

TEST(FrameEncoderTest, PlanesThatAreNotTrueAreFoundOut) {
    for (const char* name : {"nv12", "p010", "p016"}) {
        const EncoderParams params = {GetFormat(name), YCbCrMatrix::BT601, kTestSize, {}};
        const auto isTrue = [&](const std::function<void(std::vector<double>&)>& spoil) {
            FakeEncoder encoder(params, [&](const Image& frame, std::uint8_t* planes) {
                auto samples =
                    ReferenceFrame(GetPixels(frame), params.size, params.format, params.matrix);
                spoil(samples);
                for (std::size_t i = 0; i < samples.size(); ++i) {
                    const auto sample = static_cast<std::uint16_t>(samples[i]);
                    std::memcpy(planes + i * params.format.GetSampleSize(), &sample,
                                params.format.GetSampleSize());
                }
            });
            return HasTruePlanes(encoder, params);
        };
        constexpr std::size_t kLuma = 32; // samples of the test picture
        EXPECT_TRUE(isTrue([](auto&) {})) << name;
        EXPECT_FALSE(isTrue([](auto& s) { std::fill(s.begin() + kLuma, s.end(), 0.0); })) << name;
        EXPECT_FALSE(isTrue([](auto& s) { std::copy_n(s.begin() + kLuma, 16, s.begin()); }))
            << name;
        for (const std::size_t channel : {0U, 1U}) { // of the chroma pairs
            EXPECT_FALSE(isTrue([channel](auto& s) {
                for (std::size_t i = kLuma + channel; i < s.size(); i += 2) {
                    s[i] = s[0];
                }
            })) << name;
        }
    }
}

TEST(FrameEncoderTest, SaysWhatAnAdapterLacks) {
    const auto choose = [](const char* name, const DX::Size2DT<long>& size,
                           const std::vector<DXGI_FORMAT>& targets) {
        return ChooseTextures(
            {GetFormat(name), YCbCrMatrix::BT709, size, {}}, 8192, [targets](DXGI_FORMAT format) {
                const bool has = std::find(targets.begin(), targets.end(), format) != targets.end();
                return FormatUses{has, has, has};
            });
    };
    constexpr auto kCanvas = DXGI_FORMAT_R16G16B16A16_UNORM;
    constexpr auto kHalf = DXGI_FORMAT_R16G16B16A16_FLOAT;
    const auto both = choose(
        "nv12", {4, 4}, {DXGI_FORMAT_NV12, DXGI_FORMAT_R8_UNORM, DXGI_FORMAT_R8G8_UNORM, kHalf});
    EXPECT_TRUE(both.mayBePlanar && both.hasPair);
    EXPECT_EQ(both.canvasFormat, kHalf);
    EXPECT_FALSE(choose("nv12", {4, 4}, {DXGI_FORMAT_NV12, DXGI_FORMAT_R8_UNORM, kCanvas}).hasPair);
    EXPECT_FALSE(
        choose("p010", {5, 4},
               {DXGI_FORMAT_P010, DXGI_FORMAT_R16_UNORM, DXGI_FORMAT_R16G16_UNORM, kCanvas})
            .mayBePlanar);
    EXPECT_EQ(GetFailure([&] { choose("p010", {4, 4}, {DXGI_FORMAT_R16_UNORM, kCanvas}); }),
              "the adapter cannot draw P010: neither on such textures nor on R16_UNORM and "
              "R16G16_UNORM");
    EXPECT_THAT(GetFailure([&] { choose("nv12", {5, 3}, {DXGI_FORMAT_NV12, kCanvas}); }),
                HasSubstr("of odd size"));
    EXPECT_THAT(GetFailure([&] { choose("nv12", {8193, 2}, {}); }), HasSubstr("8192 x 8192"));
    EXPECT_THAT(GetFailure([&] { choose("nv12", {4, 4}, {DXGI_FORMAT_NV12}); }),
                HasSubstr("16 bits a channel"));
}

// Frames without end, or until it fails.
class EndlessSource : public FrameSource {
public:
    explicit EndlessSource(std::uint64_t end, bool fails = false) : m_end(end), m_fails(fails) {
        m_size = {2, 2};
    }

    bool Read(Image& frame) override {
        frame = MakePlain(2, 2, {static_cast<std::uint8_t>(m_next), 0, 0, 255});
        if (m_next == m_end && m_fails) {
            throw Failure("the source fails");
        }
        return m_next++ != m_end;
    }

private:
    std::uint64_t m_next = 0;
    std::uint64_t m_end;
    bool m_fails;
};

// Fails at a frame; until then checks that frames come in order.
class CountingSink : public ByteSink {
public:
    CountingSink(std::size_t* frames, std::size_t failsAt) : m_frames(frames), m_failsAt(failsAt) {}

    void Write(const void* data, std::size_t) override {
        if (*m_frames == m_failsAt) {
            throw Failure("the sink fails");
        }
        EXPECT_EQ(*static_cast<const std::uint8_t*>(data), *m_frames % 256);
        ++*m_frames;
    }
    void Commit() override {}

private:
    std::size_t* m_frames;
    std::size_t m_failsAt;
};

TEST(EncodePipelineTest, KeepsOrderAndBoundsAndTellsTheFirstFailure) {
    constexpr std::size_t kNever = 1000000;
    const EncoderParams params = {GetFormat("nv12"), YCbCrMatrix::BT709, {2, 2}, {}};
    const auto run = [&](std::uint64_t end, bool sourceFails, std::uint64_t encoderFailsAt,
                         std::size_t sinkFailsAt, std::size_t* frames) {
        std::uint64_t encoded = 0;
        FakeEncoder encoder(params, [&](const Image& frame, std::uint8_t* planes) {
            if (encoded++ == encoderFailsAt) {
                throw Failure("the encoder fails");
            }
            planes[0] = frame.pixels[0];
        });
        FrameSink sink(std::make_unique<CountingSink>(frames, sinkFailsAt), Container::Raw,
                       params.format, {});
        EncodeProgress progress(false, {});
        return RunPipeline(std::make_shared<EndlessSource>(end, sourceFails), encoder, sink,
                           progress);
    };
    std::size_t frames = 0;
    const EncodeTotals totals = run(2000, false, kNever, kNever, &frames);
    EXPECT_EQ(frames, 2000U);
    EXPECT_EQ(totals.frames, 2000U);
    EXPECT_EQ(totals.framesInFlight, 0U);
    EXPECT_EQ(totals.bytesInFlight, 0U);
    EXPECT_LE(totals.peakFramesInFlight, 9U) << "three before the device, on it and behind it";
    // Of a frame on the device: 16 bytes twice, 6 of planes twice.
    EXPECT_LE(totals.peakBytesInFlight, 3U * 16 + 3 * 44 + 3 * 6 + 44);

    for (const std::uint64_t at : {0U, 1U, 5U, 50U}) {
        frames = 0;
        EXPECT_EQ(GetFailure([&] { run(at, true, kNever, kNever, &frames); }), "the source fails");
        frames = 0;
        EXPECT_EQ(GetFailure([&] { run(kNever, false, at, kNever, &frames); }),
                  "the encoder fails");
        EXPECT_LE(frames, at);
        frames = 0;
        EXPECT_EQ(GetFailure([&] { run(kNever, false, kNever, at, &frames); }), "the sink fails");
        EXPECT_EQ(frames, at);
    }
}

class RealEncoderTest : public testing::TestWithParam<ApiChoice> {};

INSTANTIATE_TEST_SUITE_P(, RealEncoderTest,
                         testing::Values(ApiChoice::Direct3D11, ApiChoice::Direct3D12),
                         [](const auto& api) {
                             return std::string(api.param == ApiChoice::Direct3D11 ? "Direct3D11"
                                                                                   : "Direct3D12");
                         });

TEST_P(RealEncoderTest, ConvertsManyFramesInFlight) {
    const auto graphics = Graphics::Open({GetParam(), 0}, DrawKind::Fill, [](auto) {});
    for (const char* name : {"nv12", "p010", "p016"}) {
        for (const DX::Size2DT<long>& size : {DX::Size2DT<long>{64, 36}, {5, 3}, {1, 1}}) {
            const EncoderParams params = {GetFormat(name), YCbCrMatrix::BT601, size, {}};
            const auto encoder = FrameEncoder::Open(*graphics, params);
            std::vector<Image> frames;
            for (unsigned i = 0; i < 8; ++i) { // depths change on the way
                frames.push_back(MakeNoise(static_cast<std::uint32_t>(size.width),
                                           static_cast<std::uint32_t>(size.height), i < 5 ? 8 : 16,
                                           false, i));
            }
            std::size_t collected = 0;
            const auto collect = [&] {
                Bytes planes;
                encoder->Collect(planes);
                RoundToCodes(params.format, planes);
                EXPECT_EQ(
                    DescribeDifference(params.format,
                                       GetSamples(params.format, planes.data(), planes.size()),
                                       ReferenceFrame(GetPixels(frames[collected]), size,
                                                      params.format, params.matrix)),
                    "")
                    << name << " frame " << collected;
                ++collected;
            };
            for (const Image& frame : frames) {
                if (encoder->CountInFlight() == FrameEncoder::kSlots) {
                    EXPECT_THROW(encoder->Submit(frame), std::logic_error);
                    collect();
                }
                encoder->Submit(frame);
            }
            while (encoder->CountInFlight() != 0) {
                collect();
            }
            EXPECT_EQ(collected, frames.size());
            Bytes planes;
            EXPECT_THROW(encoder->Collect(planes), std::logic_error);
        }
    }
}

// The luma of a sample in the middle of the left half, in the middle, at the upper edge.
std::array<unsigned, 3> ProbeLuma(const Bytes& planes, std::size_t width, std::size_t height) {
    return {planes[height / 2 * width + width / 4], planes[height / 2 * width + width / 2],
            planes[width / 2]};
}

TEST_P(RealEncoderTest, FitsFramesOfAnySizeOverBlack) {
    const auto graphics = Graphics::Open({GetParam(), 0}, DrawKind::Fill, [](auto) {});
    const EncoderParams params = {GetFormat("nv12"), YCbCrMatrix::BT709, {32, 32}, {}};
    const auto encoder = FrameEncoder::Open(*graphics, params);
    // Columns of black and white by turns: they shrink to grey, and not to the one in the middle
    // of every fifteen.
    Image stripes = MakePlain(480, 240, {0, 0, 0, 255});
    for (std::size_t x = 0; x < stripes.pixels.size() / 4; x += 2) {
        std::fill_n(stripes.pixels.begin() + static_cast<std::ptrdiff_t>(4 * x), 3,
                    std::uint8_t{255});
    }
    encoder->Submit(MakePlain(4, 4, {255, 255, 255, 255}));
    encoder->Submit(stripes);
    encoder->Submit(MakePlain(32, 32, {255, 255, 255, 128}));
    Bytes planes;
    encoder->Collect(planes);
    EXPECT_EQ(ProbeLuma(planes, 32, 32), (std::array{234U, 234U, 234U}));
    encoder->Collect(planes);
    const auto grey = ProbeLuma(planes, 32, 32);
    EXPECT_NEAR(grey[0], 125, 4);
    EXPECT_NEAR(grey[1], 125, 4);
    EXPECT_EQ(grey[2], 16U);
    encoder->Collect(planes);
    EXPECT_NEAR(ProbeLuma(planes, 32, 32)[1], 125, 1);
}

// Only Direct3D 12 could take it for a finished frame: Direct3D 11 fails to map.
TEST(LostDeviceTest, IsNoFinishedFrame) {
    const auto graphics = Graphics::Open({ApiChoice::Direct3D12, 0}, DrawKind::Fill, [](auto) {});
    const auto& device = dynamic_cast<const DX::D12Device&>(graphics->GetDevice());
    const auto encoder =
        FrameEncoder::Open(*graphics, {GetFormat("nv12"), YCbCrMatrix::BT709, {4, 4}, {}});
    encoder->Submit(MakePlain(4, 4, {}));
    const MethodPatch<&ID3D12Device::GetDeviceRemovedReason> removed(
        device.Get(), [](auto...) { return DXGI_ERROR_DEVICE_HUNG; });
    Bytes planes;
    EXPECT_THROW(encoder->Collect(planes), DX::DirectX12Exception);
}

// Run on its own, on a Direct3D 11 that makes planar textures: one was seen that draws both planes
// into the first.
TEST(PlanarTest, IsUsedWhereItsPlanesAreTrue) {
    const auto graphics = Graphics::Open({ApiChoice::Direct3D11, 0}, DrawKind::Fill, [](auto) {});
    const auto& device = dynamic_cast<const DX::D11Device&>(graphics->GetDevice());
    const EncoderParams params = {GetFormat("nv12"), YCbCrMatrix::BT709, kTestSize, {}};
    const auto planar =
        MakeFrameEncoder11(DX::D11Device::Find(device.Get()), params, {.isPlanar = true});
    EXPECT_EQ(FrameEncoder::Open(*graphics, params)->IsPlanar(), HasTruePlanes(*planar, params));
}

} // namespace

} // namespace Norvex::Test
