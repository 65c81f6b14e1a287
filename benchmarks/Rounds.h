// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// Measures contestants side by side. Every round measures each contestant once, so that a change in the
/// speed of the machine affects all of them. The result is the median of the ratios within a round. *One
/// thread at a time.*
namespace bench {

struct Options {
    int rounds = 25;
    double seconds = 0.02;  // of one contestant in one round, at the least
};

/// `--quick` measures less, and `--rounds N` sets the number of rounds. Any other option ends the program.
inline Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--quick") {
            options = {7, 0.005};
        } else if (argument == "--rounds" && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
            options.rounds = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--quick] [--rounds N]\n", argv[0]);
            std::exit(2);
        }
    }
    return options;
}

/// Makes the compiler believe that the value is used and that all memory may have changed.
template <class T>
void Keep(const T& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

inline double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

inline double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// One table: its contestants do the same work, and the first is what the others are compared with.
class Rounds {
public:
    Rounds(std::string title, Options options) : _title(std::move(title)), _options(options) {}

    /// @param operation  called without arguments, again and again
    /// @param units  how many units of the work one call does; the table shows the time of one
    template <class Operation>
    void Add(std::string name, Operation operation, std::size_t units = 1) {
        Contestant contestant;
        contestant.name = std::move(name);
        contestant.units = units;
        contestant.measure = [operation](std::size_t calls) mutable {
            const double start = Now();
            for (std::size_t i = 0; i < calls; ++i) {
                operation();
            }
            return Now() - start;
        };
        _contestants.push_back(std::move(contestant));
    }

    /// Measures, then prints the table.
    void Run() {
        for (Contestant& contestant : _contestants) {
            contestant.calls = FindCalls(contestant);
        }
        for (int round = 0; round < _options.rounds; ++round) {
            for (Contestant& contestant : _contestants) {
                const double seconds = contestant.measure(contestant.calls);
                contestant.times.push_back(seconds /
                                           static_cast<double>(contestant.calls * contestant.units));
            }
        }
        Print();
    }

private:
    struct Contestant {
        std::string name;
        std::size_t units = 1;
        std::function<double(std::size_t)> measure;  // seconds for so many calls
        std::size_t calls = 1;
        std::vector<double> times;  // seconds per unit, one for each round
    };

    // This is the warm-up, too.
    std::size_t FindCalls(Contestant& contestant) const {
        std::size_t calls = 1;
        double seconds = contestant.measure(calls);
        while (seconds < _options.seconds) {
            const double wanted =
                static_cast<double>(calls) * _options.seconds * 1.1 / std::max(seconds, 1e-9);
            calls = static_cast<std::size_t>(std::min(wanted, static_cast<double>(calls) * 100.0)) + 1;
            seconds = contestant.measure(calls);
        }
        return calls;
    }

    void Print() const {
        std::size_t width = 0;
        for (const Contestant& contestant : _contestants) {
            width = std::max(width, contestant.name.size());
        }
        const std::vector<double>& baseline = _contestants.front().times;
        const double typical = Median(baseline);
        const std::pair<const char*, double> unit = typical < 1e-6   ? std::make_pair("ns", 1e9)
                                                    : typical < 1e-3 ? std::make_pair("us", 1e6)
                                                                     : std::make_pair("ms", 1e3);
        std::printf("%s\n  %-*s %12s %8s\n", _title.c_str(), static_cast<int>(width), "", unit.first,
                    "ratio");
        for (const Contestant& contestant : _contestants) {
            std::vector<double> ratios;
            for (std::size_t round = 0; round < baseline.size(); ++round) {
                ratios.push_back(contestant.times[round] / baseline[round]);
            }
            std::printf("  %-*s %12.2f %8.2f\n", static_cast<int>(width), contestant.name.c_str(),
                        Median(contestant.times) * unit.second, Median(ratios));
        }
        std::printf("\n");
    }

    std::string _title;
    Options _options;
    std::vector<Contestant> _contestants;
};

}  // namespace bench
