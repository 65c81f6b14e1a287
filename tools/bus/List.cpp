// SPDX-License-Identifier: MIT

#include "Commands.h"
#include "Failure.h"
#include "Names.h"
#include "Output.h"

namespace bus {

int List(zarip::msgbus::MsgBus& bus, const Options& options) {
    Strings names;
    for (const std::string& name : GetNames(bus)) {
        if (options.all || name.rfind("org.freedesktop.", 0) != 0) {
            names.push_back(options.json ? JsonString(name) : name);
        }
    }
    if (options.json) {
        names = {JsonArray(names)};
    }
    for (const std::string& line : names) {
        Print(line);
    }
    return kDone;
}

}  // namespace bus
