// SPDX-License-Identifier: MIT

// Runs a program, logs its output line by line, and ends the program if it takes too long.
//
//   run-logged SECONDS PROGRAM [ARGUMENT]...
//
// The exit status is that of the program, 124 if it took too long, 128 + N if signal N ended it, and 125 if
// it cannot be run. The signals SIGHUP, SIGINT and SIGTERM are passed on to the program.

#include <signal.h>

#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/osa/PathUtils.h>
#include <zarip/osa/PipeStream.h>
#include <zarip/osa/Process.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using zarip::core::Logger;
using zarip::osa::PipeStream;
using zarip::osa::Process;

namespace {

constexpr unsigned int kGraceMs = 2'000;

/// Returns at the end of the output, or if the program takes too long. A very long line is logged in pieces.
void LogLines(PipeStream& output, Logger& logger) {
    constexpr std::streamsize kSize = 1024;
    char line[kSize];
    for (;;) {
        output.getline(line, kSize);
        if (output.gcount() > 0) {
            logger.Information("%s", line);
        }
        if (output.fail() && !output.bad() && output.gcount() == kSize - 1) {
            output.clear();  // the rest of the line comes next
        } else if (!output) {
            return;
        }
    }
}

/// Blocks, from the start, the signals that would end this process and not the program.
const sigset_t& EndSignals() {
    static const sigset_t signals = [] {
        sigset_t result;
        sigemptyset(&result);
        for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
            sigaddset(&result, signal);
        }
        return result;
    }();
    return signals;
}

/// Passes the signals on to the program.
class Forwarder {
public:
    explicit Forwarder(Process& process) : _thread([this, &process] { Forward(process); }) {}
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;
    ~Forwarder() {
        _isDone = true;
        ::pthread_kill(_thread.native_handle(), SIGTERM);
        _thread.join();
    }

private:
    void Forward(Process& process) {
        for (int signal = 0; ::sigwait(&EndSignals(), &signal) == 0 && !_isDone;) {
            try {
                process.Kill(signal);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "run-logged: %s\n", e.what());
            }
        }
    }

    std::atomic<bool> _isDone{false};
    std::thread _thread;
};

int Run(unsigned int limitMs, const std::string& program, const std::vector<std::string>& arguments) {
    Logger& logger = *Logger::GetLogger(zarip::osa::PathUtils::GetName(program).c_str());
    Process::Options options;
    options.input = Process::Redirect::Null();
    options.output = Process::Redirect::Pipe();
    options.error = Process::Redirect::Output();
    options.ownGroup = true;  // what it starts itself ends with it
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limitMs);
    Process process(program, arguments, options);
    const Forwarder forwarder(process);
    PipeStream output(process, zarip::osa::kWaitForEver);
    output.SetTimeLimit(limitMs);
    LogLines(output, logger);
    // The program may also close its output and continue.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (output.bad() || !process.Wait(static_cast<unsigned int>(std::max<long long>(left, 0)))) {
        logger.Warning("took longer than %u ms", limitMs);
        process.Kill(SIGTERM);
        if (!process.Wait(kGraceMs)) {
            process.Kill(SIGKILL);
        }
        return 124;
    }
    const int signal = process.GetSignal();
    logger.Information("ended with %s %d", signal != 0 ? "signal" : "status",
                       signal != 0 ? signal : process.GetExitStatus());
    return signal != 0 ? 128 + signal : process.GetExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
    char* rest = nullptr;
    const long seconds = argc > 2 ? std::strtol(argv[1], &rest, 10) : 0;
    if (seconds < 1 || seconds > 1'000'000 || *rest != '\0') {
        std::fprintf(stderr, "usage: run-logged SECONDS PROGRAM [ARGUMENT]...\n");
        return 125;
    }
    ::pthread_sigmask(SIG_BLOCK, &EndSignals(), nullptr);
    try {
        zarip::core::IniFile settings;
        settings.SetValue("log", "log.stdout", "true");
        settings.SetValue("log", "log.level", "6");
        Logger::ConfigureLogging(settings, "log");
        return Run(static_cast<unsigned int>(seconds) * 1'000, argv[2], {argv + 3, argv + argc});
    } catch (const std::exception& e) {
        std::fprintf(stderr, "run-logged: %s\n", e.what());
        return 125;
    }
}
