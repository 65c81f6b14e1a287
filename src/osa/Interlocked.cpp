// SPDX-License-Identifier: MIT

#include "zarip/osa/Interlocked.h"

#include "zarip/osa/InterlockedObj.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

// Deliberate: there is no mutex. A forked child could inherit one that another thread of its parent holds,
// and would wait for ever.
int Interlocked::Increment(int& value) {
    return __atomic_add_fetch(&value, 1, __ATOMIC_SEQ_CST);
}

int Interlocked::Decrement(int& value) {
    return __atomic_sub_fetch(&value, 1, __ATOMIC_SEQ_CST);
}

InterlockedObj::InterlockedObj() : _mutex("InterlockedObj") {}

int InterlockedObj::Increment(int& value) const {
    const MutexAutoLock lock(&_mutex);
    return ++value;
}

int InterlockedObj::Decrement(int& value) const {
    const MutexAutoLock lock(&_mutex);
    return --value;
}

void InterlockedObj::Lock() const {
    _mutex.Lock();
}

void InterlockedObj::Unlock() const {
    _mutex.Release();
}

}  // namespace zarip::osa
