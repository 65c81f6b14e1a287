// SPDX-License-Identifier: MIT

#include "FailingMemory.h"

#include <execinfo.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZARIP_SANITIZED 1
#endif
#endif

namespace {

std::atomic<long> s_left{0};  // allocations until the one that fails; 0 or less: none will
std::atomic<bool> s_failsCallingThread{false};
std::atomic<bool> s_isTraced{false};
std::atomic<long> s_blocks{0};
thread_local bool t_isCallingThread = false;

}  // namespace

namespace zarip::reliability {

bool FailingMemory::IsSupported() {
#ifdef ZARIP_SANITIZED
    return false;
#else
    return true;
#endif
}

void FailingMemory::FailAt(long n, Threads threads) {
    const char* const traced = std::getenv("ZARIP_TRACE");
    s_isTraced = traced != nullptr && std::atol(traced) == n;
    if (s_isTraced) {
        void* frame = nullptr;
        ::backtrace(&frame, 1);  // loads what it needs
    }
    t_isCallingThread = true;
    s_failsCallingThread = threads == Threads::kCalling;
    s_left = n;
}

bool FailingMemory::End() {
    return s_left.exchange(0) <= 0;
}

long FailingMemory::GetBlocks() {
    return s_blocks;
}

}  // namespace zarip::reliability

#ifndef ZARIP_SANITIZED

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

namespace {

bool MustFail() noexcept {
    if (s_left.load(std::memory_order_relaxed) <= 0 || t_isCallingThread != s_failsCallingThread ||
        s_left.fetch_sub(1) != 1) {
        return false;
    }
    if (s_isTraced) {
        void* frames[40];
        ::backtrace_symbols_fd(frames, ::backtrace(frames, 40), STDERR_FILENO);
    }
    errno = ENOMEM;
    return true;
}

void* Count(void* memory) noexcept {
    if (memory != nullptr) {
        s_blocks.fetch_add(1, std::memory_order_relaxed);
    }
    return memory;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
    return MustFail() ? nullptr : Count(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return MustFail() ? nullptr : Count(__libc_calloc(count, size));
}

void* realloc(void* memory, std::size_t size) noexcept {
    if (MustFail()) {
        return nullptr;
    }
    return memory == nullptr ? Count(__libc_realloc(memory, size)) : __libc_realloc(memory, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return MustFail() ? nullptr : Count(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
    *memory = memalign(alignment, size);
    return *memory != nullptr ? 0 : ENOMEM;
}

void free(void* memory) noexcept {
    if (memory != nullptr) {
        s_blocks.fetch_sub(1, std::memory_order_relaxed);
        __libc_free(memory);
    }
}
}

#endif
