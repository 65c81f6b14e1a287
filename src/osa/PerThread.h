// SPDX-License-Identifier: MIT

#pragma once

#include <pthread.h>

namespace zarip::osa {

/// A pointer for each thread, and a function that is called with it when the thread ends, after the
/// destructors of `thread_local` objects. *Thread-safe*. It is an object of the whole process and never
/// destroyed.
///
/// A `thread_local` object with a destructor would be simpler, but the C library ends the process if it has
/// no memory to register the destructor. Here the pointer is refused instead.
template <class T>
class PerThread {
public:
    explicit PerThread(void (*end)(void*)) : _hasKey(::pthread_key_create(&_key, end) == 0) {}
    PerThread(const PerThread&) = delete;
    PerThread& operator=(const PerThread&) = delete;

    /// Null at first.
    T* Get() const { return _hasKey ? static_cast<T*>(::pthread_getspecific(_key)) : nullptr; }
    /// False if there is no memory for it.
    bool Set(T* value) const { return _hasKey && ::pthread_setspecific(_key, value) == 0; }

private:
    pthread_key_t _key{};
    bool _hasKey;
};

}  // namespace zarip::osa
