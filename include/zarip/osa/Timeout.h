// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::osa {

/// The time-out, in whatever unit a function takes, that waits without limit.
inline constexpr unsigned int kWaitForEver = 0xFFFFFFFFU;

}  // namespace zarip::osa
