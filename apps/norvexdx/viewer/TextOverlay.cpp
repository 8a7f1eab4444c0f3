#include "apps/norvexdx/viewer/TextOverlay.h"

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"
#include "apps/norvexdx/console/Failure.h"

namespace Norvex::App {

namespace {

constexpr int kPoints = 11;
constexpr int kPointsPerInch = 72;
constexpr LONG kMargin = 8;         // pixels
constexpr unsigned kDarkness = 160; // of 255: the black behind the text

struct DeleteHandle {
    void operator()(HGDIOBJ object) const { DeleteObject(object); }
};
template <class Handle>
using Owned = std::unique_ptr<std::remove_pointer_t<Handle>, DeleteHandle>;

template <class Handle>
Handle Check(Handle handle) {
    if (handle == nullptr) {
        throw Failure("the system cannot draw text");
    }
    return handle;
}

// A drawing context in memory with a font.
class TextDrawer {
public:
    explicit TextDrawer(unsigned dotsPerInch)
        : m_context(Check(CreateCompatibleDC(nullptr))),
          m_font(Check(CreateFontW(-MulDiv(kPoints, static_cast<int>(dotsPerInch), kPointsPerInch),
                                   0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                                   OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, ANTIALIASED_QUALITY,
                                   FIXED_PITCH | FF_MODERN, L"Consolas"))),
          m_oldFont(SelectObject(m_context.get(), m_font.get())) {}
    ~TextDrawer() {
        SelectObject(m_context.get(), m_oldFont);
        if (m_oldBitmap != nullptr) {
            SelectObject(m_context.get(), m_oldBitmap);
        }
    }
    TextDrawer(const TextDrawer&) = delete;
    TextDrawer& operator=(const TextDrawer&) = delete;

    SIZE Measure(const std::wstring& text) {
        RECT rect = {};
        DrawTextW(m_context.get(), text.c_str(), static_cast<int>(text.size()), &rect,
                  DT_CALCRECT | DT_NOPREFIX);
        return {rect.right, rect.bottom};
    }

    // White on black, 4 bytes a pixel; valid as long as this object.
    const std::uint8_t* Draw(const std::wstring& text, const SIZE& size) {
        BITMAPINFO info = {};
        info.bmiHeader.biSize = sizeof(info.bmiHeader);
        info.bmiHeader.biWidth = size.cx;
        info.bmiHeader.biHeight = -size.cy; // from top to bottom
        info.bmiHeader.biPlanes = 1;
        info.bmiHeader.biBitCount = 32;
        void* pixels = nullptr;
        m_bitmap.reset(
            Check(CreateDIBSection(m_context.get(), &info, DIB_RGB_COLORS, &pixels, nullptr, 0)));
        m_oldBitmap = SelectObject(m_context.get(), m_bitmap.get());
        SetTextColor(m_context.get(), RGB(255, 255, 255));
        SetBkMode(m_context.get(), TRANSPARENT);
        RECT rect = {kMargin, kMargin, size.cx - kMargin, size.cy - kMargin};
        DrawTextW(m_context.get(), text.c_str(), static_cast<int>(text.size()), &rect, DT_NOPREFIX);
        GdiFlush();
        return static_cast<const std::uint8_t*>(pixels);
    }

private:
    struct DeleteContext {
        void operator()(HDC context) const { DeleteDC(context); }
    };

    std::unique_ptr<std::remove_pointer_t<HDC>, DeleteContext> m_context;
    Owned<HFONT> m_font;
    Owned<HBITMAP> m_bitmap;
    HGDIOBJ m_oldFont;
    HGDIOBJ m_oldBitmap = nullptr;
};

} // namespace

Image RenderText(std::string_view text, unsigned dotsPerInch) {
    const std::wstring wide = Core::WstringFromUtf8(text);
    TextDrawer drawer(dotsPerInch);
    SIZE size = drawer.Measure(wide);
    size.cx += 2 * kMargin;
    size.cy += 2 * kMargin;
    const std::uint8_t* drawn = drawer.Draw(wide, size);

    Image image = Image::Make({size.cx, size.cy}, 8);
    for (std::size_t i = 0; i < image.pixels.size(); i += Image::kChannels) {
        const unsigned coverage = drawn[i]; // equal in all channels
        std::fill_n(image.pixels.begin() + static_cast<std::ptrdiff_t>(i), 3, drawn[i]);
        image.pixels[i + 3] =
            static_cast<std::uint8_t>(coverage + (255 - coverage) * kDarkness / 255);
    }
    return image;
}

} // namespace Norvex::App
