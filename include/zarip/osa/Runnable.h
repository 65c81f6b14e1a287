// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

class Thread;

/// The body of a `Thread`.
class ZARIP_EXPORT Runnable {
public:
    Runnable() = default;

    /// Deliberate: a copy belongs to no thread, while assignment takes over the thread of the source. A body
    /// that is copied into a container may so be handed to a thread of its own.
    Runnable(const Runnable&) : _thread(nullptr) {}
    Runnable& operator=(const Runnable&) = default;

    virtual ~Runnable() = default;

    /// The body; *called on the thread that owns this object*. What it throws ends the process.
    virtual void Run() = 0;

    /// Asks the body to finish; called on any thread, does not wait.
    virtual void Stop() = 0;

    /// The thread that runs this object, *not owned*; null while there is none.
    Thread* GetCurrentThread() const { return _thread; }

private:
    friend class Thread;
    Thread* _thread = nullptr;
};

}  // namespace zarip::osa
