#pragma once

// Frames of video on a device: made of codes, converted, drawn, and compared with the reference.
// The fixture of tests that are the same on both generations (Canvas11.h).

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Proc/DirectX/Manager/D3FrameConverter.h"
#include "apps/norvexdx/reference/FrameReference.h"
#include "tests/support/Canvas11.h"

namespace Norvex::Test {

// What each sample of codes is in its texture.
inline double UnitOf(const DX::D3FrameDesc& desc) {
    return desc.IsRGB() ? 1.0 / (std::pow(2.0, desc.bitDepth) - 1.0)
                        : (desc.layout == DX::FrameLayout::P010 ? 64.0 : 1.0) /
                              (desc.bitDepth == 8 ? 255.0 : 65535.0);
}

// A frame on a device, and views of its planes to read them by.
template <class AnyCanvas>
struct OnDevice;
template <>
struct OnDevice<Canvas> {
    using Frame = DX::D12Frame;
    using Draw = DX::D12FrameDraw;
    using Converter = DX::D12FrameConverter;
    // Of a target that stays one; or, of one that is new, to be read then.
    static void Encode(Converter& converter, const auto& on, const Frame& from, const Frame& to,
                       const DX::FrameConvertParams& params, bool isNew = false) {
        constexpr auto kRead = D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE;
        constexpr auto kDrawn = D3D12_RESOURCE_STATE_RENDER_TARGET;
        using States = DX::D12ResourceStates;
        const States ofTarget =
            isNew ? States{D3D12_RESOURCE_STATE_COMMON, kRead} : States{kDrawn, kDrawn};
        converter.Encode(on, from, to, std::array{States{kRead, kRead}, ofTarget}, params);
    }
};
template <>
struct OnDevice<Canvas11> {
    using Frame = DX::D11Frame;
    using Draw = DX::D11FrameDraw;
    using Converter = DX::D11FrameConverter;
    static void Encode(Converter& converter, const auto& on, const Frame& from, const Frame& to,
                       const DX::FrameConvertParams& params, bool /*isNew*/ = false) {
        converter.Encode(on, from, to, params);
    }
};

// The channels that a plane's texture holds.
inline std::vector<unsigned> ChannelsOf(const DX::D3FrameDesc& desc, unsigned plane) {
    return desc.IsRGB()                              ? std::vector{0U, 1U, 2U, 3U}
           : plane == 1 && desc.GetPlaneCount() == 2 ? std::vector{1U, 2U}
                                                     : std::vector{plane};
}

template <class AnyCanvas>
class FrameTest : public testing::Test {
protected:
    using Traits = OnDevice<AnyCanvas>;
    using DeviceFrame = typename Traits::Frame;
    using View = typename AnyCanvas::View;

    static DXGI_FORMAT FormatOf(const DX::D3FrameDesc& desc, unsigned plane) {
        return desc.IsRGB() ? DXGI_FORMAT_R32G32B32A32_FLOAT : desc.GetPlane(plane).format;
    }

    DeviceFrame Upload(const Reference::Frame& frame) {
        DeviceFrame result;
        result.desc = frame.desc;
        for (unsigned plane = 0; plane < frame.desc.GetPlaneCount(); ++plane) {
            const auto channels = ChannelsOf(frame.desc, plane);
            const auto [width, height] = Reference::SizeOfChannel(frame.desc, channels[0]);
            const Pixels pixels =
                MakePixels(static_cast<unsigned>(width), static_cast<unsigned>(height),
                           [&, columns = static_cast<unsigned>(width)](unsigned x, unsigned y) {
                               Color color = {};
                               const auto at = std::size_t{y} * columns + x;
                               for (std::size_t i = 0; i < channels.size(); ++i) {
                                   const double sample = frame.channels.at(channels[i])[at];
                                   color.at(i) =
                                       channels[i] == 3 ? sample : sample * UnitOf(frame.desc);
                               }
                               return color;
                           });
            result.textures.at(plane) =
                m_canvas.TextureOf(m_canvas.MakeSource(pixels, FormatOf(frame.desc, plane)));
        }
        return result;
    }
    // Empty planes to draw on; the views are theirs.
    DeviceFrame MakeTarget(const DX::D3FrameDesc& desc, std::vector<View>& views) {
        DeviceFrame result;
        result.desc = desc;
        for (unsigned plane = 0; plane < desc.GetPlaneCount(); ++plane) {
            const auto [width, height] = desc.GetPlane(plane).size;
            views.push_back(m_canvas.MakeTarget(static_cast<unsigned>(width),
                                                static_cast<unsigned>(height),
                                                FormatOf(desc, plane)));
            result.textures.at(plane) = m_canvas.TextureOf(views.back());
        }
        return result;
    }
    // compare(code, channel, index) of all that the planes hold.
    template <class Compare>
    void ForEachCode(const DX::D3FrameDesc& desc, const std::vector<View>& views,
                     const Compare& compare) {
        for (unsigned plane = 0; plane < desc.GetPlaneCount(); ++plane) {
            const Pixels pixels = m_canvas.Read(views[plane]);
            const auto channels = ChannelsOf(desc, plane);
            for (std::size_t at = 0; at < pixels.colors.size(); ++at) {
                for (std::size_t i = 0; i < channels.size() && i < 3; ++i) {
                    compare(pixels.colors[at].at(i) / UnitOf(desc), channels[i], at);
                }
            }
        }
    }
    // The largest difference of codes that are all whole.
    double FindError(const Reference::Frame& expected, const std::vector<View>& views) {
        double error = 0.0;
        ForEachCode(expected.desc, views, [&](double code, unsigned channel, std::size_t at) {
            const double whole = std::fabs(code - std::round(code)) < 0.01 ? 0.0 : 1e9;
            error = std::max(error, whole + std::fabs(code - expected.channels.at(channel)[at]));
        });
        return error;
    }
    void Convert(const DeviceFrame& from, const DeviceFrame& to,
                 const DX::FrameConvertParams& params = {}) {
        m_canvas.Record([&](const auto& on) {
            const auto encode = [&](const auto& target) {
                Traits::Encode(*m_converter, target, from, to, params);
            };
            if constexpr (std::is_same_v<AnyCanvas, Canvas>) {
                m_isOpenList = !m_isOpenList;
                m_isOpenList ? on->RecordList(nullptr, encode) : encode(on);
            } else {
                encode(on);
            }
        });
    }
    void Show(const DeviceFrame& frame, const View& target) {
        m_canvas.Record([&](const auto& on) { m_draw->Encode(on, frame, target); });
    }
    double ConvertAndCompare(const Reference::Frame& source, const DX::D3FrameDesc& target,
                             const DX::FrameConvertParams& params = {}) {
        std::vector<View> views;
        const DeviceFrame to = MakeTarget(target, views);
        Convert(Upload(source), to, params);
        return FindError(
            Reference::ConvertFrame(source, target, params.conversion,
                                    params.chromaFilter == DX::ChromaFilter::CatmullRom,
                                    params.toneMapping),
            views);
    }

    // Prints and bounds the largest error under each name.
    void Note(const std::string& name, double error, double bound, const DX::D3FrameDesc& desc) {
        double& largest = m_errors[name];
        largest = std::max(largest, error);
        EXPECT_LE(error, bound) << name << ", " << desc.size.width << " x " << desc.size.height
                                << ", range " << static_cast<int>(desc.range) << ", chroma "
                                << static_cast<int>(desc.chromaLocation) << ", matrix "
                                << static_cast<int>(desc.matrix);
    }
    void TearDown() override {
        for (const auto& [name, error] : m_errors) {
            std::printf("  %s %-44s %.4f\n", AnyCanvas::kName, name.c_str(), error);
        }
    }

    AnyCanvas m_canvas;
    boost::intrusive_ptr<typename Traits::Converter> m_converter{
        new typename Traits::Converter(m_canvas.GetDevice())};
    boost::intrusive_ptr<typename Traits::Draw> m_draw{new
                                                       typename Traits::Draw(m_canvas.GetDevice())};
    std::map<std::string, double> m_errors;
    bool m_isOpenList = false; // every other conversion on Direct3D 12 is drawn into one
};

} // namespace Norvex::Test
