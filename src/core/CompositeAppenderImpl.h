// SPDX-License-Identifier: MIT

#pragma once

#include <vector>

#include "zarip/core/CompositeAppender.h"
#include "zarip/osa/Mutex.h"

namespace zarip::core {

/// The list of a `CompositeAppender`. `*mutex` guards it, and is held while a record is delivered. An entry
/// that is removed during a delivery is dead until the delivery has ended.
struct ZARIP_HIDDEN CompositeAppender::Impl {
    struct Entry {
        const ILogAppender* appender;
        bool owned;
        /// It was removed while a record was being delivered, and is deleted afterwards.
        bool dead = false;
    };

    /// One delivery. It holds the mutex and reads the pointer to it again at the end, because a fork
    /// meanwhile replaces the mutex in the child.
    class Delivery {
    public:
        explicit Delivery(Impl* impl);
        Delivery(const Delivery&) = delete;
        Delivery& operator=(const Delivery&) = delete;
        ~Delivery();

    private:
        Impl* _impl;
    };

    Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl();

    /// Removes the dead entries. The caller deletes them without the lock, because a destructor may wait for
    /// a thread that logs. Removes nothing while the calling thread is still delivering a record further up
    /// its stack.
    std::vector<Entry> TakeDead() ZARIP_REQUIRES(*mutex);

    static void DeleteOwned(const std::vector<Entry>& entries);

    /// Called around a fork. The recursive mutex belongs to the thread of the parent and cannot be released
    /// in the child, so the child gets a new one.
    void LockForFork();
    void UnlockInParent();
    void UnlockInChild();

    osa::Mutex* mutex;
    std::vector<Entry> entries ZARIP_GUARDED_BY(*mutex);
    /// The number of nested deliveries, all of them on the thread that holds the mutex.
    int depth ZARIP_GUARDED_BY(*mutex) = 0;
    bool anyDead ZARIP_GUARDED_BY(*mutex) = false;
};

}  // namespace zarip::core
