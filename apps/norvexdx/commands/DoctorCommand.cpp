#include "apps/norvexdx/commands/DoctorCommand.h"

#include <algorithm>
#include <functional>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3D11Device.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "apps/norvexdx/commands/InfoReport.h"
#include "apps/norvexdx/console/Arguments.h"
#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/doctor/ConversionCheck.h"
#include "apps/norvexdx/doctor/FrameCheck.h"
#include "apps/norvexdx/doctor/MissingParts.h"
#include "apps/norvexdx/doctor/StressCheck.h"
#include "apps/norvexdx/doctor/SystemReport.h"

namespace Norvex::App {

namespace {

struct Finding {
    bool isRight = true;
    std::string text;
    Json details = nullptr;
};

// A failure is a finding.
void Examine(Json& report, const std::string& name, const std::function<Finding()>& check) {
    const Stopwatch stopwatch;
    Finding finding;
    try {
        finding = check();
    } catch (...) {
        finding = {false, DescribeFailure(std::current_exception()).line, nullptr};
    }
    report["checks"].push_back({{"name", name},
                                {"right", finding.isRight},
                                {"text", finding.text},
                                {"ms", stopwatch.GetMilliseconds()},
                                {"details", finding.details}});
}

Finding ExamineConversions(Graphics& graphics) {
    const auto errors = CheckConversions(graphics);
    Json rows = Json::array();
    for (const ConversionError& error : errors) {
        rows.push_back({{"from", GetColorSpaceName(error.from)},
                        {"to", GetColorSpaceName(error.to)},
                        {"largestError", error.largest},
                        {"allowed", error.allowed},
                        {"right", error.IsRight()}});
    }
    const auto wrong =
        std::ranges::count_if(errors, [](const auto& error) { return !error.IsRight(); });
    const auto worst = std::ranges::max_element(
        errors, {}, [](const ConversionError& error) { return error.largest / error.allowed; });
    return {wrong == 0,
            fmt::format("{} of {} pairs are right; the worst, {} to {}, is off by {:.1f} of 65535, "
                        "allowed {:.0f}",
                        errors.size() - static_cast<std::size_t>(wrong), errors.size(),
                        GetColorSpaceName(worst->from), GetColorSpaceName(worst->to),
                        worst->largest, worst->allowed),
            std::move(rows)};
}

const char* GetAlphaName(Proc::AlphaType alpha) {
    switch (alpha) {
    case Proc::AlphaType::NonPremultiplied:
        return "straight";
    case Proc::AlphaType::Premultiplied:
        return "premultiplied";
    default:
        return "one";
    }
}

Finding ExamineYCbCr(const Graphics& graphics) {
    std::vector<YCbCrError> errors;
    try {
        errors = CheckYCbCr(graphics);
    } catch (const Failure& failure) { // what the adapter cannot do is not wrong
        return {true, std::string("not examined: ") + failure.what()};
    }
    Json rows = Json::array();
    for (const YCbCrError& error : errors) {
        rows.push_back({{"format", error.format.name},
                        {"matrix", GetMatrixName(error.matrix)},
                        {"alpha", GetAlphaName(error.alpha)},
                        {"planar", error.isPlanar},
                        {"largestError", error.largest},
                        {"allowed", error.allowed},
                        {"right", error.IsRight()}});
    }
    const auto right = std::ranges::count_if(errors, &YCbCrError::IsRight);
    const auto worst = std::ranges::max_element(
        errors, {}, [](const YCbCrError& error) { return error.largest / error.allowed; });
    return {right == std::ssize(errors),
            fmt::format("{} of {} are right; the worst, {} by {} with {} alpha, is off by {:.1f} "
                        "of {}, allowed {:.1f}",
                        right, errors.size(), worst->format.name, GetMatrixName(worst->matrix),
                        GetAlphaName(worst->alpha), worst->largest,
                        worst->format.bits == 8 ? 255 : 65535, worst->allowed),
            std::move(rows)};
}

Finding ExamineFrames(const std::function<std::vector<FrameError>()>& check) {
    std::vector<FrameError> errors;
    try {
        errors = check();
    } catch (const Failure& failure) { // what the adapter cannot do is not wrong
        return {true, std::string("not examined: ") + failure.what()};
    }
    Json rows = Json::array();
    for (const FrameError& error : errors) {
        rows.push_back({{"from", error.from},
                        {"to", error.to},
                        {"largestError", error.largest},
                        {"allowed", error.allowed},
                        {"psnr", error.psnr},
                        {"right", error.IsRight()}});
    }
    const auto right = std::ranges::count_if(errors, &FrameError::IsRight);
    const auto worst = std::ranges::max_element(
        errors, {}, [](const FrameError& error) { return error.largest / error.allowed; });
    return {right == std::ssize(errors),
            fmt::format("{} of {} are right; the worst, {} to {}, is off by {:.3f}, allowed {:.2f}",
                        right, errors.size(), worst->from, worst->to, worst->largest,
                        worst->allowed),
            std::move(rows)};
}

Finding ExamineStress(Graphics& graphics, unsigned seconds) {
    const StressResult result = RunStress(graphics, seconds);
    return {result.wrong == 0, fmt::format("{} pictures on {} threads, {} wrong", result.pictures,
                                           result.threads, result.wrong)};
}

Json MakeMemoryJson(const std::optional<DX::VideoMemory>& memory) {
    return memory ? Json{{"budget", memory->budget}, {"usage", memory->usage}} : Json(nullptr);
}

Json MakeCountsJson(const DX::PoolStatistics& pool) {
    return {{"inUse", pool.inUse},
            {"idle", pool.idle},
            {"bytesInUse", pool.bytesInUse},
            {"bytesIdle", pool.bytesIdle}};
}

Json MakeStatisticsJson(const DX::DeviceStatistics& statistics) {
    return {{"references", statistics.references},
            {"localMemory", MakeMemoryJson(statistics.localMemory)},
            {"systemMemory", MakeMemoryJson(statistics.systemMemory)}};
}

// Nothing is drawn meanwhile, so that nothing is in use but by the device's own objects.
Finding ExamineStatistics(const Graphics& graphics) {
    Graphics::WaitUntilReleased();
    const DX::D3Device& device = graphics.GetDevice();
    Json json;
    if (const auto* d12 = dynamic_cast<const DX::D12Device*>(&device)) {
        const DX::D12DeviceStatistics statistics = d12->GetStatistics();
        json = MakeStatisticsJson(statistics);
        json["uploadBuffers"] = MakeCountsJson(statistics.uploadBuffers);
        json["readbackBuffers"] = MakeCountsJson(statistics.readbackBuffers);
        json["descriptorHeaps"] = MakeCountsJson(statistics.descriptorHeaps);
        json["queryHeaps"] = MakeCountsJson(statistics.queryHeaps);
        json["commandAllocators"] = MakeCountsJson(statistics.commandAllocators);
        json["commandLists"] = MakeCountsJson(statistics.commandLists);
    } else {
        json = MakeStatisticsJson(dynamic_cast<const DX::D11Device&>(device).GetStatistics());
    }
    constexpr double kMiB = 1 << 20;
    const Json& memory = json["localMemory"];
    return {true,
            memory.is_null() ? "the system tells no budget"
                             : fmt::format("{:.0f} MiB of a budget of {:.0f} MiB are used",
                                           memory["usage"].get<double>() / kMiB,
                                           memory["budget"].get<double>() / kMiB),
            std::move(json)};
}

void ExamineGeneration(Json& report, ApiChoice api, const DoctorOptions& options) {
    const std::string name = api == ApiChoice::Direct3D12 ? "Direct3D 12" : "Direct3D 11";
    std::unique_ptr<Graphics> graphics;
    Examine(report, name, [&]() -> Finding {
        graphics = Graphics::Open({api, options.graphics.adapter}, DrawKind::Replace,
                                  [](std::string_view) {});
        return {true, fmt::format("level {}; made in {:.0f} ms, shaders compiled in {:.0f} ms",
                                  graphics->GetDevice().GetLevelName(), graphics->GetCreationMs(),
                                  graphics->GetShaderCompilationMs())};
    });
    if (graphics == nullptr) {
        return;
    }
    Examine(report, name + ", conversions", [&] { return ExamineConversions(*graphics); });
    Examine(report, name + ", Y'CbCr", [&] { return ExamineYCbCr(*graphics); });
    Examine(report, name + ", frames",
            [&] { return ExamineFrames([&] { return CheckFrames(*graphics); }); });
    Examine(report, name + ", scaler",
            [&] { return ExamineFrames([&] { return CheckScaler(*graphics); }); });
    if (options.stressSeconds != 0) {
        Examine(report, name + ", stress",
                [&] { return ExamineStress(*graphics, options.stressSeconds); });
    }
    Examine(report, name + ", memory", [&] { return ExamineStatistics(*graphics); });
}

// Whether the adapter has the generation, as far as is known.
bool HasGeneration(const Json& report, unsigned adapter, const char* api) {
    if (!report.contains("info") || adapter >= report["info"]["adapters"].size()) {
        return true;
    }
    const Json& devices = report["info"]["adapters"][adapter]["devices"];
    return std::ranges::any_of(devices, [&](const Json& device) {
        return device["api"] == api && !device.contains("error");
    });
}

// What is missing is not wrong, unless nothing is left to draw with.
void ExamineGenerations(Json& report, const DoctorOptions& options) {
    const auto& [api, adapter] = options.graphics;
    const bool hasDirect3D12 = HasGeneration(report, adapter, "d3d12");
    if (api == ApiChoice::Direct3D12 || (api == ApiChoice::Auto && hasDirect3D12)) {
        ExamineGeneration(report, ApiChoice::Direct3D12, options);
    }
    if (api == ApiChoice::Direct3D11 ||
        (api == ApiChoice::Auto && (!hasDirect3D12 || HasGeneration(report, adapter, "d3d11")))) {
        ExamineGeneration(report, ApiChoice::Direct3D11, options);
    }
}

// Objects are remembered from the first on; a host's, in whose process this runs, came before.
bool RequestDebugMode() {
    try {
        DX::EnableDebugMode();
        return true;
    } catch (const DX::DirectXException&) {
        return false;
    }
}

Finding ExamineLiveObjects(bool isDebugMode) {
    Graphics::WaitUntilReleased();
    if (!isDebugMode) {
        return {true, "not examined: objects were made before"};
    }
    const std::string text = DX::DescribeLiveObjects();
    const bool isNone = text.starts_with("0 ");
    return {isNone, isNone ? "none is left" : text.substr(0, text.find('\n')), text};
}

Json MakeReport(const DoctorOptions& options) {
    const bool isDebugMode = RequestDebugMode();
    Json report = {{"healthy", false},
                   {"program", NORVEXDX_VERSION},
                   {"library", DX::GetVersionString()},
                   {"system", nullptr},
                   {"info", nullptr},
                   {"missing", Json::array()},
                   {"checks", Json::array()}};
    Examine(report, "adapters", [&]() -> Finding {
        report["info"] = MakeInfoJson();
        report["missing"] = FindMissingParts(report["info"], options.graphics.adapter);
        return {true, fmt::format("{} found", report["info"]["adapters"].size())};
    });
    ExamineGenerations(report, options);
    Examine(report, "live objects", [&] { return ExamineLiveObjects(isDebugMode); });
    Examine(report, "system", [&]() -> Finding {
        report["system"] = MakeSystemJson(); // now that all DLLs are loaded
        return {true, MakeSystemText(report["system"])};
    });
    report["healthy"] = std::ranges::all_of(
        report["checks"], [](const Json& check) { return check["right"].get<bool>(); });
    return report;
}

std::string MakeShortAdapterText(const Json& adapter) {
    std::string text = fmt::format("adapter {}: {}, driver {}\n", adapter["index"].get<unsigned>(),
                                   adapter["name"].get<std::string>(),
                                   adapter["driverVersion"].get<std::string>());
    for (const Json& output : adapter["outputs"]) {
        text += "  " + MakeOutputText(output) + "\n";
    }
    return text;
}

std::string MakeDetailsText(const Json& check) {
    const Json& details = check["details"];
    if (details.is_string()) {
        return details.get<std::string>() + "\n";
    }
    if (!details.is_array()) {
        return details.is_null() ? std::string() : DumpJson(details);
    }
    std::string text;
    std::size_t width = 0;
    for (const Json& row : details) {
        width = std::max(width, row.value("from", std::string("premultiplied")).size());
    }
    for (const Json& row : details) {
        const bool isYCbCr = row.contains("matrix");
        const auto from = row[isYCbCr ? "alpha" : "from"].get<std::string>();
        const auto to =
            isYCbCr ? row["format"].get<std::string>() + " " + row["matrix"].get<std::string>()
                    : row["to"].get<std::string>();
        text += fmt::format("    {:<{}} to {:<{}} {:>8.2f} of {:>5.2f}{}{}\n", from, width, to,
                            width, row["largestError"].get<double>(), row["allowed"].get<double>(),
                            row.contains("psnr")
                                ? fmt::format(", PSNR {:.1f} dB", row["psnr"].get<double>())
                                : std::string(),
                            row["right"].get<bool>() ? "" : "  WRONG");
    }
    return text;
}

std::string MakeText(const Json& report, bool hasDetails) {
    std::string text =
        fmt::format("norvexdx {}, library {}\n", report["program"].get<std::string>(),
                    report["library"].get<std::string>());
    const Json& info = report["info"];
    if (!info.is_null() && hasDetails) {
        text += MakeInfoText(info);
    } else if (!info.is_null()) {
        for (const Json& adapter : info["adapters"]) {
            text += MakeShortAdapterText(adapter);
        }
    }
    if (hasDetails && !report["system"].is_null()) {
        for (const auto& [module, version] : report["system"]["modules"].items()) {
            text += module + " " + version.get<std::string>() + "\n";
        }
    }
    for (const Json& part : report["missing"]) {
        text += fmt::format("missing: {}: {}\n", part["what"].get<std::string>(),
                            part["cost"].get<std::string>());
    }
    for (const Json& check : report["checks"]) {
        text += fmt::format("{} {}: {}\n", check["right"].get<bool>() ? "right" : "WRONG",
                            check["name"].get<std::string>(), check["text"].get<std::string>());
        text += hasDetails ? MakeDetailsText(check) : "";
    }
    return text + (report["healthy"].get<bool>() ? "healthy\n" : "NOT healthy\n");
}

} // namespace

ExitCode RunDoctor(const DoctorOptions& options) {
    const Json report = MakeReport(options);
    Console::Print(options.json ? DumpJson(report) : MakeText(report, options.details));
    const auto wrong = std::ranges::find_if(
        report["checks"], [](const Json& check) { return !check["right"].get<bool>(); });
    if (wrong == report["checks"].end()) {
        return ExitCode::Success;
    }
    Console::PrintMessage(fmt::format("not healthy: {}: {}", (*wrong)["name"].get<std::string>(),
                                      (*wrong)["text"].get<std::string>()));
    return ExitCode::Failure;
}

} // namespace Norvex::App
