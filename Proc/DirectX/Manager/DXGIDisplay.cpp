#include "Proc/DirectX/Manager/DXGIDisplay.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "Host/Strings.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"

namespace Norvex::DX {

namespace {

using ConfigPath = DISPLAYCONFIG_PATH_INFO;

constexpr std::pair<DisplayField, const char*> kFieldNames[] = {
    {DisplayField::Name, "name"},
    {DisplayField::Area, "area"},
    {DisplayField::HDR, "HDR"},
    {DisplayField::ColorSpace, "colour space"},
    {DisplayField::Primaries, "primaries"},
    {DisplayField::Luminance, "luminance"},
    {DisplayField::Bits, "bits"},
    {DisplayField::RefreshRate, "refresh rate"},
    {DisplayField::SDRWhite, "SDR white"},
};

constexpr std::pair<DisplayChangeReason, const char*> kReasonNames[] = {
    {DisplayChangeReason::OtherMonitor, "another monitor"},
    {DisplayChangeReason::NoMonitor, "no monitor"},
    {DisplayChangeReason::Mode, "mode"},
    {DisplayChangeReason::Settings, "settings"},
    {DisplayChangeReason::FactoryOutdated, "adapters or outputs"},
};

std::int64_t GetOverlap(const RECT& a, const RECT& b) {
    const std::int64_t width =
        std::int64_t{std::min(a.right, b.right)} - std::int64_t{std::max(a.left, b.left)};
    const std::int64_t height =
        std::int64_t{std::min(a.bottom, b.bottom)} - std::int64_t{std::max(a.top, b.top)};
    return std::max<std::int64_t>(width, 0) * std::max<std::int64_t>(height, 0);
}

// The output of the hardware adapters for which rate(description) is the highest, the first of
// equals; null when there is none, or only with a negative one.
template <class Rate>
CComPtr<IDXGIOutput> FindBest(DXGIFactory& factory, const Rate& rate) {
    std::vector<DXGIAdapter> adapters;
    factory.EnumerateAdapters(adapters, true);
    CComPtr<IDXGIOutput> best;
    std::int64_t bestRate = -1;
    for (const DXGIAdapter& adapter : adapters) {
        for (UINT i = 0;; ++i) {
            CComPtr<IDXGIOutput> output;
            DXGI_OUTPUT_DESC desc = {};
            if (FAILED(adapter.Get()->EnumOutputs(i, &output)) || FAILED(output->GetDesc(&desc))) {
                break;
            }
            if (const std::int64_t rated = rate(desc); rated > bestRate) {
                best = output;
                bestRate = rated;
            }
        }
    }
    return best;
}

template <std::size_t size>
std::string TextOf(const wchar_t (&text)[size]) {
    const std::wstring_view all(text, size);
    return Core::Utf8FromWstring(all.substr(0, all.find(L'\0')));
}

// Empty where the system does not tell, as in a remote session.
std::vector<ConfigPath> GetActivePaths() {
    constexpr int kTries = 4; // the configuration may change between the two calls
    for (int i = 0; i < kTries; ++i) {
        UINT32 pathCount = 0;
        UINT32 modeCount = 0;
        if (GetDisplayConfigBufferSizes(QDC_ONLY_ACTIVE_PATHS, &pathCount, &modeCount) !=
            ERROR_SUCCESS) {
            break;
        }
        std::vector<ConfigPath> paths(pathCount);
        std::vector<DISPLAYCONFIG_MODE_INFO> modes(modeCount);
        const long result = QueryDisplayConfig(QDC_ONLY_ACTIVE_PATHS, &pathCount, paths.data(),
                                               &modeCount, modes.data(), nullptr);
        if (result == ERROR_SUCCESS) {
            paths.resize(pathCount);
            return paths;
        }
        if (result != ERROR_INSUFFICIENT_BUFFER) {
            break;
        }
    }
    return {};
}

// What the system answers about a source or a target of a path.
template <class Answer, class Device>
std::optional<Answer> Ask(DISPLAYCONFIG_DEVICE_INFO_TYPE type, const Device& device) {
    Answer answer = {};
    answer.header.type = type;
    answer.header.size = sizeof(answer);
    answer.header.adapterId = device.adapterId;
    answer.header.id = device.id;
    return DisplayConfigGetDeviceInfo(&answer.header) == ERROR_SUCCESS ? std::optional(answer)
                                                                       : std::nullopt;
}

// The first path from that part of the desktop; a second one shows the same.
std::optional<ConfigPath> FindPath(const std::string& name) {
    for (const ConfigPath& path : GetActivePaths()) {
        const auto source = Ask<DISPLAYCONFIG_SOURCE_DEVICE_NAME>(
            DISPLAYCONFIG_DEVICE_INFO_GET_SOURCE_NAME, path.sourceInfo);
        if (source && TextOf(source->viewGdiDeviceName) == name) {
            return path;
        }
    }
    return std::nullopt;
}

// Whole Hz; 0 where the system does not tell, as which 1 counts too.
double GetModeRate(const wchar_t* name) {
    DEVMODEW mode = {};
    mode.dmSize = sizeof(mode);
    const bool isTold = EnumDisplaySettingsW(name, ENUM_CURRENT_SETTINGS, &mode) != FALSE &&
                        mode.dmDisplayFrequency > 1;
    return isTold ? mode.dmDisplayFrequency : 0.0;
}

void DescribeConfig(DisplayDescription& description) {
    const auto path = FindPath(description.name);
    if (!path) {
        return;
    }
    const auto& rate = path->targetInfo.refreshRate;
    if (rate.Numerator != 0 && rate.Denominator != 0) {
        description.refreshRate = static_cast<double>(rate.Numerator) / rate.Denominator;
    }
    if (const auto target = Ask<DISPLAYCONFIG_TARGET_DEVICE_NAME>(
            DISPLAYCONFIG_DEVICE_INFO_GET_TARGET_NAME, path->targetInfo)) {
        description.monitor = TextOf(target->monitorFriendlyDeviceName);
    }
    const auto white = Ask<DISPLAYCONFIG_SDR_WHITE_LEVEL>(
        DISPLAYCONFIG_DEVICE_INFO_GET_SDR_WHITE_LEVEL, path->targetInfo);
    if (white && white->SDRWhiteLevel != 0) {
        constexpr float kNitsPerUnit = 80.0F / 1000.0F;
        description.sdrWhite = static_cast<float>(white->SDRWhiteLevel) * kNitsPerUnit;
    }
}

void DescribeLight(DisplayDescription& description, const DXGI_OUTPUT_DESC1& desc) {
    const auto point = [](const FLOAT(&xy)[2]) { return Chromaticity{xy[0], xy[1]}; };
    description.isHDR = desc.ColorSpace == DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020;
    description.colorSpace = desc.ColorSpace;
    description.primaries = {point(desc.RedPrimary), point(desc.GreenPrimary),
                             point(desc.BluePrimary), point(desc.WhitePoint)};
    description.minLuminance = desc.MinLuminance;
    description.maxLuminance = desc.MaxLuminance;
    description.maxFullFrameLuminance = desc.MaxFullFrameLuminance;
    description.bitsPerColor = desc.BitsPerColor;
}

bitflags<DisplayField> FindDifferences(const DisplayDescription& a, const DisplayDescription& b) {
    using enum DisplayField;
    bitflags<DisplayField> fields;
    const auto add = [&fields](DisplayField field, bool differs) {
        if (differs) {
            fields |= field;
        }
    };
    add(Name, a.name != b.name || a.monitor != b.monitor);
    add(Area, a.area != b.area);
    add(HDR, a.isHDR != b.isHDR);
    add(ColorSpace, a.colorSpace != b.colorSpace);
    add(Primaries, a.primaries != b.primaries);
    add(Luminance, a.minLuminance != b.minLuminance || a.maxLuminance != b.maxLuminance ||
                       a.maxFullFrameLuminance != b.maxFullFrameLuminance);
    add(Bits, a.bitsPerColor != b.bitsPerColor);
    add(RefreshRate, a.refreshRate != b.refreshRate);
    add(SDRWhite, a.sdrWhite != b.sdrWhite);
    return fields;
}

bitflags<DisplayChangeReason> FindReasons(const bitflags<DisplayField>& fields, bool isGone) {
    using Fields = bitflags<DisplayField>;
    constexpr Fields kMode =
        Fields(DisplayField::Area) | DisplayField::Bits | DisplayField::RefreshRate;
    if (isGone) {
        return fields ? DisplayChangeReason::NoMonitor : bitflags<DisplayChangeReason>();
    }
    if (fields.has(DisplayField::Name)) {
        return DisplayChangeReason::OtherMonitor;
    }
    bitflags<DisplayChangeReason> reasons;
    if (fields.has_any(kMode)) {
        reasons |= DisplayChangeReason::Mode;
    }
    if (fields.has_any(~kMode)) {
        reasons |= DisplayChangeReason::Settings;
    }
    return reasons;
}

template <class Flag, std::size_t count>
std::string JoinNames(const bitflags<Flag>& flags,
                      const std::pair<Flag, const char*> (&names)[count]) {
    std::string text;
    for (const auto& [flag, name] : names) {
        if (flags.has(flag)) {
            text += (text.empty() ? "" : ", ") + std::string(name);
        }
    }
    return text;
}

} // namespace

std::string to_string(const DisplayChange& change) {
    const std::string fields = change ? JoinNames(change.fields, kFieldNames) : "nothing";
    return change.reasons.empty() ? fields
                                  : JoinNames(change.reasons, kReasonNames) + ": " + fields;
}

boost::intrusive_ptr<DXGIDisplay> DXGIDisplay::Create(HWND window) {
    return boost::intrusive_ptr<DXGIDisplay>(new DXGIDisplay(window, nullptr));
}

boost::intrusive_ptr<DXGIDisplay> DXGIDisplay::Create(HMONITOR monitor) {
    return boost::intrusive_ptr<DXGIDisplay>(new DXGIDisplay(nullptr, monitor));
}

DXGIDisplay::DXGIDisplay(HWND window, HMONITOR monitor)
    : m_window(window),
      m_monitor(monitor),
      m_factory(DXGIFactory::Create()),
      m_output(FindOutput()),
      m_description(Describe(m_output)) {}

DXGIDisplay::~DXGIDisplay() = default;

CComPtr<IDXGIOutput> DXGIDisplay::FindOutput() {
    if (m_monitor != nullptr) {
        return FindBest(*m_factory, [this](const DXGI_OUTPUT_DESC& desc) {
            return desc.Monitor == m_monitor ? std::int64_t{0} : std::int64_t{-1};
        });
    }
    RECT window = {};
    GetWindowRect(m_window, &window);
    return FindBest(*m_factory, [&window](const DXGI_OUTPUT_DESC& desc) {
        return GetOverlap(window, desc.DesktopCoordinates);
    });
}

DisplayDescription DXGIDisplay::Describe(IDXGIOutput* output) {
    DisplayDescription description;
    DXGI_OUTPUT_DESC desc = {};
    if (output == nullptr || FAILED(output->GetDesc(&desc))) {
        return description;
    }
    description.name = TextOf(desc.DeviceName);
    description.refreshRate = GetModeRate(desc.DeviceName);
    const RECT& area = desc.DesktopCoordinates;
    description.area = {area.left, area.top, area.right, area.bottom};
    const auto output6 = Platform::Query<IDXGIOutput6>(output);
    DXGI_OUTPUT_DESC1 desc1 = {};
    if (output6 != nullptr && SUCCEEDED(output6->GetDesc1(&desc1))) {
        DescribeLight(description, desc1);
    }
    DescribeConfig(description);
    return description;
}

DisplayChange DXGIDisplay::Update() {
    const bool isOutdated = !m_factory->IsCurrent();
    if (isOutdated) {
        m_factory = DXGIFactory::Create();
    }
    m_output = FindOutput();
    DisplayDescription now = Describe(m_output);
    DisplayChange change;
    change.fields = FindDifferences(m_description, now);
    change.reasons = FindReasons(change.fields, now.name.empty());
    if (isOutdated) {
        change.reasons |= DisplayChangeReason::FactoryOutdated;
    }
    m_description = std::move(now);
    return change;
}

} // namespace Norvex::DX
