#include "Proc/DirectX/Manager/Annotation.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <fmt/format.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"

namespace Norvex::DX {

namespace {

// Of WKPDID_D3DDebugObjectName, which not every toolchain's libraries have.
constexpr GUID kDebugObjectName = {
    0x429b8c22, 0x9188, 0x4b0c, {0x87, 0x42, 0xac, 0xb0, 0xbf, 0x85, 0xc2, 0x00}};
constexpr UINT kAnsiEvent = 1; // how a list's event is encoded: characters with a zero

using WideName = std::array<wchar_t, kLongestName + 1>; // with a zero

WideName Widen(std::string_view name) {
    WideName wide = {};
    std::ranges::copy(name.substr(0, kLongestName), wide.begin());
    return wide;
}

template <class... Arguments>
void SetFormattedName(ID3D12Object* object, fmt::format_string<const Arguments&...> format,
                      const Arguments&... arguments) {
    std::array<char, kLongestName> name = {};
    const auto end = fmt::format_to_n(name.data(), name.size(), format, arguments...).out;
    SetName(object, std::string_view(name.data(), end));
}

std::string_view GetTypeName(D3D12_COMMAND_LIST_TYPE type) {
    constexpr std::array<std::string_view, 4> kNames = {"direct", "bundle", "compute", "copy"};
    const auto index = static_cast<std::size_t>(type);
    return index < kNames.size() ? kNames[index] : "video";
}

} // namespace

bool IsToolPresent() noexcept {
    static const bool isPresent = Debug::IsRequested() || API::GetInstance().HasGraphicsAnalysis();
    return isPresent;
}

void SetName(ID3D12Object* object, std::string_view name) noexcept {
    object->SetName(Widen(name).data());
}

void SetName(ID3D11DeviceChild* object, std::string_view name) noexcept {
    UINT size = 0;
    if (FAILED(object->GetPrivateData(kDebugObjectName, &size, nullptr)) || size == 0) {
        object->SetPrivateData(kDebugObjectName,
                               static_cast<UINT>(std::min(name.size(), kLongestName)), name.data());
    }
}

void SetName(ID3D12Object* object, D3D12_COMMAND_LIST_TYPE type, std::string_view what) noexcept {
    SetFormattedName(object, "{} {}", GetTypeName(type), what);
}

void SetName(ID3D12Object* object, std::string_view role, std::string_view what) noexcept {
    SetFormattedName(object, "{} {}", role, what);
}

void SetName(ID3D12Object* object, std::string_view what, std::uint64_t bytes) noexcept {
    constexpr std::uint64_t kKiB = 1024;
    bytes < kKiB ? SetFormattedName(object, "{} {} bytes", what, bytes)
                 : SetFormattedName(object, "{} {} KiB", what, bytes / kKiB);
}

D12DrawEvent::D12DrawEvent(ID3D12GraphicsCommandList* list, const char* name) noexcept
    : m_list(IsToolPresent() ? list : nullptr) {
    if (m_list != nullptr) {
        m_list->BeginEvent(kAnsiEvent, name, static_cast<UINT>(std::strlen(name) + 1));
    }
}

D12DrawEvent::~D12DrawEvent() {
    if (m_list != nullptr) {
        m_list->EndEvent();
    }
}

D11DrawEvent::D11DrawEvent(ID3DUserDefinedAnnotation* annotation, const char* name) noexcept
    : m_annotation(annotation) {
    if (m_annotation != nullptr) {
        m_annotation->BeginEvent(Widen(name).data());
    }
}

D11DrawEvent::~D11DrawEvent() {
    if (m_annotation != nullptr) {
        m_annotation->EndEvent();
    }
}

CComPtr<ID3DUserDefinedAnnotation> FindAnnotation(ID3D11DeviceContext* context) noexcept {
    auto annotation = Platform::Query<ID3DUserDefinedAnnotation>(context);
    if (annotation != nullptr && !IsToolPresent() && annotation->GetStatus() == FALSE) {
        annotation.Release();
    }
    return annotation;
}

} // namespace Norvex::DX
