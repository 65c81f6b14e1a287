// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// Many readers or one writer; a waiting writer keeps new readers out. *Thread-safe*.
///
/// Not recursive: a thread that holds it for reading and asks again while a writer waits blocks for ever.
/// Time-outs are in milliseconds as in `Mutex`; failures throw `LockException`.
///
/// Internal order: a reader takes `_writeLock`, the mutex, `_readLock`; a writer `_writeLock`, `_readLock`,
/// the mutex.
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

    /// Releases either kind. Deliberate: the kind is that of the last lock taken by anybody, not what the
    /// calling thread holds, so the thread that locks must be the one that releases. Throws "No locks"
    /// (`LockFailed`) when nothing is held.
    void Release();

private:
    Semaphore _readLock;
    Semaphore _writeLock;
    Mutex _mutex;
    int _state ZARIP_GUARDED_BY(_mutex) = 0;
    int _readers ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace zarip::osa
