// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/core/Statistics.h>
#include <zarip/osa/Export.h>

namespace zarip::core {

/// Statistics of measured values. *One thread at a time.*
class ZARIP_EXPORT DataStats : public Statistics {
public:
    explicit DataStats(unsigned int capacity);
    ~DataStats() override;
};

}  // namespace zarip::core
