#pragma once

// A file that appears whole or not at all: written beside its place under a passing name, then
// renamed; a device (NUL) is written to as it is. What is not committed is removed, also when the
// user interrupts the program. One thread uses one object. Throws Failure.

#include <cstddef>
#include <filesystem>
#include <string>

#include "Platform/Direct3D.h"

namespace Norvex::App {

class OutputFile {
public:
    // Failures: the folder is not there, the place is a folder's, no permission, no space.
    explicit OutputFile(const std::filesystem::path& target);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Failures: no space.
    void Write(const void* data, std::size_t sizeInBytes);
    // Puts the file into its place, over an older one. Failures: no space, no permission.
    void Commit();

    // From now on an interruption (Ctrl-C, closing the console) removes unfinished files and ends
    // the process with kInterruptedExitCode. Once per process.
    static void RemoveUnfinishedOnInterruption();
    static constexpr unsigned kInterruptedExitCode = 130;

private:
    [[noreturn]] void ThrowSystemFailure(const char* what) const;
    void Close();
    bool IsPassing() const { return m_passing != m_target; }

    std::filesystem::path m_target;
    std::filesystem::path m_passing;
    HANDLE m_file = INVALID_HANDLE_VALUE;
};

// Failure when the folder that the file would be in is not there, or when the path is a folder's.
// For checks before long work.
void CheckOutputPlace(const std::filesystem::path& target);

} // namespace Norvex::App
