// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::msgbus {

/// The address of an interface of an object of a service. *Thread-safe*, because it is immutable.
class ZARIP_EXPORT MsgBusObjectSelector {
public:
    MsgBusObjectSelector(const std::string& destination, const std::string& path,
                         const std::string& interface);

    const std::string& GetDestination() const { return _destination; }
    const std::string& GetPath() const { return _path; }
    const std::string& GetInterface() const { return _interface; }

private:
    friend class MsgBusRemoteMethod;

    std::string _destination;
    std::string _path;
    std::string _interface;
    bool _valid;  ///< whether the bus allows all three names; checked once, not at each call
};

}  // namespace zarip::msgbus
