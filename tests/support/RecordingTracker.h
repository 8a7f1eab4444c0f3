#pragma once

// A host's tracker that keeps what it is told, and then throws where a test wants it to.

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Host/CoreTracker.h"

namespace Norvex::Test {

struct RecordingTracker : Proc::ICoreTracker {
    using Attributes = std::map<std::string, std::string>;

    void OnEvent(const std::string& key, const Attributes& attributes) override {
        events.emplace_back(key, attributes);
        if (isThrowing) {
            throw std::runtime_error("tracker is offline");
        }
    }

    std::vector<std::pair<std::string, Attributes>> events;
    bool isThrowing = false;
};

} // namespace Norvex::Test
