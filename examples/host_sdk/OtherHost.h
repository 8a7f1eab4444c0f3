#pragma once

// What a host may have of its own (docs/host-sdk.md), all inline: counts that Windows increments, a
// tracker that prints, a registry without keys, colours. Stands for Host/Color.h, CoreTracker.h,
// RefCountable.h and Registry.h; the rest of its host SDK is made of this project's sources.

#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <windows.h>

namespace Norvex {

struct IRefCountable {
    virtual ~IRefCountable() = default;
    virtual LONG AddRef() = 0;
    virtual LONG GetRefCount() const = 0;
    virtual std::uint32_t Release() = 0;
};
struct RefCountImpl : IRefCountable {
    RefCountImpl() = default;
    RefCountImpl(const RefCountImpl&) {}
    LONG AddRef() override { return InterlockedIncrement(&m_count); }
    LONG GetRefCount() const override { return m_count; }
    std::uint32_t Release() override {
        const std::uint32_t left = DecrementRefCount();
        return left == 0 ? (delete this, 0U) : left;
    }
    std::uint32_t DecrementRefCount() {
        return static_cast<std::uint32_t>(InterlockedDecrement(&m_count));
    }
    std::uint32_t DecrementUnlessLast() {
        for (LONG count = m_count; count > 1; count = m_count) {
            if (InterlockedCompareExchange(&m_count, count - 1, count) == count) {
                return static_cast<std::uint32_t>(count - 1);
            }
        }
        return 0;
    }
    volatile LONG m_count = 0;
};
inline void intrusive_ptr_add_ref(IRefCountable* object) {
    object->AddRef();
}
inline void intrusive_ptr_release(IRefCountable* object) {
    object->Release();
}

namespace Conf {
enum class ColorPrimaries { BT709 = 1, BT2020 = 9 };
enum class TransferCharacteristics { BT709 = 1, Linear = 8, sRGB = 13, PQ = 16, HLG = 18 };
enum class YCbCrMatrix { BT709 = 1, BT601 = 6, BT2020NonConstant = 9 };
struct ColorSpace {
    std::uint32_t primaries, transfer, matrix;
};
struct RGBColorSpace {
    ColorPrimaries primaries = ColorPrimaries::BT709;
    TransferCharacteristics transfer = TransferCharacteristics::sRGB;
    bool operator==(const RGBColorSpace&) const = default;
};
// From Kr and Kb of ITU-R BT.601-7, BT.709-6 and BT.2020-2.
inline std::array<std::array<double, 3>, 3> GetRGBToYpPbPrMatrix(YCbCrMatrix matrix) {
    const bool isHD = matrix == YCbCrMatrix::BT709;
    const bool isSD = matrix == YCbCrMatrix::BT601;
    const double kr = isHD ? 0.2126 : isSD ? 0.299 : 0.2627;
    const double kb = isHD ? 0.0722 : isSD ? 0.114 : 0.0593;
    const double kg = 1 - kr - kb;
    const double b = 0.5 / (1 - kb);
    const double r = 0.5 / (1 - kr);
    return {{{kr, kg, kb}, {-kr * b, -kg * b, 0.5}, {0.5, -kg * r, -kb * r}}};
}
} // namespace Conf

namespace Proc {
enum class AlphaType { NonPremultiplied, AlphaIsOne, Premultiplied };
struct ColorF {
    float r, g, b, a;
};
struct ICoreTracker : RefCountImpl {
    static constexpr const char *CORE_GPU_EXCEPTION = "0", *CORE_EXCEPTION_WHAT = "1",
                                *CORE_EXCEPTION_DESCRIPTION = "2", *CORE_EXCEPTION_HRESULT = "3",
                                *CORE_EXCEPTION_MEMINFO = "4", *CORE_GPU_VENDOR = "5",
                                *CORE_GPU_DRIVER_VERSION = "6", *CORE_GPU_BRAND_STR = "7",
                                *CORE_GPU_VIDEO_MEMORY = "8";
    static boost::intrusive_ptr<ICoreTracker> GetTracker() { return new ICoreTracker; }
    void OnEvent(const char* key, const std::map<std::string, std::string>&) { std::puts(key); }
};
} // namespace Proc

namespace Core {
struct RegKey {
    bool Open(const auto&, const std::wstring&, REGSAM) { return false; }
    std::optional<std::wstring> EnumKey(unsigned) const { return {}; }
    std::optional<std::wstring> QueryString(const std::wstring&) const { return {}; }
    std::optional<std::uint64_t> QueryQword(const std::wstring&) const { return {}; }
};
} // namespace Core

} // namespace Norvex
