// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A lock that many readers or one writer hold. While a writer waits, new readers wait, too. *Thread-safe*.
///
/// The lock is not recursive: if a thread holds it for reading and takes it again while a writer waits, both
/// block for ever. Time-outs are in milliseconds as in `Mutex`. Failures throw `LockException`.
///
/// Internally a reader takes `_writeLock`, the mutex and `_readLock` in this order; a writer takes
/// `_writeLock`, `_readLock` and the mutex.
class ZARIP_EXPORT ReadWriteLock {
public:
    /// @param name  *not owned*, never copied, must outlive the lock.
    explicit ReadWriteLock(const char* name);
    ReadWriteLock(const ReadWriteLock&) = delete;
    ReadWriteLock& operator=(const ReadWriteLock&) = delete;
    virtual ~ReadWriteLock();

    void ReadLock(unsigned int timeoutMs = kWaitForEver);

    /// Waits for other writers and then for readers, up to `timeoutMs` each.
    void WriteLock(unsigned int timeoutMs = kWaitForEver);

    /// Releases a lock of either kind. The thread that has taken the lock must release it. Deliberate: the
    /// object does not record which thread holds it, so it releases the kind that was taken last. Throws "No
    /// locks" (`LockFailed`) if nothing is held.
    void Release();

private:
    Semaphore _readLock;
    Semaphore _writeLock;
    Mutex _mutex;
    int _state ZARIP_GUARDED_BY(_mutex) = 0;
    int _readers ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::osa
