#include <gtest/gtest.h>

#include <string>

#include "Host/Registry.h"

namespace Norvex::Core {
namespace {

TEST(RegistryTest, OpensAndReadsValuesOfTheirTypeAndSizeOnly) {
    using namespace std::string_literals;
    const std::wstring path = L"Software\\NorvexTest" + std::to_wstring(GetCurrentProcessId());
    const auto check = [&](DWORD type, const std::wstring& data,
                           const std::optional<std::wstring>& text,
                           std::optional<std::uint64_t> number = {}) {
        RegSetKeyValueW(HKEY_CURRENT_USER, (path + L"\\inner").c_str(), L"value", type, data.data(),
                        static_cast<DWORD>(data.size() * sizeof(wchar_t)));
        RegKey key;
        ASSERT_TRUE(key.Open(HKEY_CURRENT_USER, path, KEY_READ));
        ASSERT_TRUE(key.Open(key, L"inner", KEY_READ)) << "its own child";
        EXPECT_EQ(key.QueryString(L"value"), text) << type;
        EXPECT_EQ(key.QueryQword(L"value"), number) << type;
        EXPECT_FALSE(key.Open(key, L"nothing", KEY_READ));
        EXPECT_FALSE(key.IsOpen()) << "a failed opening closes what was open";
    };
    const std::wstring longText(5000, L'n');
    check(REG_SZ, L"ven_10de\0"s, L"ven_10de");
    check(REG_SZ, L"not ended", L"not ended");
    check(REG_SZ, longText + L'\0', longText);
    check(REG_QWORD, L"\x0E9E\x000F\0\x001F"s, {}, 0x001F'0000'000F'0E9E);
    check(REG_QWORD, L"\x0E9E\x000F"s, {});
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
}

} // namespace
} // namespace Norvex::Core
