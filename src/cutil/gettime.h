// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::cutil {

/// The real-time clock, counted from 1970.
void gettime(unsigned int& seconds, unsigned int& microseconds);

}  // namespace zarip::cutil
