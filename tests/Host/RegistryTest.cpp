#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Host/Registry.h"

namespace Norvex::Core {
namespace {

// A key under HKEY_CURRENT_USER for the time of one case, its name made unique by the process.
class RegistryTest : public testing::Test {
protected:
    void SetUp() override { Remove(); }
    void TearDown() override { Remove(); }

    void AddKey(const std::wstring& name) const {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, (m_path + name).c_str(), &key), ERROR_SUCCESS);
        RegCloseKey(key);
    }
    void AddValue(const wchar_t* name, DWORD type, const void* data, std::size_t bytes) const {
        ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, m_path.c_str(), name, type, data,
                                  static_cast<DWORD>(bytes)),
                  ERROR_SUCCESS);
    }
    void AddText(const wchar_t* name, DWORD type, const std::wstring& raw) const {
        AddValue(name, type, raw.data(), raw.size() * sizeof(wchar_t));
    }
    void Remove() const { RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str()); }

    const std::wstring m_path =
        L"Software\\NorvexHostTest" + std::to_wstring(GetCurrentProcessId());
};

TEST_F(RegistryTest, EnumeratesOpensAndReopens) {
    AddKey(L"\\alpha\\inner");
    AddKey(L"\\beta");
    RegKey key;
    EXPECT_FALSE(key.Open(HKEY_CURRENT_USER, m_path + L"\\missing", KEY_READ));
    EXPECT_FALSE(key.EnumKey(0)) << "a closed key holds nothing";
    ASSERT_TRUE(key.Open(HKEY_CURRENT_USER, m_path, KEY_READ));
    EXPECT_EQ(key.EnumKey(0), L"alpha");
    EXPECT_EQ(key.EnumKey(1), L"beta");
    EXPECT_FALSE(key.EnumKey(2));

    ASSERT_TRUE(key.Open(key, L"alpha", KEY_READ)) << "its own child";
    EXPECT_EQ(key.EnumKey(0), L"inner");
    RegKey moved = std::move(key);
    EXPECT_FALSE(key.IsOpen()); // NOLINT(bugprone-use-after-move): the state is promised
    EXPECT_EQ(moved.EnumKey(0), L"inner");
    EXPECT_FALSE(moved.Open(moved, L"nothing", KEY_READ));
    EXPECT_FALSE(moved.IsOpen()) << "a failed opening closes what was open";
}

TEST_F(RegistryTest, ReadsValuesOfTheirTypeOnly) {
    const std::uint64_t version = 0x001F'0000'000F'0E9E;
    const std::wstring longText(5000, L'n');
    AddKey(L"");
    AddText(L"text", REG_SZ, std::wstring(L"ven_10de\0", 9));
    AddText(L"unterminated", REG_SZ, L"open");
    AddText(L"twoParts", REG_SZ, std::wstring(L"one\0two\0", 8));
    AddText(L"long", REG_SZ, longText + L'\0');
    AddText(L"expandable", REG_EXPAND_SZ, std::wstring(L"%windir%\0", 9));
    AddText(L"none", REG_SZ, L"");
    AddValue(L"version", REG_QWORD, &version, sizeof(version));
    AddValue(L"short", REG_DWORD, &version, 4);
    RegKey key;
    ASSERT_TRUE(key.Open(HKEY_CURRENT_USER, m_path, KEY_READ));

    using Text = std::optional<std::wstring>;
    const std::pair<const wchar_t*, Text> texts[] = {
        {L"text", L"ven_10de"},     {L"unterminated", L"open"},   {L"twoParts", L"one"},
        {L"long", longText},        {L"expandable", L"%windir%"}, {L"none", L""},
        {L"version", std::nullopt}, {L"missing", std::nullopt},
    };
    for (const auto& [name, expected] : texts) {
        EXPECT_EQ(key.QueryString(name), expected) << testing::PrintToString(name);
    }
    EXPECT_EQ(key.QueryQword(L"version"), version);
    for (const auto* name : {L"short", L"text", L"missing"}) {
        EXPECT_FALSE(key.QueryQword(name)) << testing::PrintToString(name);
    }
}

} // namespace
} // namespace Norvex::Core
