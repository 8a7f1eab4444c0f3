// The calling thread's stack as text. Symbols come from dbghelp for modules with a program database
// and from the export tables of all others: debug information of another form (DWARF) brings
// nothing on Windows, and Wine's dbghelp has crashed on it. Both answer with what starts nearest
// before an address; whether that is the function at the address, the tables tell that the system
// unwinds with.

#include "Host/CallStack.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include <boost/core/demangle.hpp>
#include <fmt/format.h>

#include "Host/Exception.h"
#include "Host/Strings.h"
#include "Platform/Direct3D.h"

#include <dbghelp.h>

namespace Norvex {

namespace {

constexpr DWORD kMaxFrames = 62; // the most that RtlCaptureStackBackTrace takes on every Windows
constexpr DWORD kMaxSymbolLength = 1024;

struct Symbol {
    std::string name;
    std::uint64_t displacement = 0; // bytes from the symbol's start
};

struct Module {
    HMODULE handle = nullptr;
    std::wstring path;

    std::uint64_t Base() const { return reinterpret_cast<std::uint64_t>(handle); }
};

std::wstring GetModulePath(HMODULE handle) {
    std::array<wchar_t, 1024> path{};
    const DWORD length = GetModuleFileNameW(handle, path.data(), static_cast<DWORD>(path.size()));
    return std::wstring(path.data(), length);
}

std::optional<Module> FindModule(const void* address) {
    constexpr DWORD kFlags =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    HMODULE handle = nullptr;
    if (!GetModuleHandleExW(kFlags, static_cast<const wchar_t*>(address), &handle)) {
        return std::nullopt;
    }
    return Module{handle, GetModulePath(handle)};
}

// A session of its own with dbghelp, apart from one that the host may have open for the process.
// dbghelp is not thread-safe: the mutex serialises all calls that are made here.
class SymbolSession {
public:
    static SymbolSession& Get() {
        // Never destroyed: exceptions may be thrown while the process ends.
        static SymbolSession* const session = std::make_unique<SymbolSession>().release();
        return *session;
    }

    SymbolSession() {
        // An empty search path: the default one may lead to a symbol server.
        m_isOpen = SymInitializeW(Id(), L"", FALSE) != FALSE;
    }

    std::optional<Symbol> Find(const Module& module, std::uint64_t address) {
        const std::scoped_lock lock(m_mutex);
        if (!m_isOpen) {
            return std::nullopt;
        }
        Load(module);
        alignas(SYMBOL_INFO) std::array<char, sizeof(SYMBOL_INFO) + kMaxSymbolLength> storage{};
        auto* info = reinterpret_cast<SYMBOL_INFO*>(storage.data());
        info->SizeOfStruct = sizeof(SYMBOL_INFO);
        info->MaxNameLen = kMaxSymbolLength;
        DWORD64 displacement = 0;
        if (!SymFromAddr(Id(), address, &displacement, info)) {
            return std::nullopt;
        }
        return Symbol{DemangleLocked(info->Name), displacement};
    }

    std::string Demangle(const char* name) {
        const std::scoped_lock lock(m_mutex);
        return DemangleLocked(name);
    }

private:
    void Load(const Module& module) {
        std::wstring& loaded = m_loaded[module.Base()];
        if (loaded == module.path) {
            return;
        }
        if (!loaded.empty()) {
            SymUnloadModule64(Id(), module.Base()); // another module was there before
        }
        SymLoadModuleExW(Id(), nullptr, module.path.c_str(), nullptr, module.Base(), 0, nullptr, 0);
        loaded = module.path;
    }

    // Modules of either family of compilers may be in one process.
    static std::string DemangleLocked(const char* name) {
        std::array<char, kMaxSymbolLength> plain{};
        if (*name == '?' &&
            UnDecorateSymbolName(name, plain.data(), kMaxSymbolLength, UNDNAME_NAME_ONLY) != 0) {
            return plain.data();
        }
        return boost::core::demangle(name);
    }

    // Any unique value identifies a session.
    HANDLE Id() { return this; }

    std::mutex m_mutex;
    std::map<std::uint64_t, std::wstring> m_loaded; // path by base
    bool m_isOpen = false;
};

// The tables of a loaded module, addressed from its base.
class ModuleTables {
public:
    explicit ModuleTables(HMODULE module) : m_base(reinterpret_cast<const std::byte*>(module)) {
        const auto* dos = At<IMAGE_DOS_HEADER>(0);
        const auto* nt = At<IMAGE_NT_HEADERS>(static_cast<DWORD>(dos->e_lfanew));
        m_range = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
        m_debug = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    }

    // Whether the module names its program database. The record is "RSDS", a GUID, an age and the
    // file's name, which is empty where a linker uses the record for a build id only.
    bool HasProgramDatabase() const {
        constexpr DWORD kNameOffset = 24;
        const std::size_t count = m_debug.Size / sizeof(IMAGE_DEBUG_DIRECTORY);
        const auto* entries = At<IMAGE_DEBUG_DIRECTORY>(m_debug.VirtualAddress);
        return std::any_of(entries, entries + count, [this](const IMAGE_DEBUG_DIRECTORY& entry) {
            return entry.Type == IMAGE_DEBUG_TYPE_CODEVIEW && entry.AddressOfRawData != 0 &&
                   entry.SizeOfData > kNameOffset &&
                   *At<char>(entry.AddressOfRawData + kNameOffset) != '\0';
        });
    }

    // The named export that starts nearest before the offset, be it of another function.
    std::optional<Symbol> FindNearest(DWORD offset) const {
        if (m_range.Size == 0) {
            return std::nullopt;
        }
        const auto* directory = At<IMAGE_EXPORT_DIRECTORY>(m_range.VirtualAddress);
        const auto* functions = At<DWORD>(directory->AddressOfFunctions);
        const auto* names = At<DWORD>(directory->AddressOfNames);
        const auto* ordinals = At<WORD>(directory->AddressOfNameOrdinals);
        DWORD best = 0;
        const char* bestName = nullptr;
        for (DWORD i = 0; i < directory->NumberOfNames; ++i) {
            const DWORD start = functions[ordinals[i]];
            if (start <= offset && start >= best && !IsForwarder(start)) {
                best = start;
                bestName = At<char>(names[i]);
            }
        }
        if (bestName == nullptr) {
            return std::nullopt;
        }
        return Symbol{SymbolSession::Get().Demangle(bestName), offset - best};
    }

private:
    template <class T>
    const T* At(DWORD offset) const {
        return reinterpret_cast<const T*>(m_base + offset);
    }
    // Such an entry is a text inside the table itself.
    bool IsForwarder(DWORD start) const {
        return start >= m_range.VirtualAddress && start < m_range.VirtualAddress + m_range.Size;
    }

    const std::byte* m_base;
    IMAGE_DATA_DIRECTORY m_range{};
    IMAGE_DATA_DIRECTORY m_debug{};
};

// Where the function begins that holds the address; empty where the system cannot tell.
std::optional<std::uint64_t> FindFunctionStart(const Module& module, std::uint64_t address) {
    std::uint64_t base = 0;
    const RUNTIME_FUNCTION* entry = RtlLookupFunctionEntry(address, &base, nullptr);
    if (entry == nullptr) {
        return std::nullopt;
    }
    // Parts of a function lead to the one before them: flags in the upper five bits of the unwind
    // information, the number of its two-byte codes at 2, after the codes (an even number of them)
    // the other entry.
    const auto* image = reinterpret_cast<const std::uint8_t*>(module.handle);
    const auto* info = image + entry->UnwindData;
    while ((info[0] >> 3 & UNW_FLAG_CHAININFO) != 0) {
        const std::size_t codes = (std::size_t{info[2]} + 1) / 2 * 2;
        entry = reinterpret_cast<const RUNTIME_FUNCTION*>(info + 4 + 2 * codes);
        info = image + entry->UnwindData;
    }
    return base + entry->BeginAddress;
}

std::optional<Symbol> FindNearest(const Module& module, std::uint64_t address) {
    const ModuleTables tables(module.handle);
    if (tables.HasProgramDatabase()) {
        if (auto symbol = SymbolSession::Get().Find(module, address)) {
            return symbol;
        }
    }
    return tables.FindNearest(static_cast<DWORD>(address - module.Base()));
}

std::optional<Symbol> FindSymbol(const Module& module, std::uint64_t address) {
    const auto start = FindFunctionStart(module, address);
    auto symbol = FindNearest(module, address);
    const bool isOfFunction = start && symbol && address - symbol->displacement >= *start;
    return isOfFunction ? std::move(symbol) : std::nullopt;
}

std::string FormatFrame(std::size_t index, const void* returnAddress) {
    const auto address = reinterpret_cast<std::uint64_t>(returnAddress);
    const auto module = FindModule(returnAddress);
    if (!module) {
        return fmt::format("#{} 0x{:016x}", index, address);
    }
    std::string line =
        fmt::format("#{} {}+0x{:x}", index,
                    Core::Utf8FromWstring(std::filesystem::path(module->path).filename().wstring()),
                    address - module->Base());
    // A call that never returns may be its function's last instruction: one byte back is inside the
    // call.
    if (const auto symbol = FindSymbol(*module, address - 1)) {
        line += fmt::format(" {}+0x{:x}", symbol->name, symbol->displacement + 1);
    }
    return line;
}

std::string FormatFrames(const void* const* frames, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : "\n") + FormatFrame(i, frames[i]);
    }
    return text;
}

} // namespace

std::string GetCallStack() {
    std::array<void*, kMaxFrames> frames{};
    constexpr DWORD kSkipped = 1; // this function
    const USHORT count = RtlCaptureStackBackTrace(kSkipped, kMaxFrames, frames.data(), nullptr);
    try {
        return FormatFrames(frames.data(), count);
    } catch (...) {
        // The report of a failure must not fail; out of memory, most likely.
        return {};
    }
}

CallStack CaptureCallStack() noexcept {
    constexpr DWORD kSkipped = 1; // this function
    std::array<void*, CallStack::kMaxFrames> frames{};
    RtlCaptureStackBackTrace(kSkipped, CallStack::kMaxFrames, frames.data(), nullptr);
    CallStack stack;
    std::ranges::copy(frames, stack.frames.begin());
    return stack;
}

std::string FormatCallStack(const CallStack& stack) {
    const auto end = std::ranges::find(stack.frames, nullptr);
    return FormatFrames(stack.frames.data(), static_cast<std::size_t>(end - stack.frames.begin()));
}

} // namespace Norvex
