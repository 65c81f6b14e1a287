// SPDX-License-Identifier: MIT

#pragma once

#include <exception>

namespace zarip::osa {

/// The message of the exception that is being handled, or "unknown" for one that is not a `std::exception`.
/// To be called in a `catch (...)` block, which keeps the message alive. Allocates nothing, so it also works
/// when memory is short.
///
/// A function that may run `pthread_exit` catches and rethrows `abi::__forced_unwind` before.
inline const char* DescribeCaught() noexcept {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown";
    }
}

}  // namespace zarip::osa
