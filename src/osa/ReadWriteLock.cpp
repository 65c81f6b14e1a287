// SPDX-License-Identifier: MIT

#include "zarip/osa/ReadWriteLock.h"

#include "zarip/osa/LockException.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

namespace {

enum State { kUnlocked = 0, kReadLocked = 1, kWriteLocked = 2 };

/// Gives one unit back at the end of the scope, also if an exception leaves it.
class Unit {
public:
    explicit Unit(Semaphore* semaphore) : _semaphore(semaphore) {}
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;
    ~Unit() {
        if (_semaphore != nullptr) {
            try {
                _semaphore->Release();
            } catch (...) {
                // This scope has taken the unit, so there is room for it. A destructor must not throw.
            }
        }
    }
    void Keep() { _semaphore = nullptr; }

private:
    Semaphore* _semaphore;
};

}  // namespace

ReadWriteLock::ReadWriteLock(const char* name)
    : _readLock("_readLock", 1, 1), _writeLock("_writeLock", 1, 1), _mutex(name) {}

ReadWriteLock::~ReadWriteLock() = default;

void ReadWriteLock::ReadLock(unsigned int timeoutMs) {
    _writeLock.Lock(timeoutMs);
    const Unit turn(&_writeLock);
    const MutexAutoLock lock(&_mutex);
    if (_readers == 0) {
        _readLock.Lock(kWaitForEver);
    }
    ++_readers;
    _state = kReadLocked;
}

void ReadWriteLock::WriteLock(unsigned int timeoutMs) {
    _writeLock.Lock(timeoutMs);
    Unit turn(&_writeLock);
    _readLock.Lock(timeoutMs);
    const Unit readersTurn(&_readLock);
    const MutexAutoLock lock(&_mutex);
    _state = kWriteLocked;
    turn.Keep();
}

void ReadWriteLock::Release() {
    const MutexAutoLock lock(&_mutex);
    switch (_state) {
        case kWriteLocked:
            _state = kUnlocked;
            _writeLock.Release();
            break;
        case kReadLocked:
            if (--_readers < 0) {
                throw LockException("UNKNOWN ERROR", LockException::LockFailed);
            }
            if (_readers == 0) {
                _state = kUnlocked;
                _readLock.Release();
            }
            break;
        default:
            throw LockException("No locks", LockException::LockFailed);
    }
}

}  // namespace zarip::osa
