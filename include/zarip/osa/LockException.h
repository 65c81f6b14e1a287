// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::osa {

/// A failed operation of a `Mutex`, `Semaphore` or `ReadWriteLock`.
class ZARIP_EXPORT LockException : public Exception {
public:
    enum LockError {
        LockFailed = 0,   ///< a failure that is neither a time-out nor misuse
        LockTimeout = 1,  ///< the time-out has passed
        LockInvalid = 2,  ///< the object or the call is invalid
    };

    LockException(const std::string& message, LockError code);
    LockException(const LockException& other);
    LockException& operator=(const LockException& other);
    ~LockException() override;

    LockError GetError() const { return _error; }

private:
    LockError _error;
};

}  // namespace zarip::osa
