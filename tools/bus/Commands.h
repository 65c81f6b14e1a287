// SPDX-License-Identifier: MIT

#pragma once

#include <cmath>
#include <string>
#include <vector>

#include <zarip/msgbus/MsgBus.h>

namespace bus {

using Strings = std::vector<std::string>;

struct Options {
    bool help = false;
    bool version = false;
    bool all = false;
    bool json = false;
    double timeout = -1;  ///< in seconds; negative if not given
    Strings words;        ///< the command and its arguments

    /// The time limit in milliseconds.
    int GetTimeout(int otherwise) const {
        return timeout < 0 ? otherwise : static_cast<int>(std::ceil(timeout * 1000));
    }
};

// The commands. Each returns the exit status, or throws a `Failure` or `osa::Exception`, which ends the
// program.

int List(zarip::msgbus::MsgBus& bus, const Options& options);
int Describe(zarip::msgbus::MsgBus& bus, const Options& options);
int Call(zarip::msgbus::MsgBus& bus, const Options& options);
int Monitor(zarip::msgbus::MsgBus& bus, const Options& options);
int Wait(zarip::msgbus::MsgBus& bus, const Options& options);

}  // namespace bus
