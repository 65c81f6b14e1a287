// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <thread>

namespace zarip::test {

/// Polls the condition until it holds; false when the deadline comes first. The deadline only ends a broken
/// test, so it is generous.
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zarip::test
