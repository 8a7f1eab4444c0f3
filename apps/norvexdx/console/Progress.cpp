#include "apps/norvexdx/console/Progress.h"

#include "apps/norvexdx/console/Console.h"

namespace Norvex::App {

Progress::~Progress() {
    if (m_sinceShown) {
        Console::ShowStatus({});
    }
}

void Progress::Show(const std::function<std::string()>& makeLine) {
    constexpr double kRenewalMs = 200.0;
    const std::lock_guard lock(m_mutex);
    if (m_isShown && (!m_sinceShown || m_sinceShown->GetMilliseconds() >= kRenewalMs)) {
        m_sinceShown.emplace();
        Console::ShowStatus(makeLine());
    }
}

} // namespace Norvex::App
