#include <gmock/gmock.h>

#include "Host/CoreTracker.h"
#include "tests/support/LogCapture.h"

namespace Norvex::Proc {
namespace {

using Attributes = std::map<std::string, std::string>;

struct RecordingTracker : ICoreTracker {
    void OnEvent(const std::string& key, const Attributes& attributes) override {
        events.emplace_back(key, attributes);
    }
    std::vector<std::pair<std::string, Attributes>> events;
};

TEST(CoreTrackerTest, DefaultWritesToTheHostsLogAndOthersReplaceIt) {
    const Attributes attributes = {{ICoreTracker::CORE_GPU_VENDOR, "Norwegian Vexels"},
                                   {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a0005"}};
    const boost::intrusive_ptr<RecordingTracker> recorder(new RecordingTracker);
    const Norvex::Test::LogCapture log;
    for (const boost::intrusive_ptr<ICoreTracker>& tracker :
         {boost::intrusive_ptr<ICoreTracker>(), boost::intrusive_ptr<ICoreTracker>(recorder)}) {
        ICoreTracker::SetTracker(tracker);
        ICoreTracker::GetTracker()->OnEvent(ICoreTracker::CORE_GPU_EXCEPTION, attributes);
    }
    EXPECT_EQ(ICoreTracker::SetTracker(nullptr), recorder);
    EXPECT_EQ(recorder->GetRefCount(), 1U);
    EXPECT_THAT(log.GetEntries(), testing::ElementsAre("ERROR: CORE_GPU_EXCEPTION\n"
                                                       "  CORE_EXCEPTION_HRESULT = 0x887a0005\n"
                                                       "  CORE_GPU_VENDOR = Norwegian Vexels"));
    EXPECT_THAT(recorder->events,
                testing::ElementsAre(testing::Pair("CORE_GPU_EXCEPTION", attributes)));
}

} // namespace
} // namespace Norvex::Proc
