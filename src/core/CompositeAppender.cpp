// SPDX-License-Identifier: MIT

#include "zarip/core/CompositeAppender.h"

#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "core/AppenderGuard.h"
#include "core/CompositeAppenderBody.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::core {

namespace {

constexpr const char* kMutexName = "CompositeAppender";

}  // namespace

CompositeAppender::Body::Body() : mutex(new osa::Mutex(kMutexName)) {}

CompositeAppender::Body::~Body() {
    delete mutex;
}

std::vector<CompositeAppender::Body::Entry> CompositeAppender::Body::TakeDead() {
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

void CompositeAppender::Body::DeleteOwned(const std::vector<Entry>& entries) {
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        const auto isSame = [&](const Entry& earlier) {
            return earlier.owned && earlier.appender == entry->appender;
        };
        // An appender that was added twice goes once.
        if (entry->owned && std::none_of(entries.begin(), entry, isSame)) {
            delete entry->appender;
        }
    }
}

CompositeAppender::Body::Delivery::Delivery(Body* body) ZARIP_NO_THREAD_SAFETY_ANALYSIS : _body(body) {
    _body->mutex->Lock();
    ++_body->depth;
}

CompositeAppender::Body::Delivery::~Delivery() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    --_body->depth;
    std::vector<Entry> dead;
    if (__builtin_expect(_body->anyDead, false)) {
        try {
            dead = _body->TakeDead();
        } catch (...) {
            // No memory: they go after the next record.
        }
    }
    try {
        _body->mutex->Release();
    } catch (...) {
        // Held by this thread, so there is nothing to fail.
    }
    if (__builtin_expect(!dead.empty(), false)) {
        DeleteOwned(dead);
    }
}

void CompositeAppender::Body::LockForFork() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    mutex->Lock();
}

void CompositeAppender::Body::UnlockInParent() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    mutex->Release();
}

void CompositeAppender::Body::UnlockInChild() ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    // The old one is left alone: a mutex that is held must not be destroyed.
    mutex = new osa::Mutex(kMutexName);
    for (int i = 0; i < depth; ++i) {
        mutex->Lock();  // forked by an appender: the deliveries further up the stack release it
    }
}

CompositeAppender::CompositeAppender() : _body(std::make_unique<Body>()) {}

CompositeAppender::~CompositeAppender() {
    try {
        Clear();
    } catch (...) {
        // A destructor has nobody to tell.
    }
}

void CompositeAppender::AddAppender(const ILogAppender* appender, bool owned) {
    std::unique_ptr<const ILogAppender> holder(owned ? appender : nullptr);
    const osa::MutexAutoLock lock(_body->mutex);
    _body->entries.push_back({appender, owned});
    static_cast<void>(holder.release());
}

bool CompositeAppender::RemoveAppender(const ILogAppender* appender) {
    const osa::MutexAutoLock lock(_body->mutex);
    const auto entry = std::find_if(
        _body->entries.begin(), _body->entries.end(),
        [&](const Body::Entry& candidate) { return candidate.appender == appender && !candidate.dead; });
    if (entry == _body->entries.end()) {
        return false;
    }
    if (_body->depth == 0) {
        _body->entries.erase(entry);
    } else {
        entry->owned = false;
        entry->dead = true;
        _body->anyDead = true;
    }
    return true;
}

void CompositeAppender::Clear() {
    std::vector<Body::Entry> removed;
    {
        const osa::MutexAutoLock lock(_body->mutex);
        if (_body->depth == 0) {
            removed.swap(_body->entries);
        } else {
            for (Body::Entry& entry : _body->entries) {
                entry.dead = true;
            }
            _body->anyDead = true;
        }
    }
    Body::DeleteOwned(removed);
}

void CompositeAppender::AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName,
                                const char* format, va_list args) const ZARIP_NO_THREAD_SAFETY_ANALYSIS {
    const int savedErrno = errno;
    AppenderGuard::Exempt(this);
    const Body::Delivery delivery(_body.get());
    // By index, as an appender may add others; those get the next record.
    for (std::size_t i = 0, end = _body->entries.size(); i < end; ++i) {
        const Body::Entry entry = _body->entries[i];
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
            // The others get the record all the same.
        }
        va_end(copy);
    }
}

}  // namespace zarip::core
