#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Host/CoreTracker.h"
#include "tests/support/LogCapture.h"

namespace Norvex::Proc {
namespace {

using Attributes = std::map<std::string, std::string>;

struct Recorder : ICoreTracker {
    void OnEvent(const std::string& key, const Attributes& attributes) override {
        events.emplace_back(key, attributes);
    }
    std::vector<std::pair<std::string, Attributes>> events;
};

TEST(CoreTrackerTest, DefaultWritesToTheHostsLogAndOthersReplaceIt) {
    const Attributes attributes = {{ICoreTracker::CORE_GPU_VENDOR, "Norwegian Vexels"},
                                   {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a0005"}};
    const auto track = [&] {
        ICoreTracker::GetTracker()->OnEvent(ICoreTracker::CORE_GPU_EXCEPTION, attributes);
    };
    const Norvex::Test::LogCapture log;
    track();
    for (const char* part : {"CORE_GPU_EXCEPTION", "CORE_GPU_VENDOR", "Norwegian Vexels",
                             "CORE_EXCEPTION_HRESULT", "0x887a0005"}) {
        EXPECT_EQ(log.Count(google::GLOG_ERROR, part), 1) << part;
    }

    const boost::intrusive_ptr<Recorder> recorder(new Recorder);
    const auto original = ICoreTracker::SetTracker(recorder);
    track();
    EXPECT_THAT(recorder->events,
                testing::ElementsAre(testing::Pair("CORE_GPU_EXCEPTION", attributes)));
    EXPECT_EQ(log.GetEntries().size(), 1U);

    EXPECT_EQ(ICoreTracker::SetTracker(nullptr), recorder);
    EXPECT_EQ(recorder->GetRefCount(), 1U);
    track();
    EXPECT_EQ(log.Count(google::GLOG_ERROR, "CORE_GPU_EXCEPTION"), 2);
    EXPECT_NE(original, nullptr);
}

} // namespace
} // namespace Norvex::Proc
