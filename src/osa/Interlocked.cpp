#include "zarip/osa/Interlocked.h"

#include "zarip/osa/InterlockedObj.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

namespace {

/// Never destroyed: threads that are still alive at exit may count.
Mutex& InterlockedMutex() {
    static Mutex* const mutex = new Mutex("InterlockedMutex");
    return *mutex;
}

}  // namespace

int Interlocked::Increment(int& value) {
    const MutexAutoLock lock(&InterlockedMutex());
    return ++value;
}

int Interlocked::Decrement(int& value) {
    const MutexAutoLock lock(&InterlockedMutex());
    return --value;
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
