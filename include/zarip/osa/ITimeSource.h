// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Export.h>
#include <zarip/osa/TimeStruct.h>

namespace zarip::osa {

/// A replaceable clock, for example for tests.
class ZARIP_EXPORT ITimeSource {
public:
    virtual ~ITimeSource() = default;
    virtual void GetTime(TimeStruct& out) const = 0;
    virtual void SetTime(const TimeStruct& value) = 0;
};

/// The real-time clock. *Thread-safe*.
class ZARIP_EXPORT SystemTimeSource : public ITimeSource {
public:
    ~SystemTimeSource() override;
    void GetTime(TimeStruct& out) const override;
    void SetTime(const TimeStruct& value) override;
};

/// The monotonic clock, which cannot be set. *Thread-safe*.
class ZARIP_EXPORT MonotonicTimeSource : public ITimeSource {
public:
    ~MonotonicTimeSource() override;
    void GetTime(TimeStruct& out) const override;
    void SetTime(const TimeStruct& value) override;
};

}  // namespace zarip::osa
