#include "Host/ThrowSite.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace Norvex {

namespace {

// Whatever the host's locale is; bytes of UTF-8 are letters.
bool IsWordCharacter(char c) {
    const auto isBetween = [c](char first, char last) { return c >= first && c <= last; };
    return isBetween('a', 'z') || isBetween('A', 'Z') || isBetween('0', '9') || c == '_' ||
           c == '~' || c == '$' || (static_cast<unsigned char>(c) & 0x80) != 0;
}

// Reads a signature from left to right into the components that "::" separates outside all
// brackets: "void Ns::File::Open(int)::<lambda()>" gives Ns, File, Open and a lambda. It stops
// behind the name of the innermost function, before qualifiers and constraints.
class SignatureReader {
public:
    struct Component {
        std::string name;
        bool isLambda = false;
    };

    explicit SignatureReader(std::string_view text) : m_text(text) {}

    std::vector<Component> Read() {
        while (m_at < m_text.size() && ReadNext()) {
        }
        Finish();
        return std::move(m_components);
    }

private:
    bool StartsWith(std::string_view token) const { return m_text.substr(m_at).starts_with(token); }

    // One token. False where the interesting part ends.
    bool ReadNext() {
        const char c = m_text[m_at];
        if (StartsWith("::")) {
            Finish();
            m_at += 2;
        } else if (StartsWith("->")) {
            return false; // a trailing return type
        } else if (c == '(' && IsParameterList()) {
            SkipBrackets();
            return StartsWith("::") || StartsWith("(");
        } else if (StartsWith("(*") || StartsWith("(&")) {
            ++m_at; // the name stands inside the brackets of a returned function pointer
        } else if (c == '(' || c == '<' || c == '[' || c == '{' || c == '`') {
            ReadBracketed();
        } else if (IsWordCharacter(c)) {
            ReadWord();
        } else {
            ++m_at;
        }
        return true;
    }

    // "f(", "f<int>(" and "operator()(", but not "(anonymous namespace)" and not "decltype (".
    bool IsParameterList() const {
        return !m_current.name.empty() && m_text[m_at - 1] != ' ' && m_current.name != "decltype";
    }

    void ReadBracketed() {
        const std::string_view rest = m_text.substr(m_at);
        for (const auto* lambda : {"<lambda", "(lambda", "(anonymous class)", "{lambda"}) {
            if (rest.starts_with(lambda)) {
                m_current.isLambda = true;
            }
        }
        SkipBrackets();
    }

    void ReadWord() {
        const std::size_t start = m_at;
        while (m_at < m_text.size() && IsWordCharacter(m_text[m_at])) {
            ++m_at;
        }
        m_current.name = m_text.substr(start, m_at - start);
        if (m_current.name == "operator") {
            ReadOperator();
        }
    }

    // The rest of an operator's name, up to its parameter list.
    void ReadOperator() {
        SkipSpaces();
        if (StartsWith("()")) {
            m_current.name += "()";
            m_at += 2;
            return;
        }
        const std::size_t start = m_at;
        const bool isSymbol = m_at < m_text.size() && !IsWordCharacter(m_text[m_at]);
        while (m_at < m_text.size() && m_text[m_at] != '(' && !(isSymbol && m_text[m_at] == ' ')) {
            if (!isSymbol && m_text[m_at] == '<') {
                SkipBrackets();
            } else {
                ++m_at;
            }
        }
        const std::string_view symbol = m_text.substr(start, m_at - start);
        m_current.name += (isSymbol ? "" : " ") + std::string(symbol);
    }

    void SkipSpaces() {
        while (m_at < m_text.size() && m_text[m_at] == ' ') {
            ++m_at;
        }
    }

    // Past the bracket that closes the one here, or to the end.
    void SkipBrackets() {
        int depth = 0;
        do {
            const char c = m_text[m_at++];
            if (c == '(' || c == '<' || c == '[' || c == '{' || c == '`') {
                ++depth;
            } else if (c == ')' || c == ']' || c == '}' || c == '\'' ||
                       (c == '>' && m_text[m_at - 2] != '-')) {
                --depth;
            }
        } while (depth > 0 && m_at < m_text.size());
    }

    void Finish() {
        if (!m_current.name.empty() || m_current.isLambda) {
            m_components.push_back(std::move(m_current));
        }
        m_current = {};
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    Component m_current;
    std::vector<Component> m_components;
};

// Folders of the source tree that hold sources, those that hold folders of the same names first.
constexpr std::array<std::string_view, 8> kSourceRoots = {
    "tests/",        "apps/",           "examples/", "bench/",
    "Proc/DirectX/", "Core/Threading/", "Platform/", "Host/"};

const char* Intern(std::string text) {
    struct Texts {
        std::mutex mutex;
        std::set<std::string> set;
    };
    // Never destroyed: exceptions that point to the texts may outlive this module's statics.
    static Texts* const texts = std::make_unique<Texts>().release();
    const std::scoped_lock lock(texts->mutex);
    return texts->set.insert(std::move(text)).first->c_str();
}

} // namespace

std::string ShortFunctionName(std::string_view signature) {
    const auto components = SignatureReader(signature).Read();
    // A lambda goes by the name of the function that it is written in.
    const auto lambda = std::ranges::find_if(components, &SignatureReader::Component::isLambda);
    return lambda != components.begin() ? std::prev(lambda)->name : std::string(signature);
}

std::string RelativeSourcePath(std::string_view path) {
    std::string result(path);
    std::ranges::replace(result, '\\', '/');
    for (const std::string_view root : kSourceRoots) {
        for (auto at = result.rfind(root); at != std::string::npos;
             at = at == 0 ? std::string::npos : result.rfind(root, at - 1)) {
            if (at == 0 || result[at - 1] == '/') {
                return result.substr(at);
            }
        }
    }
    return result;
}

boost::source_location MakeThrowSite(const std::source_location& location) {
    return {Intern(RelativeSourcePath(location.file_name())), location.line(),
            Intern(ShortFunctionName(location.function_name())), location.column()};
}

} // namespace Norvex
