#include "Host/SystemInfo.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Host/Strings.h"
#include "Platform/Direct3D.h"

namespace Norvex::Core {
namespace {

TEST(ErrorInfoTest, NamesAndDescribesCodes) {
    const std::pair<unsigned long, const char*> cases[] = {
        {0, "S_OK"},
        {0x8007000E, "E_OUTOFMEMORY"},
        {0x80070070, "0x80070070"}, // a full disk
        {0x887A0005, "DXGI_ERROR_DEVICE_REMOVED"},
        {0x887E0003, "D3D12_ERROR_INVALID_REDIST"},
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

TEST(MemoryInfoTest, AgreesWithTheSystemAndSeesThisProcessGrow) {
    Utils::MEMINFO before;
    ASSERT_TRUE(Utils::GetMemoryInfo(before));
    EXPECT_LE(before.physicalAvailable, before.physicalTotal);
    EXPECT_LE(before.committedAvailable, before.committedTotal);
    EXPECT_LE(before.virtualAvailable, before.virtualTotal);
    constexpr std::size_t kBytes = 64U << 20U;
    const std::vector<char> touched(kBytes, 'x');
    Utils::MEMINFO after;
    ASSERT_TRUE(Utils::GetMemoryInfo(after));
    EXPECT_GE(after.processPhysicalPeak, before.processPhysicalCurrent + touched.size() / 2);
    EXPECT_GE(after.processVirtualCurrent, before.processVirtualCurrent + touched.size() / 2);
}

TEST(StringsTest, ConvertAndReplaceWhatIsMalformed) {
    using namespace std::string_literals;
    const std::pair<std::wstring, std::string> cases[] = {
        {L"", ""},
        {L"\u00e9\u20ac", "\xc3\xa9\xe2\x82\xac"},
        {L"\xd83d\xde00", "\xf0\x9f\x98\x80"}, // a surrogate pair
        {L"a\0b"s, "a\0b"s},
    };
    for (const auto& [wide, utf8] : cases) {
        EXPECT_EQ(Utf8FromWstring(wide), utf8);
        EXPECT_EQ(WstringFromUtf8(utf8), wide);
    }
    EXPECT_EQ(Utf8FromWstring(L"a\xd83d-\xde00"), "a\xef\xbf\xbd-\xef\xbf\xbd");
    EXPECT_EQ(WstringFromUtf8("a\xff-"), L"a\xfffd-");
    EXPECT_EQ(Utils::ToLower(L"\u00c9I\u0416"), L"\u00e9i\u0436") << "letters one to one";
}

} // namespace
} // namespace Norvex::Core
