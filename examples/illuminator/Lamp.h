// SPDX-License-Identifier: MIT

#pragma once

#include "Illuminator.h"

/// What the service does. Its members are called one at a time on the thread of the bus.
class Lamp final : public Illuminator {
public:
    int GetBrightness() const override { return _percent; }
    bool SetBrightness(int percent) override {
        const bool isValid = percent >= 0 && percent <= 100;
        if (isValid && percent != _percent) {
            _percent = percent;
            BrightnessChanged.FireEvent(percent);
        }
        return isValid;
    }
    void SwitchOff() override { SetBrightness(0); }

private:
    int _percent = 0;
};
