#include "Proc/DirectX/Manager/LiveObject.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/core/demangle.hpp>
#include <fmt/format.h>

#include "Host/CallStack.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"

namespace Norvex::DX {

namespace {

struct LiveObjects {
    Platform::Mutex lock;
    std::unordered_map<const LiveObject*, CallStack> births;
};

// Constant-initialised: objects may be made before main.
constinit std::atomic<bool> isRemembering{false};

LiveObjects& GetObjects() {
    // Never destroyed: objects may go while the process ends.
    static LiveObjects* const objects = std::make_unique<LiveObjects>().release();
    return *objects;
}

// Out of memory it is not listed.
void Remember(const LiveObject* object) noexcept {
    if (!isRemembering.load(std::memory_order_relaxed)) {
        return;
    }
    try {
        const CallStack stack = CaptureCallStack();
        LiveObjects& objects = GetObjects();
        const std::scoped_lock lock(objects.lock);
        objects.births.emplace(object, stack);
    } catch (const std::bad_alloc&) {
        return;
    }
}

// "D12Buffer". While its last reference goes on another thread, an object is of a base class.
std::string NameOf(const LiveObject& object) {
    const std::string name = boost::core::demangle(typeid(object).name());
    const std::size_t scope = name.rfind("::");
    return scope != std::string::npos ? name.substr(scope + 2) : name;
}

std::string Indented(const std::string& text) {
    std::string lines = "  ";
    for (const char c : text) {
        lines += c;
        lines += c == '\n' ? "  " : "";
    }
    return lines;
}

} // namespace

LiveObject::LiveObject() noexcept {
    Remember(this);
}

LiveObject::LiveObject(const LiveObject& other) noexcept : RefCountImpl(other) {
    Remember(this);
}

LiveObject::~LiveObject() {
    if (isRemembering.load(std::memory_order_relaxed)) {
        LiveObjects& objects = GetObjects();
        const std::scoped_lock lock(objects.lock);
        objects.births.erase(this);
    }
}

void RememberLiveObjects() {
    isRemembering = true;
}

std::string DescribeLiveObjects() {
    using Birth = std::pair<std::string, CallStack>;
    std::map<Birth, std::size_t> counts;
    std::size_t count = 0;
    {
        LiveObjects& objects = GetObjects();
        const std::scoped_lock lock(objects.lock);
        count = objects.births.size();
        for (const auto& [object, stack] : objects.births) {
            ++counts[Birth(NameOf(*object), stack)];
        }
    }
    std::vector<std::pair<std::size_t, const Birth*>> order;
    order.reserve(counts.size());
    for (const auto& [birth, number] : counts) {
        order.emplace_back(number, &birth);
    }
    std::ranges::stable_sort(order, std::ranges::greater(),
                             &std::pair<std::size_t, const Birth*>::first);
    std::string text;
    if (isRemembering) {
        text = fmt::format("{} live objects, made at {} places", count, order.size());
    }
    for (const auto& [number, birth] : order) {
        text += fmt::format("\n{} x {}\n{}", number, birth->first,
                            Indented(FormatCallStack(birth->second)));
    }
    return text;
}

} // namespace Norvex::DX
