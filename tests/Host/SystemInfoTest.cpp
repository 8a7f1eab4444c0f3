#include "Host/SystemInfo.h"

#include <string>

#include <gtest/gtest.h>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"

namespace Norvex::Core {
namespace {

TEST(ErrorInfoTest, NamesAndDescribesCodes) {
    const std::pair<unsigned long, const char*> cases[] = {
        {0x8007000E, "E_OUTOFMEMORY"},
        {0x887A0005, "DXGI_ERROR_DEVICE_REMOVED"},
        {0x8876086C, "D3DERR_INVALIDCALL"},
        {0x887A1234, "0x887A1234"}, // which nobody knows
    };
    for (const auto& [result, name] : cases) {
        const auto [code, description] = Utils::GetErrorInfo(static_cast<long>(result));
        EXPECT_EQ(code, name);
        EXPECT_EQ(description.empty(), result == 0x887A1234) << code;
        EXPECT_EQ(description.find_last_not_of(" \r\n"), description.size() - 1) << code;
    }
}

TEST(StringsTest, ConvertAndReplaceWhatIsMalformed) {
    using namespace std::string_literals;
    const auto wide = L"a\0\u00e9\u20ac\xd83d\xde00"s; // the last is a surrogate pair
    const auto utf8 = "a\0\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"s;
    EXPECT_EQ(Utf8FromWstring(wide), utf8);
    EXPECT_EQ(WstringFromUtf8(utf8), wide);
    EXPECT_EQ(Utf8FromWstring(L"a\xd83d-\xde00"), "a\xef\xbf\xbd-\xef\xbf\xbd");
    EXPECT_EQ(WstringFromUtf8("a\xff-"), L"a\xfffd-");
    EXPECT_EQ(Utils::ToLower(L"\u00c9I\u0416"), L"\u00e9i\u0436") << "letters one to one";
}

} // namespace
} // namespace Norvex::Core
