#pragma once

// What is logged while this object lives, through a sink of the test program's own.

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/core/noncopyable.hpp>
#include <glog/logging.h>

namespace Norvex::Test {

class LogCapture : public google::LogSink, boost::noncopyable {
public:
    // Calls the function on the first line.
    explicit LogCapture(std::function<void()> onFirst = {}) : m_onFirst(std::move(onFirst)) {
        google::AddLogSink(this);
    }
    ~LogCapture() override { google::RemoveLogSink(this); }

    void send(google::LogSeverity severity, const char*, const char*, int,
              const google::LogMessageTime&, const char* message, std::size_t length) override {
        {
            const std::lock_guard guard(m_mutex);
            m_entries.push_back(google::GetLogSeverityName(severity) +
                                (": " + std::string(message, length)));
        }
        if (const auto call = std::exchange(m_onFirst, {})) {
            call();
        }
    }

    // "ERROR: and the message" each.
    std::vector<std::string> GetEntries() const {
        const std::lock_guard guard(m_mutex);
        return m_entries;
    }

private:
    std::function<void()> m_onFirst;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
};

} // namespace Norvex::Test
