#include "Proc/DirectX/Manager/DispatchThreads.h"

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "Core/Threading/DispatchQueue.h"
#include "Platform/Direct3D.h"
#include "Platform/Mutex.h"
#include "Proc/DirectX/Manager/Throw.h"

namespace Norvex::DX {

namespace {

struct DispatchThreads {
    DispatchThreads()
        : queue([](const std::exception_ptr& error) {
              try {
                  std::rethrow_exception(error);
              } catch (...) {
                  LogCurrentException("A completion task failed");
              }
          }) {
        queue.SetPoolFunction([this] { queue.RunTasks(); });
    }

    Core::DispatchQueue queue;
    Platform::Mutex
        moduleLock; // held over Push, so that the module is not given back between the two
    HMODULE module = nullptr; // this library, while threads may run its code
};

// Released at process exit, not destroyed: by then the system has killed the threads, wherever they
// were, and waiting for them would wait for ever.
std::unique_ptr<DispatchThreads>& GetStorage() {
    static std::unique_ptr<DispatchThreads> storage;
    return storage;
}

DispatchThreads& GetThreads() {
    static std::once_flag once;
    std::call_once(once, [] { GetStorage() = std::make_unique<DispatchThreads>(); });
    return *GetStorage();
}

HMODULE ReferenceOwnModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(&ReferenceOwnModule), &module);
    return module;
}

} // namespace

void QueueDispatchTask(boost::intrusive_ptr<IRefCountable> object,
                       std::function<void(IRefCountable&)> function) {
    DispatchThreads& threads = GetThreads();
    const std::lock_guard guard(threads.moduleLock);
    if (threads.module == nullptr) {
        threads.module = ReferenceOwnModule();
    }
    threads.queue.Push(std::move(object), std::move(function));
}

void DrainDispatchThreads() {
    DispatchThreads& threads = GetThreads();
    threads.queue.Drain();
    const std::lock_guard guard(threads.moduleLock);
    const auto counts = threads.queue.GetCounts();
    if (threads.module != nullptr && counts.threads == 0 && counts.queued == 0) {
        // Not the last reference: the caller holds one.
        FreeLibrary(std::exchange(threads.module, nullptr));
    }
}

void ReleaseDispatchThreads(bool processEnds) {
    if (processEnds) {
        [[maybe_unused]] const auto* abandoned = GetStorage().release();
    } else {
        GetStorage().reset();
    }
}

} // namespace Norvex::DX
