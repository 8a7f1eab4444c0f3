#pragma once

// The process-wide background threads that wait for submitted GPU work and release what it used;
// internal. While tasks or threads exist the library holds a reference on its own module, so that
// FreeLibrary cannot take the code away under them; DrainDispatchThreads gives it back. Any thread,
// except that a task must not drain. Throws as DispatchQueue.

#include <functional>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Host/RefCountable.h"

namespace Norvex::DX {

// Calls function(object) on a background thread and then drops the object. What it throws is
// logged.
void QueueDispatchTask(boost::intrusive_ptr<IRefCountable> object,
                       std::function<void(IRefCountable&)> function);

// Returns when all queued tasks have run and the threads have ended.
void DrainDispatchThreads();

// When the library is detached: unloaded (no thread lives then), or because the process ends.
void ReleaseDispatchThreads(bool processEnds);

} // namespace Norvex::DX
