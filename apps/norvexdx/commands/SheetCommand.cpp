#include "apps/norvexdx/commands/SheetCommand.h"

#include <cmath>

#include <fmt/format.h>

#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/pictures/CanvasFile.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"

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
    const auto graphics = Graphics::Open(options.graphics, DrawKind::Over, &Console::PrintMessage);
    const auto canvas = graphics->MakeCanvas(grid.GetSize(), 8);

    PictureReport report;
    std::optional<Proc::ColorF> background = options.background;
    background->a = 1.0F; // the sheet is opaque
    for (std::size_t i = 0; i < options.inputs.size(); ++i) {
        const Image image = ReadImage(PathFromUtf8(options.inputs[i]));
        const auto source = graphics->Upload(image);
        const auto drawn = graphics->Draw(
            *source, *canvas, {{}, MakeConversion(image), grid.GetCell(i), background, true});
        report.times.draw += drawn.drawMs;
        background.reset();
    }
    WriteCanvas(*canvas, output, Conf::RGBColorSpace{}, report);
    Console::Print(options.json ? MakeDrawJson(*graphics, report)
                                : MakeConvertText(*graphics, {report}));
}

} // namespace Norvex::App
