// SPDX-License-Identifier: MIT

#pragma once

/// The parts of which services are made; guide/own-service.md walks through an example.
///
/// A service is an interface class with virtual members whose bodies call `Unimplemented`, a proxy that
/// derives from it and holds a `RemoteService`, and a server adapter that derives from `ServiceServer`.

#include <zarip/interfaces/CheckDescription.h>
#include <zarip/interfaces/Record.h>
#include <zarip/interfaces/RemoteService.h>
#include <zarip/interfaces/ServiceDescription.h>
#include <zarip/interfaces/ServiceServer.h>
#include <zarip/osa/Exception.h>

namespace zarip::interfaces {

/// The body of a member that an implementation need not override. Throws `osa::Exception` "unimplemented",
/// which a caller on the bus gets as its error reply.
[[noreturn]] inline void Unimplemented() {
    throw osa::Exception(osa::Exception::kUnimplemented);
}

}  // namespace zarip::interfaces
