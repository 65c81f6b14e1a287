// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::osa {

/// A wait was interrupted by a POSIX signal; the message is "signal: " and the number.
class ZARIP_EXPORT Signal : public Exception {
public:
    explicit Signal(int signalNumber);
    Signal(const Signal& other);
    Signal& operator=(const Signal& other);
    ~Signal() override;

    int GetSignal() const { return _signal; }

private:
    int _signal;
};

}  // namespace zarip::osa
