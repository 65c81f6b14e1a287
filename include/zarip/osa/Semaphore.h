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
    /// @param initialCount  the units it starts with. The maximum comes first in the list of parameters.
    Semaphore(const char* name, unsigned short maxCount, unsigned short initialCount);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    virtual ~Semaphore();

    /// Takes one unit. False if the time-out passes before a unit is free.
    bool TryLock(unsigned int timeoutMs);

    /// Takes one unit; throws "Semaphore::Lock timeout after <timeoutMs>ms" (`LockTimeout`) if the time-out
    /// passes before a unit is free.
    void Lock(unsigned int timeoutMs = kWaitForEver);

    /// Gives one unit back. Throws "maxCount was reached" (`LockInvalid`) if the semaphore holds `maxCount`
    /// units already.
    void Release();

private:
    struct Context;
    std::unique_ptr<Context> _context;
};

}  // namespace zarip::osa
