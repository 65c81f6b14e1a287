// SPDX-License-Identifier: MIT

#pragma once

#include <vector>

#include "zarip/core/CompositeAppender.h"
#include "zarip/osa/Mutex.h"

namespace zarip::core {

struct ZARIP_HIDDEN CompositeAppender::Impl {
    struct Entry {
        const ILogAppender* appender;
        bool owned;
        /// Removed while a record was being delivered; goes when that has ended.
        bool dead = false;
    };

    /// One delivery: holds the mutex, and looks it up again at the end, since a fork in between replaces it
    /// in the child.
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

    /// Takes out the dead entries, for the caller to delete without the lock: a destructor may wait for a
    /// thread that logs. Takes none while the calling thread is still delivering a record further up its
    /// stack.
    std::vector<Entry> TakeDead() ZARIP_REQUIRES(*mutex);

    static void DeleteOwned(const std::vector<Entry>& entries);

    /// Around a fork. A recursive mutex belongs to the thread id of the parent, which the child cannot
    /// release, so the child gets a new one.
    void LockForFork();
    void UnlockInParent();
    void UnlockInChild();

    osa::Mutex* mutex;
    std::vector<Entry> entries ZARIP_GUARDED_BY(*mutex);
    /// Deliveries under way, all of them on the thread that holds the mutex.
    int depth ZARIP_GUARDED_BY(*mutex) = 0;
    bool anyDead ZARIP_GUARDED_BY(*mutex) = false;
};

}  // namespace zarip::core
