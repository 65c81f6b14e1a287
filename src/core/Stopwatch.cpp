// SPDX-License-Identifier: MIT

#include "zarip/core/Stopwatch.h"

#include "zarip/osa/Exception.h"
#include "zarip/osa/Time.h"

namespace zarip::core {

Stopwatch::Stopwatch(bool startNow) {
    if (startNow) {
        osa::TimeMonotonic(start);
    }
}

Stopwatch::Stopwatch(const Stopwatch& other) = default;
Stopwatch& Stopwatch::operator=(const Stopwatch& other) = default;
Stopwatch::~Stopwatch() = default;

void Stopwatch::Read(osa::TimeStruct& out) const {
    if (start == osa::TimeStruct()) {
        throw osa::Exception("Stopwatch Never Started");
    }
    out = stop - start;
}

double Stopwatch::Read() const {
    osa::TimeStruct elapsed;
    Read(elapsed);
    return elapsed.microseconds / 1e6 + elapsed.seconds;
}

}  // namespace zarip::core
