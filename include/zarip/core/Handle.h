// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <cstddef>
#include <new>
#include <utility>

#include <zarip/core/IAllocator.h>

namespace zarip::core {

/// A smart pointer to an object in the memory of an allocator, which counts the references. The last handle
/// destroys the object and frees its memory. Different handles of one object may be used by different
/// threads; each handle is used by *one thread at a time*.
///
/// The allocator must outlive the handles.
template <class T>
class Handle {
public:
    /// Makes an object in memory of `allocator`, which is *not owned*. Throws what `Allocate` and the
    /// constructor of the object throw; the memory is then freed.
    template <class... Arguments>
    static Handle Create(IAllocator& allocator, Arguments&&... arguments) {
        void* const memory = allocator.Allocate(sizeof(Counted), alignof(Counted));
        try {
            return Handle(new (memory) Counted(&allocator, std::forward<Arguments>(arguments)...));
        } catch (...) {
            allocator.Free(memory);
            throw;
        }
    }

    /// Makes a handle without an object.
    Handle() = default;
    Handle(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): as pointers do
    Handle(const Handle& other) : _counted(other._counted) {
        if (_counted != nullptr) {
            _counted->references.fetch_add(1, std::memory_order_relaxed);
        }
    }
    Handle(Handle&& other) noexcept : _counted(std::exchange(other._counted, nullptr)) {}
    Handle& operator=(Handle other) noexcept {
        std::swap(_counted, other._counted);
        return *this;
    }
    ~Handle() { Reset(); }

    void Reset() noexcept {
        Counted* const counted = std::exchange(_counted, nullptr);
        if (counted != nullptr && counted->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            IAllocator* const allocator = counted->allocator;
            counted->~Counted();
            allocator->Free(counted);
        }
    }

    /// Returns the object, *not owned*, or null if the handle has no object.
    T* Get() const { return _counted != nullptr ? &_counted->object : nullptr; }
    T& operator*() const { return _counted->object; }
    T* operator->() const { return &_counted->object; }
    explicit operator bool() const { return _counted != nullptr; }

    /// Returns how many handles of the object existed at the time of the call, or 0 for a handle without an
    /// object.
    int GetCount() const { return _counted != nullptr ? _counted->references.load() : 0; }

    friend bool operator==(const Handle& a, const Handle& b) { return a._counted == b._counted; }
    friend bool operator!=(const Handle& a, const Handle& b) { return a._counted != b._counted; }

private:
    struct Counted {
        template <class... Arguments>
        explicit Counted(IAllocator* owner, Arguments&&... arguments)
            : allocator(owner), object(std::forward<Arguments>(arguments)...) {}

        IAllocator* allocator;
        std::atomic<int> references{1};
        T object;
    };

    explicit Handle(Counted* counted) : _counted(counted) {}

    Counted* _counted = nullptr;
};

}  // namespace zarip::core
