#include "Proc/DirectX/Manager/D3Device.h"

#include <utility>

#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

constexpr std::pair<D3D_FEATURE_LEVEL, const char*> kLevelNames[] = {
    {D3D_FEATURE_LEVEL_9_1, "9.1"},   {D3D_FEATURE_LEVEL_9_2, "9.2"},
    {D3D_FEATURE_LEVEL_9_3, "9.3"},   {D3D_FEATURE_LEVEL_10_0, "10.0"},
    {D3D_FEATURE_LEVEL_10_1, "10.1"}, {D3D_FEATURE_LEVEL_11_0, "11.0"},
    {D3D_FEATURE_LEVEL_11_1, "11.1"}, {D3D_FEATURE_LEVEL_12_0, "12.0"},
    {D3D_FEATURE_LEVEL_12_1, "12.1"}, {D3D_FEATURE_LEVEL_12_2, "12.2"},
};

std::optional<VideoMemory> QueryMemory(IDXGIAdapter3* adapter, DXGI_MEMORY_SEGMENT_GROUP group) {
    constexpr UINT kNode = 0;
    DXGI_QUERY_VIDEO_MEMORY_INFO info = {};
    if (adapter == nullptr || FAILED(adapter->QueryVideoMemoryInfo(kNode, group, &info))) {
        return std::nullopt;
    }
    return VideoMemory{info.Budget, info.CurrentUsage, info.AvailableForReservation,
                       info.CurrentReservation};
}

} // namespace

D3Device::D3Device(std::shared_ptr<const AdapterDescription> description,
                   D3D_FEATURE_LEVEL featureLevel)
    : m_description(std::move(description)),
      m_featureLevel(featureLevel) {
    ThrowUnlessVersionFits();
}

D3Device::~D3Device() = default;

DeviceStatistics D3Device::MakeStatistics(IDXGIAdapter3* adapter) const {
    return {GetRefCount(), QueryMemory(adapter, DXGI_MEMORY_SEGMENT_GROUP_LOCAL),
            QueryMemory(adapter, DXGI_MEMORY_SEGMENT_GROUP_NON_LOCAL)};
}

std::string D3Device::GetLevelName() const {
    for (const auto& [level, name] : kLevelNames) {
        if (level == m_featureLevel) {
            return name;
        }
    }
    return {};
}

} // namespace Norvex::DX
