// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::osa {

/// A failed input or output operation.
class ZARIP_EXPORT IOException : public Exception {
public:
    explicit IOException(const std::string& message);
    IOException(const IOException& other);
    IOException& operator=(const IOException& other);
    ~IOException() override;
};

}  // namespace zarip::osa
