// SPDX-License-Identifier: MIT

#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>

namespace zarip::test {

/// Runs an action on a thread with as little stack as threads of small devices have.
inline void OnSmallStack(const std::function<void()>& action) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr std::size_t kSize = 512 * 1024;  // sanitizers need most of it for themselves
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    constexpr std::size_t kSize = 512 * 1024;
#else
    constexpr std::size_t kSize = 32 * 1024;
#endif
#else
    constexpr std::size_t kSize = 32 * 1024;
#endif
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kSize), 0);
    pthread_t thread{};
    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action)), 0);
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
}

}  // namespace zarip::test
