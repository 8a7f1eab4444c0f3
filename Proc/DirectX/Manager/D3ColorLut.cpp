#include "Proc/DirectX/Manager/D3ColorLut.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <optional>
#include <source_location>
#include <system_error>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/D3ColorLutEntries.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr unsigned kLeastLutSize = 2;
constexpr unsigned kMostCubeSize = 129;
constexpr unsigned kMostCurveSize = 65536;
constexpr float kLeastLutExtent = 1e-6F; // of a channel's domain

unsigned GetMostLutSize(unsigned dimensions) {
    return dimensions == 3 ? kMostCubeSize : kMostCurveSize;
}

std::size_t CountLutEntries(unsigned dimensions, std::size_t size) {
    return dimensions == 3 ? size * size * size : size;
}

bool HasLutDomain(const D3ColorLut& lut) {
    for (std::size_t i = 0; i < lut.domainMin.size(); ++i) {
        const float extent = lut.domainMax.at(i) - lut.domainMin.at(i);
        if (!std::isfinite(extent) || !(extent >= kLeastLutExtent)) {
            return false;
        }
    }
    return true;
}

// The first word of a text, which is left without it.
std::string_view TakeWord(std::string_view& text) {
    constexpr std::string_view kSpaces = " \t\v\f\r";
    text.remove_prefix(std::min(text.find_first_not_of(kSpaces), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(kSpaces));
    text.remove_prefix(word.size());
    return word;
}

// All of a word; no infinity, and nothing that is no number.
std::optional<float> ParseLutNumber(std::string_view word) {
    double value = 0.0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    const auto number = static_cast<float>(value);
    const bool isWhole = error == std::errc() && end == word.data() + word.size();
    return isWhole && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

class CubeReader {
public:
    // location: who is asked for the table.
    CubeReader(D3ColorLut& lut, const std::source_location& location)
        : m_lut(lut),
          m_location(location) {}

    void Read(std::string_view text) {
        constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
        text.remove_prefix(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
        while (!text.empty()) {
            const std::string_view line = text.substr(0, text.find_first_of("\r\n"));
            text.remove_prefix(line.size());
            // \r\n ends one line.
            text.remove_prefix(text.starts_with("\r\n") ? 2 : text.empty() ? 0 : 1);
            ++m_line;
            ReadLine(line);
        }
        ThrowUnless<DirectXException>(m_lut.size != 0, "Wrong color LUT: there is no size",
                                      m_location);
        if (m_lut.entries.size() != m_count) {
            Throw<DirectXException>(fmt::format("Wrong color LUT: {} rows are expected, {} are "
                                                "there",
                                                m_count, m_lut.entries.size()),
                                    m_location);
        }
    }

private:
    void Check(bool holds, std::string_view words) const {
        if (!holds) {
            Throw<DirectXException>(fmt::format("Wrong color LUT, line {}: {}", m_line, words),
                                    m_location);
        }
    }

    D3ColorLut::Color ReadColor(std::string_view words) const {
        D3ColorLut::Color color = {};
        for (float& channel : color) {
            const auto number = ParseLutNumber(TakeWord(words));
            Check(number.has_value(), "three numbers are expected");
            channel = *number;
        }
        Check(TakeWord(words).empty(), "three numbers are expected");
        return color;
    }

    void ReadSize(unsigned dimensions, std::string_view words) {
        Check(m_lut.size == 0, "the size is given twice");
        const auto number = ParseLutNumber(TakeWord(words)).value_or(0.0F);
        const auto most = static_cast<float>(GetMostLutSize(dimensions));
        Check(number >= static_cast<float>(kLeastLutSize) && number <= most &&
                  number == std::floor(number) && TakeWord(words).empty(),
              fmt::format("the size is not {} to {}", kLeastLutSize, most));
        m_lut.dimensions = dimensions;
        m_lut.size = static_cast<unsigned>(number);
        m_count = CountLutEntries(dimensions, m_lut.size);
        m_lut.entries.reserve(m_count);
    }

    // Two numbers for all channels.
    void ReadRange(std::string_view words) {
        const auto least = ParseLutNumber(TakeWord(words));
        const auto most = ParseLutNumber(TakeWord(words));
        Check(least && most && TakeWord(words).empty(), "two numbers are expected");
        m_lut.domainMin.fill(*least);
        m_lut.domainMax.fill(*most);
    }

    void ReadTitle(std::string_view words) {
        const std::size_t first = words.find('"');
        const std::size_t last = words.rfind('"');
        Check(first < last && last != std::string_view::npos, "a title in quotes is expected");
        m_lut.title = words.substr(first + 1, last - first - 1);
    }

    void ReadRow(std::string_view line) {
        Check(m_lut.size != 0, "a row without a size");
        Check(HasLutDomain(m_lut), "the domain is empty");
        const D3ColorLut::Color color = ReadColor(line);
        Check(m_lut.entries.size() < m_count, "more rows than the size says");
        m_lut.entries.push_back(color);
    }

    void ReadLine(std::string_view line) {
        std::string_view words = line;
        if (TakeWord(words) == "TITLE") {
            ReadTitle(words);
            return;
        }
        line = line.substr(0, line.find('#'));
        words = line;
        const std::string_view word = TakeWord(words);
        if (word.empty()) {
            return;
        }
        if (word == "LUT_1D_SIZE") {
            ReadSize(1, words);
        } else if (word == "LUT_3D_SIZE") {
            ReadSize(3, words);
        } else if (word == "DOMAIN_MIN") {
            m_lut.domainMin = ReadColor(words);
        } else if (word == "DOMAIN_MAX") {
            m_lut.domainMax = ReadColor(words);
        } else if (word == "LUT_1D_INPUT_RANGE" || word == "LUT_3D_INPUT_RANGE") {
            ReadRange(words);
        } else if (ParseLutNumber(word)) {
            ReadRow(line);
        } else {
            const bool isKeyword = word.front() >= 'A' && word.front() <= 'Z';
            Check(!isKeyword, fmt::format("unknown keyword {}", word.substr(0, 40)));
            Check(false, "three numbers are expected");
        }
    }

    D3ColorLut& m_lut;
    std::source_location m_location;
    std::size_t m_line = 0;
    std::size_t m_count = 0; // of rows
};

} // namespace

D3ColorLut D3ColorLut::FromCube(std::string_view text) {
    D3ColorLut lut;
    CubeReader(lut, std::source_location::current()).Read(text);
    lut.Validate();
    return lut;
}

void D3ColorLut::Validate() const {
    ThrowUnless<DirectXException>(dimensions == 1 || dimensions == 3,
                                  "A color LUT has one dimension or three");
    ThrowUnless<DirectXException>(size >= kLeastLutSize && size <= GetMostLutSize(dimensions),
                                  "The size of the color LUT is out of range");
    ThrowUnless<DirectXException>(entries.size() == CountLutEntries(dimensions, size),
                                  "The color LUT has too few or too many entries");
    ThrowUnless<DirectXException>(HasLutDomain(*this), "The domain of the color LUT is empty");
    const auto isFinite = [](const Color& entry) {
        return std::ranges::all_of(entry, [](float channel) { return std::isfinite(channel); });
    };
    ThrowUnless<DirectXException>(std::ranges::all_of(entries, isFinite),
                                  "The color LUT has an entry that is not finite");
}

std::vector<LutQuad> MakeLutQuads(const D3ColorLut& lut) {
    lut.Validate();
    const auto last = static_cast<double>(lut.size - 1);
    const auto& [red, green, blue] = lut.domainMin;
    std::vector<LutQuad> quads = {{red, green, blue, static_cast<float>(lut.size)}, {}};
    quads.reserve(quads.size() + lut.entries.size());
    for (std::size_t i = 0; i < lut.domainMin.size(); ++i) {
        const double extent = double{lut.domainMax.at(i)} - double{lut.domainMin.at(i)};
        quads[1].at(i) = static_cast<float>(last / extent);
    }
    for (const auto& [r, g, b] : lut.entries) {
        quads.push_back({r, g, b, 0.0F});
    }
    return quads;
}

} // namespace Norvex::DX
