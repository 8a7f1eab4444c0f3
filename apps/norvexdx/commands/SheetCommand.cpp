#include "apps/norvexdx/commands/SheetCommand.h"

#include <algorithm>
#include <cmath>
#include <span>

#include <fmt/format.h>

#include "apps/norvexdx/console/Console.h"
#include "apps/norvexdx/console/Failure.h"
#include "apps/norvexdx/console/Stopwatch.h"
#include "apps/norvexdx/pictures/CanvasFile.h"
#include "apps/norvexdx/pictures/ImageFile.h"
#include "apps/norvexdx/pictures/InputFile.h"
#include "apps/norvexdx/pictures/OutputFile.h"
#include "apps/norvexdx/viewer/TextOverlay.h"

namespace Norvex::App {

namespace {

using SheetRect = DX::Rect2DT<long>;

long CountColumns(const SheetOptions& options) {
    const auto count = static_cast<double>(options.inputs.size());
    return options.columns ? static_cast<long>(*options.columns)
                           : std::lround(std::ceil(std::sqrt(count)));
}

double GetShape(const DX::Size2DT<long>& size) {
    return static_cast<double>(size.width) / static_cast<double>(size.height);
}

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

void CheckSheetSize(const DX::Size2DT<long>& size) {
    if (size.width > static_cast<long>(kMaxDimension) ||
        size.height > static_cast<long>(kMaxDimension)) {
        throw Failure(fmt::format("a sheet of {} x {} pixels is larger than the device takes "
                                  "({} x {}): use fewer pictures or a smaller --cell",
                                  size.width, size.height, kMaxDimension, kMaxDimension));
    }
}

// The rows are drawn one after the other, so that only one row's pictures are in memory.
class Sheet {
public:
    Sheet(const SheetOptions& options, Graphics& graphics)
        : m_options(options),
          m_graphics(graphics),
          m_columns(CountColumns(options)),
          m_gap(static_cast<long>(options.gap)),
          m_width(m_gap + m_columns * (options.cell.width + m_gap)) {
        CheckSheetSize({m_width, 1});
        m_background.a = 1.0F; // the sheet is opaque
    }

    Image Draw(PictureReport& report) {
        Image sheet = Image::Make({m_width, 0}, 8);
        const std::span<const std::string> files = m_options.inputs;
        const auto columns = static_cast<std::size_t>(m_columns);
        for (std::size_t first = 0; first < files.size(); first += columns) {
            const auto row = files.subspan(first, std::min(columns, files.size() - first));
            const long below = first + row.size() == files.size() ? m_gap : 0;
            Image drawn = DrawRow(row, below, report);
            CheckSheetSize({m_width, sheet.GetSize().height + drawn.GetSize().height});
            sheet.height += drawn.height;
            sheet.pixels.insert(sheet.pixels.end(), drawn.pixels.begin(), drawn.pixels.end());
        }
        return sheet;
    }

private:
    // Side by side, as high as lets them fill the width; places that the last row leaves empty
    // count as pictures of a cell's shape.
    std::vector<SheetRect> LayOut(const std::vector<Image>& images) const {
        const auto missing = static_cast<double>(m_columns) - static_cast<double>(images.size());
        double shapes = missing * GetShape(m_options.cell);
        for (const Image& image : images) {
            shapes += GetShape(image.GetSize());
        }
        const double height = static_cast<double>(m_columns * m_options.cell.width) / shapes;
        std::vector<SheetRect> places;
        double right = 0.0; // without gaps
        long gaps = 0;
        for (const Image& image : images) {
            gaps += m_gap;
            const long left = gaps + std::lround(right);
            right += height * GetShape(image.GetSize());
            places.push_back({left, m_gap, std::max(left + 1, gaps + std::lround(right)),
                              m_gap + std::max(1L, std::lround(height))});
        }
        return places;
    }

    Image DrawRow(std::span<const std::string> files, long below, PictureReport& report) {
        std::vector<Image> images;
        std::vector<Image> captions;
        long captionHeight = 0;
        for (const std::string& file : files) {
            images.push_back(ReadImage(PathFromUtf8(file)));
            captions.push_back(
                RenderText(Utf8FromPath(PathFromUtf8(file).filename()), USER_DEFAULT_SCREEN_DPI));
            captionHeight = std::max(captionHeight, captions.back().GetSize().height);
        }
        const std::vector<SheetRect> places = LayOut(images);
        const long height = places.front().bottom + captionHeight + below;
        CheckSheetSize({m_width, height});
        const auto canvas = m_graphics.MakeCanvas({m_width, height}, 8);
        report.targetFormat = canvas->GetFormat();
        std::optional<Proc::ColorF> background = m_background;
        for (std::size_t i = 0; i < images.size(); ++i) {
            report.times.draw += DrawOn(*canvas, images[i], DX::RenderFitMode::Fill, places[i],
                                        MakeConversion(images[i]), background);
            background.reset();
            DrawCaption(*canvas, captions[i], places[i]);
        }
        const Stopwatch readback;
        Image row = canvas->Download();
        report.times.readback += readback.GetMilliseconds();
        return row;
    }

    // Below the picture, not wider than it is.
    void DrawCaption(const Canvas& canvas, const Image& caption, const SheetRect& place) {
        const DX::Size2DT<long> size = caption.GetSize();
        Proc::ColorAlphaConversionInfo premultiplied;
        premultiplied.sourceAlpha = Proc::AlphaType::Premultiplied;
        premultiplied.targetAlpha = Proc::AlphaType::Premultiplied;
        DrawOn(canvas, caption, DX::RenderFitMode::Fit,
               {place.left, place.bottom, std::min(place.right, place.left + size.width),
                place.bottom + size.height},
               premultiplied, std::nullopt);
    }

    // Milliseconds of the device's.
    double DrawOn(const Canvas& canvas, const Image& image, DX::RenderFitMode fit,
                  const SheetRect& rect, const Proc::ColorAlphaConversionInfo& conversion,
                  const std::optional<Proc::ColorF>& background) {
        View view;
        view.fit = fit;
        const auto source = m_graphics.Upload(image);
        return m_graphics.Draw(*source, canvas, {view, conversion, rect, background, true}).drawMs;
    }

    const SheetOptions& m_options;
    Graphics& m_graphics;
    Proc::ColorF m_background = m_options.background;
    long m_columns;
    long m_gap;
    long m_width;
};

} // namespace

void RunSheet(const SheetOptions& options) {
    const std::filesystem::path output = PathFromUtf8(options.output);
    CheckOutputPlace(output);
    const auto graphics = Graphics::Open(options.graphics, DrawKind::Over, &Console::PrintMessage);
    PictureReport report;
    const Image sheet = Sheet(options, *graphics).Draw(report);
    WriteReported(sheet.GetView(), output, Conf::RGBColorSpace{}, report);
    Console::Print(options.json ? MakeDrawJson(*graphics, report)
                                : MakeConvertText(*graphics, {report}));
}

} // namespace Norvex::App
