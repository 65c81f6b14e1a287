// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::osa {

/// The name of the calling thread's `Thread` object, or null for a thread without one. It takes no lock, and
/// the name stays valid until the calling thread ends, also if the object is destroyed meanwhile.
const char* CurrentThreadName();

}  // namespace zarip::osa
