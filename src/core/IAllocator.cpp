// SPDX-License-Identifier: MIT

#include "zarip/core/IAllocator.h"

namespace zarip::core {

IAllocator::~IAllocator() = default;

}  // namespace zarip::core
