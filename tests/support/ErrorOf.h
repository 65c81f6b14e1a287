// SPDX-License-Identifier: MIT

#pragma once

#include <ostream>
#include <string>

#include <zarip/osa/Exception.h>

namespace zarip::test {

/// The message of the exception that an action throws, or "no exception". An exception of another class is
/// not caught.
template <class Expected = osa::Exception, class Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const Expected& e) {
        return e.what();
    }
    return "no exception";
}

/// The message and the code of an exception; {"", -1} if nothing was thrown.
struct Outcome {
    std::string text;
    int code = -1;

    friend bool operator==(const Outcome& a, const Outcome& b) {
        return a.text == b.text && a.code == b.code;
    }
    friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
        return out << '"' << outcome.text << "\" with code " << outcome.code;
    }
};

/// The outcome of an action that throws a `LockException` or a `SocketException`.
template <class Expected, class Action>
Outcome OutcomeOf(Action action) {
    try {
        action();
    } catch (const Expected& e) {
        return {e.what(), static_cast<int>(e.GetError())};
    }
    return {};
}

}  // namespace zarip::test
