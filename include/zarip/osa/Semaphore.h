// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A named counting semaphore. *Thread-safe*. It may be destroyed as soon as the last waiter has returned,
/// even while the `Release` that woke it is still on its way out.
///
/// Time-outs are in milliseconds as in `Mutex`. Failures throw `LockException`.
class ZARIP_EXPORT Semaphore {
public:
    /// @param name  *not owned*: never copied, must outlive the semaphore.
    /// @param maxCount  the most units it holds.
    /// @param initialCount  the units it starts with. Mind the order: the ceiling comes first.
    Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    virtual ~Semaphore();

    /// Takes one unit; false when none became free in time.
    bool TryLock(unsigned int timeoutMs);

    /// Takes one unit; throws "Semaphore::Lock timeout after <timeoutMs>ms" (`LockTimeout`) when none became
    /// free.
    void Lock(unsigned int timeoutMs = kWaitForEver);

    /// Gives one unit back; throws "maxCount was reached" (`LockInvalid`) when all units are there already.
    void Release();

private:
    struct Context;
    std::unique_ptr<Context> _context;
};

}  // namespace zarip::osa
