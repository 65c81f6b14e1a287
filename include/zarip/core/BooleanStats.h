// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Statistics.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// Statistics of values that are 0 or 1: the sum is the number of ones. *One thread at a time.*
class ZARIP_EXPORT BooleanStats : public Statistics {
public:
    explicit BooleanStats(unsigned int capacity);
    ~BooleanStats() override;
};

}  // namespace zarip::core
