// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::core {

/// An allocator does not have enough memory for a request.
class ZARIP_EXPORT AllocationException : public osa::Exception {
public:
    explicit AllocationException(const std::string& message);
    AllocationException(const AllocationException& other);
    AllocationException& operator=(const AllocationException& other);
    ~AllocationException() override;
};

}  // namespace zarip::core
