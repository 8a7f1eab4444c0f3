// The parts of encode by themselves, without a device.

#include <cstring>

#include <gmock/gmock.h>

#include "apps/norvexdx/clips/EncodePipeline.h"
#include "apps/norvexdx/clips/PlanePacking.h"
#include "tests/apps/Expectations.h"
#include "tests/apps/Pictures.h"
#include "tests/support/YCbCrReference.h"

namespace Norvex::Test {

namespace {

using namespace App;
using Conf::YCbCrMatrix;
using testing::HasSubstr;

EncoderParams MakeParams(const char* format, const DX::Size2DT<long>& size) {
    return {ParseVideoFormat(format).value(), YCbCrMatrix::BT601, size, {}};
}

TEST(ClipTest, FrameRatesAreWholeFractionalOrOfBroadcasters) {
    constexpr std::pair<const char*, FrameRate> kRates[] = {
        {"25", {25, 1}},   {"30000/1001", {30000, 1001}},
        {"50/2", {25, 1}}, {"29.97", {30000, 1001}},
        {"12.5", {25, 2}}, {"0.125", {1, 8}},
    };
    for (const auto& [text, rate] : kRates) {
        EXPECT_EQ(ParseFrameRate(text), rate) << text;
    }
    for (const char* text : {"0", "0/1", "25/0", "25/", "/2", "-25", "25.", ".5", "1.-5", "24.0001",
                             "1000001", "", "25 "}) {
        EXPECT_EQ(ParseFrameRate(text), std::nullopt) << text;
    }
}

TEST(ClipTest, Y4mHeadersAreReadAsTheyAreWrittenAndOthersRefused) {
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
    constexpr std::pair<const char*, const char*> kRefused[] = {
        {"RIFF", "not a Y4M file"},
        {"YUV4MPEG2 W8 C444", "no pixels"},
        {"YUV4MPEG2 Wx H8", "tells no size"},
        {"YUV4MPEG2 W20000 H8 C444", "larger than"},
        {"YUV4MPEG2 W8 H8 It C444", "interlaced"},
        {"YUV4MPEG2 W8 H8 C444 XCOLORRANGE=FULL", "full"},
        {"YUV4MPEG2 W8 H8", "C420jpeg is not taken"},
        {"YUV4MPEG2 W8 H8 C422", "C422 is not taken"},
    };
    for (const auto& [header, words] : kRefused) {
        EXPECT_THAT(FailureOf([&] { GetY4mFrameBytes(ParseY4mHeader(header)); }), HasSubstr(words));
    }
}

TEST(ClipTest, Y4mDecodesPublishedCodes) {
    const auto expect = [](const char* colors, YCbCrMatrix matrix, std::array<unsigned, 3> codes,
                           const Color& color, double bound) { // half a code, roughly
        const Y4mHeader header = {{1, 1}, {}, "0:0", colors};
        const std::size_t size = GetY4mFrameBytes(header) / 3;
        Bytes samples(6);
        for (std::size_t i = 0; i < codes.size(); ++i) {
            std::memcpy(&samples[i * size], &codes[i], size);
        }
        Image image;
        ConvertY4mFrame(header, samples, matrix, image);
        for (std::size_t i = 0; i < color.size(); ++i) {
            EXPECT_NEAR(GetPixels(image).At(0, 0)[i], color[i], bound) << colors << " " << i;
        }
    };
    expect("444", YCbCrMatrix::BT709, {235, 128, 128}, {1, 1, 1, 1}, 0.0);
    expect("444", YCbCrMatrix::BT709, {16, 128, 128}, {0, 0, 0, 1}, 0.0);
    expect("444", YCbCrMatrix::BT709, {255, 128, 128}, {1, 1, 1, 1}, 0.0);
    expect("444", YCbCrMatrix::BT601, {81, 90, 240}, {1, 0, 0, 1}, 0.005);
    expect("444p10", YCbCrMatrix::BT2020NonConstant, {658, 189, 100}, {0, 1, 0, 1}, 0.002);
    expect("444p16", YCbCrMatrix::BT601, {41 << 8, 240 << 8, 110 << 8}, {0, 0, 1, 1}, 0.005);
}

TEST(ClipTest, PackingRoundsP010AndTakesChromaApart) {
    const auto p010 = ParseVideoFormat("p010").value();
    // As a device rounds codes 0, 64, 939, 940, 1023 and what is beyond: code / 1024.
    std::array<std::uint16_t, 6> samples = {0, 4096, 60095, 60159, 65471, 65535};
    RoundToCodes(p010, {reinterpret_cast<std::uint8_t*>(samples.data()), sizeof(samples)});
    EXPECT_THAT(samples,
                testing::ElementsAre(0, 64 * 64, 939 * 64, 940 * 64, 1023 * 64, 1023 * 64));
    // 3 x 1 pixels of luma, 2 x 1 pairs of chroma.
    Bytes out;
    Deinterleave(
        p010, {3, 1},
        Bytes{0x40, 0x10, 0x80, 0x20, 0xC0, 0x30, 0, 0x40, 0, 0x80, 0x40, 0x40, 0x40, 0x80}, out);
    EXPECT_EQ(out, (Bytes{0x41, 0, 0x82, 0, 0xC3, 0, 0, 1, 1, 1, 0, 2, 1, 2}));
    const auto nv12 = ParseVideoFormat("nv12").value();
    Bytes planes = {1, 2, 3, 10, 20, 11, 21};
    RoundToCodes(nv12, planes);
    Deinterleave(nv12, {3, 1}, planes, out);
    EXPECT_EQ(out, (Bytes{1, 2, 3, 10, 11, 20, 21}));
}

// Bytes that come in small pieces of changing length, as from a pipe.
class TrickleStream : public ByteStream {
public:
    explicit TrickleStream(std::string bytes) : ByteStream("trickle"), m_bytes(std::move(bytes)) {}

protected:
    std::size_t ReadSome(std::uint8_t* data, std::size_t sizeInBytes) override {
        m_piece = m_piece % 7 + 1;
        const std::size_t count =
            m_bytes.copy(reinterpret_cast<char*>(data), std::min(m_piece, sizeInBytes));
        m_bytes.erase(0, count);
        return count;
    }

private:
    std::string m_bytes;
    std::size_t m_piece = 0;
};

std::unique_ptr<FrameSource> MakeSource(const std::string& bytes,
                                        std::optional<DX::Size2DT<long>> size = {}) {
    EncodePlan plan;
    plan.size = size;
    return MakeStreamSource(std::make_unique<TrickleStream>(bytes), plan);
}

TEST(ClipTest, AStreamIsCutIntoFrames) {
    std::string bytes;
    for (int i = 0; i < 3 * 24; ++i) {
        bytes += static_cast<char>(i);
    }
    constexpr DX::Size2DT<long> kSize = {3, 2};
    const auto source = MakeSource(bytes, kSize);
    Image frame;
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(source->Read(frame));
        EXPECT_EQ(std::string(frame.pixels.begin(), frame.pixels.end()), bytes.substr(24 * i, 24));
    }
    EXPECT_FALSE(source->Read(frame));

    // Known by its beginning.
    const std::string header = "YUV4MPEG2 W2 H1 F30:1 A4:3 C444\n";
    const std::string codes = "FRAME Ip\n\xEB\x10\x80\x80\x80\x80";
    const auto y4m = MakeSource(header + codes + codes);
    EXPECT_EQ(y4m->GetSize(), (DX::Size2DT<long>{2, 1}));
    EXPECT_EQ(y4m->GetRate(), (FrameRate{30, 1}));
    EXPECT_EQ(y4m->GetPixelAspect(), "4:3");
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(y4m->Read(frame));
        EXPECT_EQ(GetSample(frame, 0, 0, 1), 65535U);
        EXPECT_EQ(GetSample(frame, 1, 0, 1), 0U);
    }
    EXPECT_FALSE(y4m->Read(frame));

    const auto cut = MakeSource(bytes.substr(0, 30), kSize);
    EXPECT_TRUE(cut->Read(frame));
    EXPECT_THAT(FailureOf([&] { cut->Read(frame); }),
                HasSubstr("in the middle of frame 2: 18 of its 24 bytes are missing"));
    const std::pair<std::string, const char*> kBad[] = {
        {header + "FRAM\n", "does not begin with FRAME"},
        {header + "FRAME\nabc", "3 of its 6 bytes are missing"},
        {header.substr(0, 14), "no size"},
        {"YUV4MPEG2 " + std::string(5000, 'X'), "longer"},
    };
    for (const auto& [input, words] : kBad) {
        EXPECT_THAT(FailureOf([&, &text = input] { MakeSource(text)->Read(frame); }),
                    HasSubstr(words));
    }
    EXPECT_THAT(FailureOf([] { MakeSource("raw"); }, ExitCode::WrongUsage), HasSubstr("--size"));
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

TEST(ClipTest, PlanesThatAreNotTrueAreFoundOut) {
    constexpr std::size_t kLuma = 32; // samples of the test picture
    using Samples = std::vector<double>;
    for (const char* name : {"nv12", "p010", "p016"}) {
        const EncoderParams params = MakeParams(name, kTestSize);
        const auto isTrue = [&params](const std::function<void(Samples&)>& spoil) {
            FakeEncoder encoder(params, [&](const Image& frame, std::uint8_t* planes) {
                auto samples = ReferenceFrame(GetPixels(frame), params.matrix,
                                              Proc::AlphaType::AlphaIsOne, {4, 2});
                spoil(samples);
                const std::size_t size = params.format.GetSampleSize();
                for (std::size_t i = 0; i < samples.size(); ++i) {
                    const auto sample =
                        static_cast<std::uint16_t>(samples[i] * (size == 1 ? 255.0 : 65535.0));
                    std::memcpy(planes + i * size, &sample, size);
                }
            });
            return HasTruePlanes(encoder, params);
        };
        EXPECT_TRUE(isTrue([](Samples&) {})) << name;
        EXPECT_FALSE(isTrue([](Samples& s) { std::fill(s.begin() + kLuma, s.end(), 0.0); }));
        EXPECT_FALSE(isTrue([](Samples& s) { std::copy_n(s.begin() + kLuma, 16, s.begin()); }));
        for (const std::size_t channel : {0U, 1U}) { // of the chroma pairs
            EXPECT_FALSE(isTrue([channel](Samples& s) {
                for (std::size_t i = kLuma + channel; i < s.size(); i += 2) {
                    s[i] = s[0];
                }
            })) << name;
        }
    }
}

TEST(ClipTest, WhatAnAdapterLacksIsSaid) {
    using Formats = std::vector<DXGI_FORMAT>;
    const auto choose = [](const char* name, long width, long height, const Formats& targets) {
        return ChooseTextures(MakeParams(name, {width, height}), 8192, [&](DXGI_FORMAT format) {
            const bool has = std::ranges::find(targets, format) != targets.end();
            return FormatUses{has, has, has};
        });
    };
    constexpr auto kCanvas = DXGI_FORMAT_R16G16B16A16_UNORM;
    constexpr auto kHalf = DXGI_FORMAT_R16G16B16A16_FLOAT;
    constexpr auto kNV12 = DXGI_FORMAT_NV12;
    constexpr auto kR8 = DXGI_FORMAT_R8_UNORM;
    constexpr auto kR16 = DXGI_FORMAT_R16_UNORM;
    const auto both = choose("nv12", 4, 4, {kNV12, kR8, DXGI_FORMAT_R8G8_UNORM, kHalf});
    EXPECT_TRUE(both.mayBePlanar && both.hasPair);
    EXPECT_EQ(both.canvasFormat, kHalf);
    EXPECT_FALSE(choose("nv12", 4, 4, {kNV12, kR8, kCanvas}).hasPair);
    const Formats p010 = {DXGI_FORMAT_P010, kR16, DXGI_FORMAT_R16G16_UNORM, kCanvas};
    EXPECT_FALSE(choose("p010", 5, 4, p010).mayBePlanar);
    const auto expect = [&](const char* words, const char* name, long width, long height,
                            const Formats& targets) {
        EXPECT_THAT(FailureOf([&] { choose(name, width, height, targets); }), HasSubstr(words));
    };
    expect("the adapter cannot draw P010: neither on such textures nor on R16_UNORM and R16G16_",
           "p010", 4, 4, {kR16, kCanvas});
    expect("of odd size", "nv12", 5, 3, {kNV12, kCanvas});
    expect("8192 x 8192", "nv12", 8193, 2, {});
    expect("16 bits a channel", "nv12", 4, 4, {kNV12});
}

// So many frames; fails at one of them where that is said.
struct Stage {
    std::uint64_t end = 1000000;
    bool fails = true;
    std::uint64_t frames = 0;

    // Counts a frame; false at the end.
    bool Pass(const char* name) {
        if (frames == end && fails) {
            throw Failure(std::string(name) + " fails");
        }
        return frames++ != end;
    }
};

class StagedSource : public FrameSource {
public:
    explicit StagedSource(const Stage& stage) : m_stage(stage) { m_size = {2, 2}; }

    bool Read(Image& frame) override {
        frame = MakePlain(2, 2, {static_cast<int>(m_stage.frames % 256), 0, 0, 255});
        return m_stage.Pass("the source");
    }

private:
    Stage m_stage;
};

// Checks that frames come in order.
class StagedSink : public ByteSink {
public:
    explicit StagedSink(Stage& stage) : m_stage(stage) {}

    void Write(const void* data, std::size_t) override {
        EXPECT_EQ(*static_cast<const std::uint8_t*>(data), m_stage.frames % 256);
        m_stage.Pass("the sink");
    }
    void Commit() override {}

private:
    Stage& m_stage;
};

TEST(ClipTest, ThePipelineKeepsOrderAndBoundsAndTellsTheFirstFailure) {
    const EncoderParams params = MakeParams("nv12", {2, 2});
    const auto run = [&](const Stage& sourceStage, Stage encoderStage, Stage& sinkStage) {
        FakeEncoder encoder(params, [&](const Image& frame, std::uint8_t* planes) {
            encoderStage.Pass("the encoder");
            planes[0] = frame.pixels[0];
        });
        FrameSink sink(std::make_unique<StagedSink>(sinkStage), Container::Raw, params.format, {});
        EncodeProgress progress(false, {});
        return RunPipeline(std::make_shared<StagedSource>(sourceStage), encoder, sink, progress);
    };
    Stage written;
    const EncodeTotals totals = run({.end = 2000, .fails = false}, {}, written);
    EXPECT_EQ(written.frames, 2000U);
    EXPECT_EQ(totals.frames, 2000U);
    EXPECT_EQ(totals.framesInFlight, 0U);
    EXPECT_EQ(totals.bytesInFlight, 0U);
    EXPECT_LE(totals.peakFramesInFlight, 9U) << "three before the device, on it and behind it";
    // Of a frame on the device: 16 bytes twice, 6 of planes twice.
    EXPECT_LE(totals.peakBytesInFlight, 3U * 16 + 3 * 44 + 3 * 6 + 44);

    for (const std::uint64_t at : {0U, 1U, 5U, 50U}) {
        written = {};
        EXPECT_EQ(FailureOf([&] { run({at}, {}, written); }), "the source fails");
        written = {};
        EXPECT_EQ(FailureOf([&] { run({}, {at}, written); }), "the encoder fails");
        EXPECT_LE(written.frames, at);
        written = {at};
        EXPECT_EQ(FailureOf([&] { run({}, {}, written); }), "the sink fails");
        EXPECT_EQ(written.frames, at);
    }
}

} // namespace

} // namespace Norvex::Test
