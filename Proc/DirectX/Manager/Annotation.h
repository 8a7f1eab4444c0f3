#pragma once

// What graphics debuggers show of the library, internal: names of its Direct3D objects, and events
// around its draws. What is made once, or pooled, always has its name; what every frame makes anew,
// and events, are there for a tool alone. What the system refuses here is missing, and nobody is
// told. Any thread, events as what they are recorded on. Nothing throws or allocates.

#include <cstdint>
#include <string_view>

#include "Platform/ComPtr.h"
#include "Platform/Direct3D.h"

namespace Norvex::DX {

// Whether debug mode is on or a graphics debugger has the process. Asked once, by the first object.
bool IsToolPresent() noexcept;

// In ASCII; what is longer than kLongestName is cut. An object of Direct3D 11 keeps the name that
// it has: equal states are one object there, and it may be the host's.
inline constexpr std::size_t kLongestName = 63;
void SetName(ID3D12Object* object, std::string_view name) noexcept;
void SetName(ID3D11DeviceChild* object, std::string_view name) noexcept;
// "direct command list"
void SetName(ID3D12Object* object, D3D12_COMMAND_LIST_TYPE type, std::string_view what) noexcept;
// "image draw pipeline state"
void SetName(ID3D12Object* object, std::string_view role, std::string_view what) noexcept;
// "readback buffer 64 KiB"
void SetName(ID3D12Object* object, std::string_view what, std::uint64_t bytes) noexcept;

// While it lives, what is recorded belongs to the event. Null: nothing.
class D12DrawEvent {
public:
    D12DrawEvent(ID3D12GraphicsCommandList* list, const char* name) noexcept;
    ~D12DrawEvent();
    D12DrawEvent(const D12DrawEvent&) = delete;
    D12DrawEvent& operator=(const D12DrawEvent&) = delete;

private:
    ID3D12GraphicsCommandList* m_list; // null without a tool
};

class D11DrawEvent {
public:
    D11DrawEvent(ID3DUserDefinedAnnotation* annotation, const char* name) noexcept;
    ~D11DrawEvent();
    D11DrawEvent(const D11DrawEvent&) = delete;
    D11DrawEvent& operator=(const D11DrawEvent&) = delete;

private:
    ID3DUserDefinedAnnotation* m_annotation;
};

// Of a context; null where no tool listens.
CComPtr<ID3DUserDefinedAnnotation> FindAnnotation(ID3D11DeviceContext* context) noexcept;

} // namespace Norvex::DX
