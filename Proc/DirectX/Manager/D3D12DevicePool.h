#pragma once

// Idle objects by command list type, for reuse: the last returned is the first reused. What was
// idle all through the last kWindow returns of its type is let go, so that a pool shrinks again
// after a time of more work at once than usual, and steady work makes nothing new. Internal; any
// thread.

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Direct3D.h"
#include "Platform/Mutex.h"

namespace Norvex::DX {

template <class T>
class D12DevicePool {
public:
    static constexpr unsigned kWindow = 256;

    std::optional<T> Take(D3D12_COMMAND_LIST_TYPE type) {
        std::optional<T> taken;
        TakeIf(type, [&taken](T& object) {
            taken.emplace(std::move(object));
            return true;
        });
        return taken;
    }

    // Offers the next object to accept(T&), which runs under the lock; takes it out when that says
    // true. False also when none is idle.
    template <class Accept>
    bool TakeIf(D3D12_COMMAND_LIST_TYPE type, const Accept& accept) {
        const std::lock_guard guard(m_lock);
        Stack& stack = m_stacks[type];
        if (stack.idle.empty() || !accept(stack.idle.back())) {
            return false;
        }
        stack.idle.pop_back();
        stack.alwaysIdle = std::min(stack.alwaysIdle, stack.idle.size());
        return true;
    }

    void Put(D3D12_COMMAND_LIST_TYPE type, T&& object) {
        std::vector<T> surplus; // released after the lock
        const std::lock_guard guard(m_lock);
        Stack& stack = m_stacks[type];
        if (++stack.returns >= kWindow) {
            surplus.reserve(stack.alwaysIdle);
            const auto end = stack.idle.begin() + static_cast<std::ptrdiff_t>(stack.alwaysIdle);
            std::move(stack.idle.begin(), end, std::back_inserter(surplus));
            stack.idle.erase(stack.idle.begin(), end);
            stack.alwaysIdle = stack.idle.size();
            stack.returns = 0;
        }
        stack.idle.push_back(std::move(object));
    }

    std::size_t Count() const {
        const std::lock_guard guard(m_lock);
        std::size_t count = 0;
        for (const auto& [type, stack] : m_stacks) {
            count += stack.idle.size();
        }
        return count;
    }

private:
    struct Stack {
        std::vector<T> idle;
        std::size_t alwaysIdle = 0; // of them, since the window began: the lowest ones
        unsigned returns = 0;       // since the window began
    };

    mutable Platform::Mutex m_lock;
    std::unordered_map<D3D12_COMMAND_LIST_TYPE, Stack> m_stacks;
};

} // namespace Norvex::DX
