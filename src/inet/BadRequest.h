// SPDX-License-Identifier: MIT

#pragma once

namespace zarip::inet {

[[noreturn]] void ThrowBadRequest();

}  // namespace zarip::inet
