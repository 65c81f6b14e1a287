// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Exception.h>

namespace zarip::test {

/// The message of the exception that an action throws, or "no exception".
template <class Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const osa::Exception& e) {
        return e.ToString();
    }
    return "no exception";
}

}  // namespace zarip::test
