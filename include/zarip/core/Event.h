#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include <zarip/core/Delegate.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/MutexAutoLock.h>

namespace zarip::core {

namespace internal {

/// What `Event0` and `Event1` share. The list and the depth of nested firings are guarded by the event's
/// mutex, which is held while delegates run.
template <class Delegate>
class EventList {
public:
    EventList() = default;
    EventList(const EventList&) = delete;
    EventList& operator=(const EventList&) = delete;

    /// *Takes ownership*. A delegate added while the event fires is called from the next firing on.
    void AddDelegate(Delegate* delegate) {
        std::unique_ptr<Delegate> owned(delegate);
        osa::MutexAutoLock lock(&_mutex);
        if (owned) {
            _delegates.push_back(std::move(owned));
        }
    }

    /// Deletes the delegates that are bound to `object`. Once it has returned none of them runs or will run,
    /// unless the caller is one of them: then it is deleted when the firing has ended.
    void RemoveDelegate(const void* object) {
        osa::MutexAutoLock lock(&_mutex);
        for (auto& delegate : _delegates) {
            if (delegate && delegate->Matches(object)) {
                _removed.emplace_back(std::move(delegate));
            }
        }
        Tidy();
    }

protected:
    template <class... A>
    void Fire(const A&... argument) {
        osa::MutexAutoLock lock(&_mutex);
        std::exception_ptr failure;
        ++_depth;
        // Delegates may add to the list (so no iterators) and remove from it (which leaves null until the
        // end).
        for (std::size_t i = 0, end = _delegates.size(); i < end; ++i) {
            if (Delegate* delegate = _delegates[i].get()) {
                try {
                    delegate->Call(argument...);
                } catch (const abi::__forced_unwind&) {
                    --_depth;  // pthread_exit: the thread ends, the event stays usable
                    throw;
                } catch (...) {
                    if (!failure) {
                        failure = std::current_exception();
                    }
                }
            }
        }
        --_depth;
        Tidy();
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

private:
    void Tidy() ZARIP_REQUIRES(_mutex) {
        if (_depth > 0) {
            return;
        }
        _delegates.erase(std::remove(_delegates.begin(), _delegates.end(), nullptr), _delegates.end());
        // Taken out first: what a delegate owns may, as it goes, remove others.
        const std::vector<std::unique_ptr<Delegate>> removed = std::move(_removed);
        _removed.clear();
    }

    osa::Mutex _mutex{"Event"};
    std::vector<std::unique_ptr<Delegate>> _delegates ZARIP_GUARDED_BY(_mutex);
    std::vector<std::unique_ptr<Delegate>> _removed ZARIP_GUARDED_BY(_mutex);
    int _depth ZARIP_GUARDED_BY(_mutex) = 0;
};

}  // namespace internal

/// A list of subscribers. *Thread-safe*. The event's own mutex is held while delegates run, so firings of one
/// event take turns and a delegate that waits for another thread must not wait for one that uses the same
/// event.
///
/// Every delegate is called, also after one has thrown; the first exception then leaves `FireEvent`.
class Event0 : public internal::EventList<IVoidDelegate0> {
public:
    void FireEvent() { Fire(); }
};

/// As `Event0`, with a value that is handed to every delegate.
template <class A>
class Event1 : public internal::EventList<IVoidDelegate1<A>> {
public:
    void FireEvent(const A& argument) { this->Fire(argument); }
};

}  // namespace zarip::core
