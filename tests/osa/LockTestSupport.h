// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/LockException.h>

#include <future>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

/// The text and the code of the LockException that an operation throws; {"", -1} when it throws nothing.
struct LockOutcome {
    std::string text;
    int code = -1;

    friend bool operator==(const LockOutcome& a, const LockOutcome& b) {
        return a.text == b.text && a.code == b.code;
    }
    friend std::ostream& operator<<(std::ostream& out, const LockOutcome& outcome) {
        return out << '"' << outcome.text << "\" with code " << outcome.code;
    }
};

template <class Operation>
LockOutcome OutcomeOf(Operation operation) {
    try {
        operation();
    } catch (const zarip::osa::LockException& e) {
        return {e.ToString(), static_cast<int>(e.GetError())};
    }
    return {};
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
