// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::core {

/// An allocator was misused: a pointer that is not its own, or was freed before.
class ZARIP_EXPORT AllocatorException : public osa::Exception {
public:
    explicit AllocatorException(const std::string& message);
    AllocatorException(const AllocatorException& other);
    AllocatorException& operator=(const AllocatorException& other);
    ~AllocatorException() override;
};

}  // namespace zarip::core
