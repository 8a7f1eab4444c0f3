#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Host/Registry.h"

namespace Norvex::Core {
namespace {

// A key of this process under HKEY_CURRENT_USER for the time of one case.
class RegistryTest : public testing::Test {
protected:
    RegistryTest() { AddKey(L""); }
    ~RegistryTest() override { RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str()); }

    void AddKey(const std::wstring& name) const {
        HKEY key = nullptr;
        EXPECT_EQ(RegCreateKeyW(HKEY_CURRENT_USER, (m_path + name).c_str(), &key), ERROR_SUCCESS);
        RegCloseKey(key);
    }

    const std::wstring m_path =
        L"Software\\NorvexHostTest" + std::to_wstring(GetCurrentProcessId());
};

TEST_F(RegistryTest, EnumeratesOpensAndReopens) {
    AddKey(L"\\alpha\\inner");
    RegKey key;
    EXPECT_FALSE(key.Open(HKEY_CURRENT_USER, m_path + L"\\missing", KEY_READ));
    EXPECT_FALSE(key.EnumKey(0) || key.QueryString(L"") || key.QueryQword(L"")) << "closed";
    ASSERT_TRUE(key.Open(HKEY_CURRENT_USER, m_path, KEY_READ));
    EXPECT_EQ(key.EnumKey(0), L"alpha");
    EXPECT_FALSE(key.EnumKey(1));

    ASSERT_TRUE(key.Open(key, L"alpha", KEY_READ)) << "its own child";
    EXPECT_EQ(key.EnumKey(0), L"inner");
    RegKey moved = std::move(key);
    EXPECT_EQ(moved.EnumKey(0), L"inner");
    EXPECT_FALSE(moved.Open(moved, L"nothing", KEY_READ));
    EXPECT_FALSE(moved.IsOpen()) << "a failed opening closes what was open";
}

TEST_F(RegistryTest, ReadsValuesOfTheirTypeAndSizeOnly) {
    using namespace std::string_literals;
    RegKey key;
    ASSERT_TRUE(key.Open(HKEY_CURRENT_USER, m_path, KEY_READ));
    const auto check = [&](DWORD type, const std::wstring& data,
                           const std::optional<std::wstring>& text,
                           std::optional<std::uint64_t> number = {}) {
        ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, m_path.c_str(), L"value", type, data.data(),
                                  static_cast<DWORD>(data.size() * sizeof(wchar_t))),
                  ERROR_SUCCESS);
        EXPECT_EQ(key.QueryString(L"value"), text) << type;
        EXPECT_EQ(key.QueryQword(L"value"), number) << type;
    };
    const std::wstring longText(5000, L'n');
    check(REG_SZ, L"ven_10de\0"s, L"ven_10de");
    check(REG_SZ, L"not ended", L"not ended");
    check(REG_SZ, longText + L'\0', longText);
    check(REG_QWORD, L"\x0E9E\x000F\0\x001F"s, {}, 0x001F'0000'000F'0E9E);
    check(REG_QWORD, L"\x0E9E\x000F"s, {});
    check(REG_DWORD, L"\x0E9E\x000F"s, {});
    EXPECT_FALSE(key.QueryString(L"missing") || key.QueryQword(L"missing"));
}

} // namespace
} // namespace Norvex::Core
