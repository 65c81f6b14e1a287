// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Exception.h>

namespace zarip::test {

/// Returns the message of the exception of this type that an action throws, or "no exception".
template <class Exception = osa::Exception, class Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const Exception& e) {
        return e.what();
    }
    return "no exception";
}

}  // namespace zarip::test
