// SPDX-License-Identifier: MIT

#pragma once

#include "osa/Wait.h"

namespace zarip::osa {

/// Keeps records that strangers can cause from filling the log: it allows one record in ten seconds and
/// counts the others. *One thread at a time.*
class LogLimit {
public:
    /// Whether a record may be written now. `suppressed` is set to the number of records that were refused
    /// since the last one.
    bool Allows(unsigned int& suppressed) {
        const MonotonicMs now = NowMs();
        if (_next > now) {
            ++_suppressed;
            return false;
        }
        _next = now + kIntervalMs;
        suppressed = _suppressed;
        _suppressed = 0;
        return true;
    }

private:
    static constexpr MonotonicMs kIntervalMs = 10'000;

    MonotonicMs _next = 0;
    unsigned int _suppressed = 0;
};

}  // namespace zarip::osa
