// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::osa {

/// The time-out of a wait without limit, in every unit.
inline constexpr unsigned int kWaitForEver = 0xFFFFFFFFU;

}  // namespace zarip::osa
