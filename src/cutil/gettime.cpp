// SPDX-License-Identifier: MIT

#include "cutil/gettime.h"

#include <ctime>

namespace zarip::cutil {

void gettime(unsigned int& seconds, unsigned int& microseconds) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    seconds = static_cast<unsigned int>(now.tv_sec);
    microseconds = static_cast<unsigned int>(now.tv_nsec / 1000);
}

}  // namespace zarip::cutil
