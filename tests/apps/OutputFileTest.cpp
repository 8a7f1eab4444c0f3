#include <fstream>
#include <iterator>

#include <gmock/gmock.h>

#include "apps/norvexdx/Failure.h"
#include "apps/norvexdx/InputFile.h"
#include "apps/norvexdx/OutputFile.h"
#include "tests/apps/Pictures.h"
#include "tests/support/ImportPatch.h"

namespace Norvex::Test {

namespace {

using namespace App;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

DWORD g_error = 0; // what the failing functions report

BOOL Fail() {
    SetLastError(g_error);
    return FALSE;
}

BOOL WINAPI FailWriteFile(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED) {
    return Fail();
}

BOOL WINAPI FailFlushFileBuffers(HANDLE) {
    return Fail();
}

BOOL WINAPI FailMoveFileExW(LPCWSTR, LPCWSTR, DWORD) {
    return Fail();
}

BOOL WINAPI WriteNothing(HANDLE, LPCVOID, DWORD, LPDWORD written, LPOVERLAPPED) {
    *written = 0;
    return TRUE;
}

decltype(&WriteFile) g_writeFile = nullptr;

BOOL WINAPI WriteOneByte(HANDLE file, LPCVOID data, DWORD, LPDWORD written, LPOVERLAPPED) {
    return g_writeFile(file, data, 1, written, nullptr);
}

template <class Function>
std::unique_ptr<ImportPatch> Patch(const char* name, Function* replacement) {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return std::make_unique<ImportPatch>(std::filesystem::path(self).filename().c_str(), name,
                                         replacement);
}

std::string WriteAndCommit(const std::filesystem::path& path, const std::string& text) {
    try {
        OutputFile file(path);
        file.Write(text.data(), text.size());
        file.Commit();
        return "written";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

std::string Read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(OutputFileTest, ReplacesTheOldFileOnlyWhenCommitted) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a.png");
    EXPECT_EQ("written", WriteAndCommit(path, "old"));
    {
        OutputFile abandoned(path);
        abandoned.Write("half", 4);
        EXPECT_EQ(2U, folder.GetFiles().size());
    }
    EXPECT_THAT(folder.GetFiles(), ElementsAre("a.png"));
    EXPECT_EQ("old", Read(path));
    EXPECT_EQ("written", WriteAndCommit(path, "new"));
    EXPECT_EQ("new", Read(path));
}

TEST(OutputFileTest, LeavesTheOldFileWhenTheDiskFails) {
    const TemporaryFolder folder;
    const auto path = folder.GetPath("a.png");
    ASSERT_EQ("written", WriteAndCommit(path, "old"));
    const auto expectFailure = [&](auto patch, DWORD error, const char* words) {
        g_error = error;
        EXPECT_THAT(WriteAndCommit(path, "new"), HasSubstr(words));
        patch.reset();
        EXPECT_EQ("old", Read(path));
        EXPECT_THAT(folder.GetFiles(), ElementsAre("a.png"));
    };
    expectFailure(Patch("WriteFile", &FailWriteFile), ERROR_DISK_FULL, "the disk is full");
    expectFailure(Patch("WriteFile", &WriteNothing), 0, "the disk is full");
    expectFailure(Patch("FlushFileBuffers", &FailFlushFileBuffers), ERROR_HANDLE_DISK_FULL,
                  "the disk is full");
    expectFailure(Patch("MoveFileExW", &FailMoveFileExW), ERROR_ACCESS_DENIED, "access is denied");
}

TEST(OutputFileTest, WritesOnWhenTheSystemTakesOnlyAPart) {
    const TemporaryFolder folder;
    g_writeFile = &WriteFile; // read from the import table before it is patched
    const auto patch = Patch("WriteFile", &WriteOneByte);
    EXPECT_EQ("written", WriteAndCommit(folder.GetPath("a.png"), "picture"));
    EXPECT_EQ("picture", Read(folder.GetPath("a.png")));
}

TEST(OutputFileTest, WantsAFolderAndAName) {
    const TemporaryFolder folder;
    EXPECT_THAT(WriteAndCommit(folder.GetPath("missing/a.png"), "x"),
                HasSubstr("there is no folder"));
    EXPECT_THAT(WriteAndCommit(folder.GetPath("").parent_path(), "x"), HasSubstr("is a folder"));
    EXPECT_THAT(folder.GetFiles(), IsEmpty());
}

} // namespace

} // namespace Norvex::Test
