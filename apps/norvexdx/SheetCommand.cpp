#include "apps/norvexdx/SheetCommand.h"

#include <cmath>

#include <fmt/format.h>

#include "apps/norvexdx/Console.h"
#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/ImageFile.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/OutputFile.h"
#include "apps/norvexdx/PictureDrawer.h"
#include "apps/norvexdx/Report.h"
#include "apps/norvexdx/Stopwatch.h"

namespace Norvex::App {

namespace {

class Grid {
public:
    explicit Grid(const SheetOptions& options)
        : m_cell(options.cell),
          m_gap(static_cast<long>(options.gap)),
          m_columns(options.columns ? static_cast<long>(*options.columns)
                                    : GetSquareColumns(options.inputs.size())),
          m_rows((static_cast<long>(options.inputs.size()) + m_columns - 1) / m_columns) {}

    DX::Size2DT<long> GetSize() const {
        return {m_gap + m_columns * (m_cell.width + m_gap),
                m_gap + m_rows * (m_cell.height + m_gap)};
    }

    DX::Rect2DT<long> GetCell(std::size_t index) const {
        const long column = static_cast<long>(index) % m_columns;
        const long row = static_cast<long>(index) / m_columns;
        const long left = m_gap + column * (m_cell.width + m_gap);
        const long top = m_gap + row * (m_cell.height + m_gap);
        return {left, top, left + m_cell.width, top + m_cell.height};
    }

private:
    static long GetSquareColumns(std::size_t count) {
        return std::lround(std::ceil(std::sqrt(static_cast<double>(count))));
    }

    DX::Size2DT<long> m_cell;
    long m_gap;
    long m_columns;
    long m_rows;
};

// To sRGB, over the sheet's background. The linear spaces cannot be decoded; such pictures are
// drawn as they are.
Proc::ColorAlphaConversionInfo MakeConversion(const Image& image) {
    Proc::ColorAlphaConversionInfo info;
    info.source = image.colorSpace.value_or(info.target);
    if (info.source.transfer == Conf::TransferCharacteristics::Linear) {
        info.source = info.target;
    }
    info.sourcePeakLuminance = info.referenceWhite; // nothing is known of highlights: they clip
    info.targetAlpha = Proc::AlphaType::Premultiplied;
    return info;
}

void CheckSize(const DX::Size2DT<long>& size) {
    if (size.width > static_cast<long>(kMaxDimension) ||
        size.height > static_cast<long>(kMaxDimension)) {
        throw Failure(fmt::format("a sheet of {} x {} pixels is larger than the device takes "
                                  "({} x {}): use fewer pictures or a smaller --cell",
                                  size.width, size.height, kMaxDimension, kMaxDimension));
    }
}

} // namespace

void RunSheet(const SheetOptions& options) {
    const std::filesystem::path output = PathFromUtf8(options.output);
    CheckOutputPlace(output);
    const Grid grid(options);
    CheckSize(grid.GetSize());
    const GraphicsDevice graphics = GraphicsDevice::Open(options.adapter);
    PictureDrawer drawer(graphics, {}, true);
    Canvas canvas(graphics, grid.GetSize(), 8);

    PictureReport report;
    std::optional<Proc::ColorF> background = options.background;
    background->a = 1.0F; // the sheet is opaque
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        const Image image = ReadImage(PathFromUtf8(options.inputs[i]));
        const auto source = UploadImage(graphics, image);
        report.times.draw +=
            drawer.Draw(source, canvas, MakeConversion(image), grid.GetCell(i), background).drawMs;
        background.reset();
    }
    const Stopwatch readback;
    Image image = canvas.Download();
    report.times.readback = readback.GetMilliseconds();
    image.colorSpace = Conf::RGBColorSpace{};
    const Stopwatch encode;
    WriteImage(output, image);
    report.times.encode = encode.GetMilliseconds();

    report.output = options.output;
    report.width = image.width;
    report.height = image.height;
    report.targetFormat = canvas.GetFormat();
    const RunReport run = {graphics, drawer.GetShaderCompilationMs()};
    Console::Print(options.json ? MakeDrawJson(run, report) : MakeConvertText(run, {report}));
}

} // namespace Norvex::App
