// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// Many readers or one writer; a waiting writer keeps new readers out. *Thread-safe*.
///
/// The lock is not recursive: if a thread holds it for reading and asks again while a writer waits, both
/// block for ever. Time-outs are in milliseconds as in `Mutex`; failures throw `LockException`.
///
/// Internally a reader takes `_writeLock`, the mutex and `_readLock` in this order; a writer takes
/// `_writeLock`, `_readLock` and the mutex.
class ZARIP_EXPORT ReadWriteLock {
public:
    /// @param name  *not owned*: never copied, must outlive the lock.
    explicit ReadWriteLock(const char* name);
    ReadWriteLock(const ReadWriteLock&) = delete;
    ReadWriteLock& operator=(const ReadWriteLock&) = delete;
    virtual ~ReadWriteLock();

    void ReadLock(unsigned int timeoutMs = kWaitForEver);

    /// Waits for other writers and then for readers, up to `timeoutMs` each.
    void WriteLock(unsigned int timeoutMs = kWaitForEver);

    /// Releases either kind. Deliberate: the kind is that of the last lock that any thread has taken, not of
    /// the lock that the calling thread holds. So the thread that locks must be the one that releases. Throws
    /// "No locks" (`LockFailed`) if nothing is held.
    void Release();

private:
    Semaphore _readLock;
    Semaphore _writeLock;
    Mutex _mutex;
    int _state ZARIP_GUARDED_BY(_mutex) = 0;
    int _readers ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::osa
