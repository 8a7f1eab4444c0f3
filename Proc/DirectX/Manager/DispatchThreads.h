#pragma once

// The process-wide background that releases what the GPU has finished with, internal. A task of the
// dispatch queue looks after the submissions of all queues: each queue's oldest has its fence set
// one event when it is done, the task wakes, lets go of everything that is complete, and stays for
// the next. While threads may run the library holds a reference on its own module, so that
// FreeLibrary cannot take the code away under them; DrainDispatchThreads gives it back. Any thread.
// Throws as DispatchQueue.

#include <cstdint>
#include <list>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"
#include "Platform/ComPtr.h"

namespace Norvex::DX {

class DispatchThreads;

// What one queue was given and nobody in the background has released yet, in the order in which it
// is done.
class SubmissionsInFlight {
public:
    // `object` is held until the fence has reached the value, and then told to release what it has
    // used.
    struct Submission {
        boost::intrusive_ptr<IRefCountable> object;
        CComPtr<ID3D12Fence> fence;
        std::uint64_t value = 0;
        void (*release)(IRefCountable& object) = nullptr;
    };
    using Room = std::list<Submission>;

    // std::system_error when the system gives no event.
    SubmissionsInFlight();
    // There are none: each keeps what owns this.
    ~SubmissionsInFlight();
    SubmissionsInFlight(const SubmissionsInFlight&) = delete;
    SubmissionsInFlight& operator=(const SubmissionsInFlight&) = delete;

    // Memory for one, to be had before the queue takes the work. std::bad_alloc.
    Room MakeRoom();
    // False when it is done already: it is the caller's to release. Wakes no thread, and starts one
    // only where none has looked for long; std::system_error and std::bad_alloc when there is none
    // leave the submission added: the next Add, or a drain, sees to it.
    bool Add(Room room, Submission submission);

private:
    friend class DispatchThreads;

    DispatchThreads& m_threads;
    Room m_list;
    bool m_isAwaited = false; // the first one's fence will set the event
};

// Returns when everything submitted was released and the threads have ended. Not from a release.
void DrainDispatchThreads();

// When the library is detached: unloaded (no thread lives then), or because the process ends.
void ReleaseDispatchThreads(bool processEnds);

} // namespace Norvex::DX
