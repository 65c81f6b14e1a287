// SPDX-License-Identifier: MIT

#include "support/ShortMemory.h"

#include <sys/prctl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<const char*> s_thread{nullptr};
std::atomic<int> s_failures{0};

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZARIP_TEST_SANITIZED 1
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZARIP_TEST_SANITIZED 1
#endif

}  // namespace

namespace zarip::test {

ShortMemory::ShortMemory(const char* thread) {
    s_failures = 0;
    s_thread = thread;
}

ShortMemory::~ShortMemory() {
    s_thread = nullptr;
}

int ShortMemory::GetFailures() {
    return s_failures;
}

bool ShortMemory::IsSupported() {
#ifdef ZARIP_TEST_SANITIZED
    return false;
#else
    return true;
#endif
}

}  // namespace zarip::test

#ifndef ZARIP_TEST_SANITIZED
void* operator new(std::size_t size) {
    if (const char* const thread = s_thread) {
        char name[16] = {};
        ::prctl(PR_GET_NAME, name);
        if (std::strncmp(name, thread, sizeof(name) - 1) == 0) {
            ++s_failures;
            throw std::bad_alloc();
        }
    }
    if (void* const memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
#endif
