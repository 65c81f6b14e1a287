// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::core {

/// An allocator was misused. For example, memory was freed that is not of this allocator or was freed before,
/// or a request was invalid.
class ZARIP_EXPORT AllocatorException : public osa::Exception {
public:
    explicit AllocatorException(const std::string& message);
    AllocatorException(const AllocatorException& other);
    AllocatorException& operator=(const AllocatorException& other);
    ~AllocatorException() override;
};

}  // namespace zarip::core
