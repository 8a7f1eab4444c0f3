#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <glog/logging.h>

#include "Host/CoreTracker.h"

namespace Norvex::Proc {
namespace {

using Attributes = std::map<std::string, std::string>;

struct Recorder : ICoreTracker {
    void OnEvent(const std::string& key, const Attributes& attributes) override {
        events.emplace_back(key, attributes);
    }
    std::vector<std::pair<std::string, Attributes>> events;
};

struct ErrorSink : google::LogSink {
    ErrorSink() { google::AddLogSink(this); }
    ~ErrorSink() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity severity, const char*, const char*, int, const std::tm*,
              const char* message, std::size_t length) override {
        if (severity == google::GLOG_ERROR) {
            messages.emplace_back(message, length);
        }
    }
    std::vector<std::string> messages;
};

TEST(CoreTrackerTest, DefaultWritesToTheHostsLogAndOthersReplaceIt) {
    const Attributes attributes = {{ICoreTracker::CORE_GPU_VENDOR, "Norwegian Vexels"},
                                   {ICoreTracker::CORE_EXCEPTION_HRESULT, "0x887a0005"}};
    const auto track = [&] {
        ICoreTracker::GetTracker()->OnEvent(ICoreTracker::CORE_GPU_EXCEPTION, attributes);
    };
    ErrorSink log;
    track();
    ASSERT_EQ(log.messages.size(), 1U);
    for (const char* part : {"CORE_GPU_EXCEPTION", "CORE_GPU_VENDOR", "Norwegian Vexels",
                             "CORE_EXCEPTION_HRESULT", "0x887a0005"}) {
        EXPECT_THAT(log.messages[0], testing::HasSubstr(part));
    }

    const boost::intrusive_ptr<Recorder> recorder(new Recorder);
    const auto original = ICoreTracker::SetTracker(recorder);
    track();
    EXPECT_THAT(recorder->events,
                testing::ElementsAre(testing::Pair("CORE_GPU_EXCEPTION", attributes)));
    EXPECT_EQ(log.messages.size(), 1U);

    EXPECT_EQ(ICoreTracker::SetTracker(nullptr), recorder);
    EXPECT_EQ(recorder->GetRefCount(), 1U);
    track();
    EXPECT_EQ(log.messages.size(), 2U);
    EXPECT_NE(original, nullptr);
}

} // namespace
} // namespace Norvex::Proc
