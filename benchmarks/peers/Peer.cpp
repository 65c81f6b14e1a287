// SPDX-License-Identifier: MIT

#include "Peer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <sstream>
#include <vector>

#include <sys/resource.h>

namespace peer {

void Fail(const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::_Exit(1);
}

namespace {

long long Nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

double CpuMicroseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto microseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

void Answer(const std::string& line) {
    std::cout << line << std::endl;
}

void AnswerReady() {
    Answer("ready");
}

// "call <count> <bytes>" and "authenticate <count> <bytes>" answer with "<median us> <own CPU us per call>".
void RunCaller() {
    constexpr std::size_t kMaxSamples = 100000;
    std::vector<std::uint32_t> samples(kMaxSamples,
                                       1);  // all of it now: the driver watches the memory in use
    const Caller caller = MakeCaller();
    AnswerReady();
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command;
        std::size_t count = 0;
        std::size_t bytes = 0;
        if (!(words >> command >> count >> bytes) || (command != "call" && command != "authenticate") ||
            count == 0) {
            Fail("not understood: " + line);
        }
        const auto& call = command == "call" ? caller.call : caller.authenticate;
        const std::string text(bytes, 'x');
        const std::size_t step = (count + kMaxSamples - 1) / kMaxSamples;
        std::size_t taken = 0;
        const double cpu = CpuMicroseconds();
        for (std::size_t i = 0; i < count; ++i) {
            const long long start = Nanoseconds();
            if (call(text) != text) {
                Fail("the answer differs from the question");
            }
            if (i % step == 0) {
                samples[taken++] = static_cast<std::uint32_t>(Nanoseconds() - start);
            }
        }
        const double cpuPerCall = (CpuMicroseconds() - cpu) / static_cast<double>(count);
        const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(taken / 2);
        std::nth_element(samples.begin(), middle, samples.begin() + static_cast<std::ptrdiff_t>(taken));
        Answer(std::to_string(*middle / 1000.0) + " " + std::to_string(cpuPerCall));
    }
}

// "emit <count>" answers with the time of the first, in nanoseconds.
void RunEmitter() {
    const Emitter emitter = MakeEmitter();
    AnswerReady();
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command;
        std::size_t count = 0;
        if (!(words >> command >> count) || command != "emit") {
            Fail("not understood: " + line);
        }
        const long long start = Nanoseconds();
        for (std::size_t i = 0; i < count; ++i) {
            emitter.emit(i % 2 == 0);
        }
        emitter.flush();
        Answer(std::to_string(start));
    }
}

// Answers with the time of the last of so many signals, in nanoseconds, and ends.
[[noreturn]] void RunListener(std::size_t count) {
    std::size_t received = 0;
    Listen(AnswerReady, [count, received](bool value) mutable {
        if (value != (received % 2 == 0)) {
            Fail("a signal is missing or changed");
        }
        if (++received == count) {
            Answer(std::to_string(Nanoseconds()));
            std::_Exit(0);
        }
    });
}

int Run(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "serve" && argc == 2) {
        Serve(AnswerReady);
    } else if (role == "call" && argc == 2) {
        RunCaller();
    } else if (role == "emit" && argc == 2) {
        RunEmitter();
    } else if (role == "listen" && argc == 3) {
        RunListener(std::strtoul(argv[2], nullptr, 10));
    } else {
        std::fprintf(stderr, "usage: %s serve | call | emit | listen COUNT\n", argv[0]);
        return 2;
    }
    return 0;
}

}  // namespace
}  // namespace peer

int main(int argc, char** argv) {
    try {
        return peer::Run(argc, argv);
    } catch (const std::exception& exception) {
        peer::Fail(exception.what());
    } catch (...) {
        peer::Fail("unknown exception");
    }
}
