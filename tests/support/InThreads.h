// SPDX-License-Identifier: MIT

#pragma once

#include <thread>
#include <vector>

namespace zarip::test {

/// Calls `body(0)` to `body(count - 1)`, each on a thread of its own, and waits for all of them.
template <class Body>
void InThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&body, i] { body(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace zarip::test
