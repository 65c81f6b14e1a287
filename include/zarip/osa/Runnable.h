// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>

namespace zarip::osa {

class Thread;

/// The body of a `Thread`.
class ZARIP_EXPORT Runnable {
public:
    Runnable() = default;

    /// Deliberate: a copy belongs to no thread, while assignment takes over the thread of the source. So a
    /// copy in a container can be given to another thread.
    Runnable(const Runnable&) : _thread(nullptr) {}
    Runnable& operator=(const Runnable&) = default;

    virtual ~Runnable() = default;

    /// Does the work of the thread. *Called on the `Thread` that was made with this object*. An exception
    /// that leaves it ends the process.
    virtual void Run() = 0;

    /// Asks `Run` to return and does not wait. Called on any thread.
    virtual void Stop() = 0;

    /// Returns the thread that runs this object, *not owned*, or null.
    Thread* GetCurrentThread() const { return _thread; }

private:
    friend class Thread;
    Thread* _thread = nullptr;
};

}  // namespace zarip::osa
