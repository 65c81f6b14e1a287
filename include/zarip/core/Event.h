// SPDX-License-Identifier: MIT

#pragma once

#include <cxxabi.h>

#include <cstddef>
#include <exception>
#include <list>
#include <memory>
#include <utility>

#include <zarip/core/Delegate.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/MutexAutoLock.h>

namespace zarip::core {

namespace internal {

/// The common part of `Event0` and `Event1`. The state is a separate object, which a running `Fire` keeps
/// alive, so a delegate may delete the event. The mutex of the event guards the state and is held while
/// delegates run.
template <class Delegate>
class EventList {
public:
    EventList() : _state(std::make_shared<State>()) {}
    EventList(const EventList&) = delete;
    EventList& operator=(const EventList&) = delete;

    /// Waits until a firing on another thread has finished. If a delegate destroys the event, no further
    /// delegate is called.
    ~EventList() {
        _state->RemoveIf([](const Delegate&) { return true; });
    }

    /// *Takes ownership* of the delegate. A delegate that is added while the event fires is called from the
    /// next firing on.
    void AddDelegate(Delegate* delegate) {
        std::unique_ptr<Delegate> owned(delegate);
        if (owned) {
            osa::MutexAutoLock lock(&_state->mutex);
            _state->delegates.push_back({std::move(owned)});
        }
    }

    /// Deletes the delegates that are bound to `object`. When the function returns, they do not run any more.
    /// If one of them is the caller, it is deleted when the firing has ended.
    void RemoveDelegate(const void* object) {
        _state->RemoveIf([object](const Delegate& delegate) { return delegate.Matches(object); });
    }

protected:
    template <class... A>
    void Fire(const A&... argument) {
        const std::shared_ptr<State> state = _state;
        osa::MutexAutoLock lock(&state->mutex);
        std::exception_ptr failure;
        ++state->depth;
        // Delegates may add to the list, and remove from it, which leaves the entry until the end.
        auto entry = state->delegates.begin();
        for (std::size_t left = state->delegates.size(); left > 0; --left, ++entry) {
            if (!entry->isRemoved) {
                try {
                    entry->delegate->Call(argument...);
                } catch (const abi::__forced_unwind&) {
                    --state->depth;  // pthread_exit: the thread ends, the event stays usable
                    throw;
                } catch (...) {
                    if (!failure) {
                        failure = std::current_exception();
                    }
                }
            }
        }
        --state->depth;
        state->Tidy();
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

private:
    struct Entry {
        std::unique_ptr<Delegate> delegate;
        bool isRemoved = false;
    };

    struct State {
        /// Neither this function nor `Tidy` allocates memory, so an event can always be destroyed.
        template <class Predicate>
        void RemoveIf(Predicate predicate) {
            osa::MutexAutoLock lock(&mutex);
            for (Entry& entry : delegates) {
                entry.isRemoved = entry.isRemoved || predicate(*entry.delegate);
            }
            Tidy();
        }

        void Tidy() ZARIP_REQUIRES(mutex) {
            // The entries are moved out of the list first, because an object that a delegate owns may remove
            // other delegates when it is deleted.
            std::list<Entry> deleted;
            for (auto entry = delegates.begin(); depth == 0 && entry != delegates.end();) {
                const auto current = entry++;
                if (current->isRemoved) {
                    deleted.splice(deleted.end(), delegates, current);
                }
            }
        }

        osa::Mutex mutex{"Event"};
        std::list<Entry> delegates ZARIP_GUARDED_BY(mutex);
        int depth ZARIP_GUARDED_BY(mutex) = 0;  ///< of nested firings
    };

    std::shared_ptr<State> _state;
};

}  // namespace internal

/// A list of delegates, which `FireEvent` calls in the order in which they were added. *Thread-safe*. The
/// mutex of the event is held while delegates run, so only one thread at a time fires an event. A delegate
/// must not wait for another thread that uses the same event.
///
/// Every delegate is called, even if an earlier one has thrown. `FireEvent` then throws the first exception.
/// A delegate may add and remove delegates of the event, and may delete the event.
class Event0 : public internal::EventList<IVoidDelegate0> {
public:
    void FireEvent() { Fire(); }
};

/// The same as `Event0`, with a value that is passed to every delegate.
template <class A>
class Event1 : public internal::EventList<IVoidDelegate1<A>> {
public:
    void FireEvent(const A& argument) { this->Fire(argument); }
};

}  // namespace zarip::core
