#include "Host/CoreTracker.h"

#include <memory>
#include <mutex>
#include <utility>

#include <glog/logging.h>

namespace Norvex::Proc {

// Constants that hosts name as members; their constructors only copy a text.
const std::string ICoreTracker::CORE_GPU_EXCEPTION = "CORE_GPU_EXCEPTION";
const std::string ICoreTracker::CORE_EXCEPTION_WHAT = "CORE_EXCEPTION_WHAT";
const std::string ICoreTracker::CORE_EXCEPTION_DESCRIPTION = "CORE_EXCEPTION_DESCRIPTION";
const std::string ICoreTracker::CORE_EXCEPTION_HRESULT = "CORE_EXCEPTION_HRESULT";
const std::string ICoreTracker::CORE_EXCEPTION_MEMINFO = "CORE_EXCEPTION_MEMINFO";
const std::string ICoreTracker::CORE_GPU_VENDOR = "CORE_GPU_VENDOR";
const std::string ICoreTracker::CORE_GPU_DRIVER_VERSION = "CORE_GPU_DRIVER_VERSION";
const std::string ICoreTracker::CORE_GPU_BRAND_STR = "CORE_GPU_BRAND_STR";
const std::string ICoreTracker::CORE_GPU_VIDEO_MEMORY = "CORE_GPU_VIDEO_MEMORY";

namespace {

class LogTracker final : public ICoreTracker {
public:
    void OnEvent(const std::string& key,
                 const std::map<std::string, std::string>& attributes) override {
        google::LogMessage message(__FILE__, __LINE__, google::GLOG_ERROR);
        message.stream() << key;
        for (const auto& [name, value] : attributes) {
            message.stream() << "\n  " << name << " = " << value;
        }
    }
};

struct TrackerSlot {
    std::mutex mutex;
    boost::intrusive_ptr<ICoreTracker> tracker{new LogTracker};
};

TrackerSlot& GetSlot() {
    // Never destroyed: an exception may be tracked while the process ends.
    static TrackerSlot* const slot = std::make_unique<TrackerSlot>().release();
    return *slot;
}

} // namespace

boost::intrusive_ptr<ICoreTracker> ICoreTracker::GetTracker() {
    TrackerSlot& slot = GetSlot();
    const std::scoped_lock lock(slot.mutex);
    return slot.tracker;
}

boost::intrusive_ptr<ICoreTracker>
ICoreTracker::SetTracker(boost::intrusive_ptr<ICoreTracker> tracker) {
    if (!tracker) {
        tracker = new LogTracker;
    }
    TrackerSlot& slot = GetSlot();
    const std::scoped_lock lock(slot.mutex);
    return std::exchange(slot.tracker, std::move(tracker));
}

} // namespace Norvex::Proc
