// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::cutil {

/// The wall clock since 1970.
void gettime(unsigned int& seconds, unsigned int& microseconds);

}  // namespace zarip::cutil
