// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/LockException.h>

#include <future>
#include <thread>
#include <utility>

#include "support/ErrorOf.h"

using LockOutcome = zarip::test::Outcome;

template <class Operation>
LockOutcome OutcomeOf(Operation operation) {
    return zarip::test::OutcomeOf<zarip::osa::LockException>(operation);
}

/// Runs an operation on a thread of its own, waits for it and returns what it returns.
template <class Operation>
auto OnAnotherThread(Operation operation) {
    return std::async(std::launch::async, std::move(operation)).get();
}

/// A thread that takes a lock at once and gives it back at the end of the scope.
class Holder {
public:
    template <class Take, class Give>
    Holder(Take take, Give give)
        : _thread([this, take, give] {
              take();
              _taken.set_value();
              _end.get_future().wait();
              give();
          }) {
        _taken.get_future().wait();
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() {
        _end.set_value();
        _thread.join();
    }

private:
    std::promise<void> _taken;
    std::promise<void> _end;
    std::thread _thread;
};
