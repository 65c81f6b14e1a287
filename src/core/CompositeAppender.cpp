// SPDX-License-Identifier: MIT

#include "zarip/core/CompositeAppender.h"

#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "core/AppenderGuard.h"
#include "core/CompositeAppenderImpl.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::core {

namespace {

constexpr const char* kMutexName = "CompositeAppender";

}  // namespace

CompositeAppender::Impl::Impl() : mutex(new osa::Mutex(kMutexName)) {}

CompositeAppender::Impl::~Impl() {
    delete mutex;
}

std::vector<CompositeAppender::Impl::Entry> CompositeAppender::Impl::TakeDead() {
    std::vector<Entry> taken;
    if (!anyDead || depth > 0) {
        return taken;
    }
    taken.reserve(entries.size());
    const auto isDead = [](const Entry& entry) { return entry.dead; };
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(taken), isDead);
    entries.erase(std::remove_if(entries.begin(), entries.end(), isDead), entries.end());
    anyDead = false;
    return taken;
}

void CompositeAppender::Impl::DeleteOwned(const std::vector<Entry>& entries) {
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const auto isSame = [&](const Entry& earlier) {
            return earlier.owned && earlier.appender == entry->appender;
        };
        // An appender that was added twice is deleted once.
        if (entry->owned && std::none_of(entries.begin(), entry, isSame)) {
            delete entry->appender;
        }
    }
}

CompositeAppender::Impl::Delivery::Delivery(Impl* impl) ZARIP_NO_THREAD_SAFETY_ANALYSIS : _impl(impl) {
    _impl->mutex->Lock();
    ++_impl->depth;
}

CompositeAppender::Impl::Delivery::~Delivery() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    --_impl->depth;
    std::vector<Entry> dead;
    if (__builtin_expect(_impl->anyDead, false)) {
        try {
            dead = _impl->TakeDead();
        } catch (...) {
            // There is no memory, so they are deleted after the next record.
        }
    }
    try {
        _impl->mutex->Release();
    } catch (...) {
        // This thread holds the mutex, so releasing it cannot fail.
    }
    if (__builtin_expect(!dead.empty(), false)) {
        DeleteOwned(dead);
    }
}

void CompositeAppender::Impl::LockForFork() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    mutex->Lock();
}

void CompositeAppender::Impl::UnlockInParent() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    mutex->Release();
}

void CompositeAppender::Impl::UnlockInChild() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    // The old mutex is not destroyed, because it is held.
    mutex = new osa::Mutex(kMutexName);
    for (int i = 0; i < depth; ++i) {
        mutex->Lock();  // if an appender has forked, the deliveries further up the stack release it
    }
}

CompositeAppender::CompositeAppender() : _impl(std::make_unique<Impl>()) {}

CompositeAppender::~CompositeAppender() {
    try {
        Clear();
    } catch (...) {
        // A destructor must not throw.
    }
}

void CompositeAppender::AddAppender(const ILogAppender* appender, bool owned) {
    std::unique_ptr<const ILogAppender> holder(owned ? appender : nullptr);
    const osa::MutexAutoLock lock(_impl->mutex);
    _impl->entries.push_back({appender, owned});
    static_cast<void>(holder.release());
}

bool CompositeAppender::RemoveAppender(const ILogAppender* appender) {
    const osa::MutexAutoLock lock(_impl->mutex);
    const auto entry = std::find_if(
        _impl->entries.begin(), _impl->entries.end(),
        [&](const Impl::Entry& candidate) { return candidate.appender == appender && !candidate.dead; });
    if (entry == _impl->entries.end()) {
        return false;
    }
    if (_impl->depth == 0) {
        _impl->entries.erase(entry);
    } else {
        entry->owned = false;
        entry->dead = true;
        _impl->anyDead = true;
    }
    return true;
}

void CompositeAppender::Clear() {
    std::vector<Impl::Entry> removed;
    {
        const osa::MutexAutoLock lock(_impl->mutex);
        if (_impl->depth == 0) {
            removed.swap(_impl->entries);
        } else {
            for (Impl::Entry& entry : _impl->entries) {
                entry.dead = true;
            }
            _impl->anyDead = true;
        }
    }
    Impl::DeleteOwned(removed);
}

void CompositeAppender::AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                                const char* format, va_list args) const ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    const int savedErrno = errno;
    AppenderGuard::Exempt(this);
    const Impl::Delivery delivery(_impl.get());
    // The loop uses an index, because an appender may add others, which get the next record.
    for (std::size_t i = 0, end = _impl->entries.size(); i < end; ++i) {
        const Impl::Entry entry = _impl->entries[i];
        AppenderGuard guard(entry.appender);
        if (entry.dead || !guard.MayRun()) {
            continue;
        }
        va_list copy;
        va_copy(copy, args);
        try {
            errno = savedErrno;
            entry.appender->AppendV(level, threadName, loggerName, format, copy);
        } catch (const abi::__forced_unwind&) {
            va_end(copy);
            throw;
        } catch (...) {
            // The other appenders still get the record.
        }
        va_end(copy);
    }
}

}  // namespace zarip::core
