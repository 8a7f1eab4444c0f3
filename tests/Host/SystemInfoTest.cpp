#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Host/Strings.h"
#include "Host/SystemInfo.h"
#include "Platform/Direct3D.h"
#include "tests/support/ImportPatch.h"

namespace Norvex::Core {
namespace {

TEST(ErrorInfoTest, NamesAndDescribesCodes) {
    const struct {
        long code;
        const char* name;
        bool isDescribed;
    } cases[] = {
        {S_OK, "S_OK", true},
        {E_OUTOFMEMORY, "E_OUTOFMEMORY", true},
        {HRESULT_FROM_WIN32(ERROR_DISK_FULL), "0x80070070", true},
        {DXGI_ERROR_INVALID_CALL, "DXGI_ERROR_INVALID_CALL", true},
        {DXGI_ERROR_DEVICE_REMOVED, "DXGI_ERROR_DEVICE_REMOVED", true},
        {DXGI_ERROR_DEVICE_HUNG, "DXGI_ERROR_DEVICE_HUNG", true},
        {static_cast<long>(0x887A0020), "DXGI_ERROR_DRIVER_INTERNAL_ERROR", true},
        {static_cast<long>(0x887E0003), "D3D12_ERROR_INVALID_REDIST", true},
        {static_cast<long>(0x887C0001), "D3D11_ERROR_TOO_MANY_UNIQUE_STATE_OBJECTS", true},
        {static_cast<long>(0x8876086C), "D3DERR_INVALIDCALL", true},
        {static_cast<long>(0x88982F50), "WINCODEC_ERR_COMPONENTNOTFOUND", true},
        {DXGI_STATUS_OCCLUDED, "DXGI_STATUS_OCCLUDED", true},
        {static_cast<long>(0x887A1234), "0x887A1234", false},
        {static_cast<long>(0xE0ABCDEF), "0xE0ABCDEF", false},
    };
    for (const auto& item : cases) {
        const auto [code, description] = Utils::GetErrorInfo(item.code);
        EXPECT_EQ(code, item.name);
        EXPECT_EQ(!description.empty(), item.isDescribed) << code << ": " << description;
        EXPECT_EQ(description.find_last_not_of(" \r\n"), description.size() - 1) << code;
    }
}

TEST(MemoryInfoTest, AgreesWithTheSystemAndSeesThisProcessGrow) {
    Utils::MEMINFO before;
    ASSERT_TRUE(Utils::GetMemoryInfo(before));
    ULONGLONG installedKilobytes = 0;
    if (GetPhysicallyInstalledSystemMemory(&installedKilobytes)) {
        EXPECT_LE(before.physicalTotal, installedKilobytes * 1024);
    }
    EXPECT_LE(before.memoryLoad, 100U);
    EXPECT_LE(before.physicalAvailable, before.physicalTotal);
    EXPECT_LE(before.committedAvailable, before.committedTotal);
    EXPECT_LE(before.virtualAvailable, before.virtualTotal);
    EXPECT_LE(before.processPhysicalCurrent, before.processPhysicalPeak);
    EXPECT_LE(before.processVirtualCurrent, before.processVirtualPeak);

    constexpr std::size_t kBytes = 64U << 20U;
    const std::vector<char> touched(kBytes, 'x');
    Utils::MEMINFO after;
    ASSERT_TRUE(Utils::GetMemoryInfo(after));
    EXPECT_GE(after.processPhysicalPeak, before.processPhysicalCurrent + kBytes / 2);
    EXPECT_GE(after.processVirtualCurrent, before.processVirtualCurrent + kBytes / 2);
    EXPECT_EQ(touched.back(), 'x');

    const Norvex::Test::ImportPatch refusal(L"NorvexHost.dll", "K32GetProcessMemoryInfo",
                                            [](HANDLE, void*, DWORD) { return FALSE; });
    after.memoryLoad = 777;
    EXPECT_FALSE(Utils::GetMemoryInfo(after));
    EXPECT_EQ(after.memoryLoad, 777U) << "unchanged";
}

TEST(StringsTest, ConvertsBothWays) {
    const struct {
        std::wstring wide;
        std::string utf8;
    } cases[] = {
        {L"", ""},
        {L"NVIDIA GeForce", "NVIDIA GeForce"},
        {L"\u00e9\u20ac", "\xc3\xa9\xe2\x82\xac"},
        {L"\xd83d\xde00", "\xf0\x9f\x98\x80"}, // a surrogate pair
        {std::wstring(L"a\0b", 3), std::string("a\0b", 3)},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Utf8FromWstring(item.wide), item.utf8);
        EXPECT_EQ(WstringFromUtf8(item.utf8), item.wide);
    }
}

TEST(StringsTest, ReplacesMalformedText) {
    EXPECT_EQ(Utf8FromWstring(L"a\xd83d"
                              L"b"),
              "a\xef\xbf\xbd"
              "b");
    EXPECT_EQ(Utf8FromWstring(L"\xde00"), "\xef\xbf\xbd");
    const std::wstring wide = WstringFromUtf8("a\xff"
                                              "b");
    EXPECT_EQ(wide, L"a\xfffd"
                    L"b");
}

TEST(StringsTest, LowersLettersOneToOne) {
    EXPECT_EQ(Utils::ToLower(L"PCI\\VEN_10DE&DEV_1F08"), L"pci\\ven_10de&dev_1f08");
    EXPECT_EQ(Utils::ToLower(L"\u00c9I\u0416"), L"\u00e9i\u0436");
    EXPECT_EQ(Utils::ToLower(std::wstring_view()), L"");
}

} // namespace
} // namespace Norvex::Core
