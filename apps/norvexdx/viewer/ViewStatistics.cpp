#include "apps/norvexdx/viewer/ViewStatistics.h"

#include <algorithm>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D12Device.h"
#include "apps/norvexdx/console/ReportParts.h"

namespace Norvex::App {

namespace {

constexpr double kMedian = 0.5;
constexpr double kMost = 0.95;

// Direct3D 11 keeps no pools.
const DX::D12Device* FindPools(const DX::D3Device& device) {
    return dynamic_cast<const DX::D12Device*>(&device);
}

std::string MakePoolText(const DX::D3Device& device) {
    const auto* pools = FindPools(device);
    if (pools == nullptr) {
        return {};
    }
    constexpr double kKiB = 1024.0;
    const DX::D12PoolSizes sizes = pools->GetPoolSizes();
    return fmt::format(
        "\nidle: {} allocators, {} lists, {} descriptor heaps, {} buffers ({:.0f} KiB)",
        sizes.commandAllocators, sizes.commandLists, sizes.descriptorHeaps, sizes.buffers,
        static_cast<double>(sizes.bufferBytes) / kKiB);
}

Json MakePoolJson(const DX::D3Device& device) {
    const auto* pools = FindPools(device);
    if (pools == nullptr) {
        return nullptr;
    }
    const DX::D12PoolSizes sizes = pools->GetPoolSizes();
    return {{"commandAllocators", sizes.commandAllocators},
            {"commandLists", sizes.commandLists},
            {"descriptorHeaps", sizes.descriptorHeaps},
            {"buffers", sizes.buffers},
            {"bufferBytes", sizes.bufferBytes}};
}

std::string MakeClipText(const std::optional<ClipState>& clip) {
    if (!clip) {
        return {};
    }
    return fmt::format("\nframe {}{} at {:.5g} frames/s{}; shown {}, dropped {}", clip->frame,
                       clip->count ? fmt::format(" of {}", *clip->count) : std::string(),
                       static_cast<double>(clip->rate.numerator) / clip->rate.denominator,
                       clip->isPlaying ? "" : ", paused", clip->shown, clip->dropped);
}

Json MakeClipJson(const std::optional<ClipState>& clip) {
    if (!clip) {
        return nullptr;
    }
    return {{"frame", clip->frame},
            {"count", clip->count ? Json(*clip->count) : Json(nullptr)},
            {"rate", fmt::format("{}/{}", clip->rate.numerator, clip->rate.denominator)},
            {"playing", clip->isPlaying},
            {"shown", clip->shown},
            {"dropped", clip->dropped}};
}

} // namespace

void Samples::Add(double value) {
    if (m_values.size() < kMaxCount) {
        m_values.push_back(value);
    } else {
        m_values[m_next] = value;
        m_next = (m_next + 1) % kMaxCount;
    }
}

double Samples::GetQuantile(double part) const {
    if (m_values.empty()) {
        return 0.0;
    }
    std::vector<double> values = m_values;
    const auto place = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<std::size_t>(place)];
}

void ViewStatistics::Add(const FrameTimes& times, bool follows) {
    m_frameTimes.Add(times.frame);
    m_recordingTimes.Add(times.recording);
    if (follows) {
        m_intervals.Add(m_sinceFrame.GetMilliseconds());
    }
    m_sinceFrame = {};
    m_peakInFlight = std::max(m_peakInFlight, times.inFlight);
    ++m_frames;
}

void ViewStatistics::ForgetTimes() {
    m_frameTimes = {};
    m_recordingTimes = {};
    m_intervals = {};
    m_peakInFlight = 0;
}

std::string ViewStatistics::MakeText(const Setting& setting) const {
    return fmt::format(
               "{} on {}, {}{}\n"
               "frame {:.2f} ms, 95% within {:.2f} ms; recording {:.2f} ms\n"
               "present interval {:.2f} ms; in flight at most {}; frames {}; devices lost {}",
               setting.graphics.GetApiName(), setting.graphics.GetDevice().GetAdapterName(),
               setting.format,
               setting.isHDR ? fmt::format(", HDR with white at {:.0f} cd/m2", setting.sdrWhite)
                             : std::string(),
               m_frameTimes.GetQuantile(kMedian), m_frameTimes.GetQuantile(kMost),
               m_recordingTimes.GetQuantile(kMedian), m_intervals.GetQuantile(kMedian),
               m_peakInFlight, m_frames, m_losses) +
           MakeClipText(setting.clip) + MakePoolText(setting.graphics.GetDevice());
}

std::string ViewStatistics::MakeJson(const Setting& setting, std::size_t frames) const {
    const DX::D3Device& device = setting.graphics.GetDevice();
    const Json json = {
        {"frames", frames},
        {"api", MakeDeviceJson(device)["api"]},
        {"adapter", device.GetAdapterName()},
        {"hdr", setting.isHDR},
        {"sdrWhite", setting.isHDR ? Json(setting.sdrWhite) : Json(nullptr)},
        {"format", setting.format},
        {"frameTimeMs",
         {{"median", m_frameTimes.GetQuantile(kMedian)}, {"p95", m_frameTimes.GetQuantile(kMost)}}},
        {"recordingMs", {{"median", m_recordingTimes.GetQuantile(kMedian)}}},
        {"presentIntervalMs", {{"median", m_intervals.GetQuantile(kMedian)}}},
        {"peakFramesInFlight", m_peakInFlight},
        {"redraws", m_frames},
        {"deviceLosses", m_losses},
        {"clip", MakeClipJson(setting.clip)},
        {"idlePools", MakePoolJson(device)}};
    return DumpJson(json);
}

} // namespace Norvex::App
