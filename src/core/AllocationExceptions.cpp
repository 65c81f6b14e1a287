// SPDX-License-Identifier: MIT

#include "zarip/core/AllocationException.h"
#include "zarip/core/AllocatorException.h"

namespace zarip::core {

AllocationException::AllocationException(const std::string& message) : Exception(message) {}
AllocationException::AllocationException(const AllocationException& other) = default;
AllocationException& AllocationException::operator=(const AllocationException& other) = default;
AllocationException::~AllocationException() = default;

AllocatorException::AllocatorException(const std::string& message) : Exception(message) {}
AllocatorException::AllocatorException(const AllocatorException& other) = default;
AllocatorException& AllocatorException::operator=(const AllocatorException& other) = default;
AllocatorException::~AllocatorException() = default;

}  // namespace zarip::core
