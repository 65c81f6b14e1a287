// SPDX-License-Identifier: MIT

#pragma once

#include <thread>
#include <utility>
#include <vector>

namespace zarip::test {

/// Threads that run `body(0)` to `body(count - 1)`.
class Threads {
public:
    template <class Body>
    Threads(int count, Body body) {
        for (int i = 0; i < count; ++i) {
            _threads.emplace_back(body, i);
        }
    }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;
    ~Threads() { Join(); }

    void Join() {
        for (std::thread& thread : std::exchange(_threads, {})) {
            thread.join();
        }
    }

private:
    std::vector<std::thread> _threads;
};

/// Calls `body(0)` to `body(count - 1)`, each on a thread of its own, and waits for all of them.
template <class Body>
void InThreads(int count, const Body& body) {
    const Threads threads(count, body);
}

}  // namespace zarip::test
