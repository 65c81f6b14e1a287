// SPDX-License-Identifier: MIT

// Many threads log to places that fail.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Harness.h"
#include "support/TempDir.h"
#include "zarip/core/FileAppender.h"
#include "zarip/core/IniFile.h"
#include "zarip/core/Logger.h"
#include "zarip/core/SyslogAppender.h"

namespace zarip::reliability {
namespace {

constexpr int kThreads = 8;

/// A pipe whose reader is gone.
FILE* OpenClosedPipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return nullptr;
    }
    ::close(ends[0]);
    return ::fdopen(ends[1], "w");
}

void LogFromThreads(Run& run, int first, int end) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&run, t, first, end] {
            core::Logger* const logger = core::Logger::GetLogger("Soak");
            const std::string filler(static_cast<std::size_t>(20 + t * 40), static_cast<char>('a' + t));
            try {
                for (int i = first; i < end; ++i) {
                    logger->Error("<%d %d %s>", t, i, filler.c_str());
                }
            } catch (...) {
                run.Expect(false, "nothing is thrown");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Every line is there once, whole, and those of a thread are in order.
void CheckLines(Run& run, const std::string& path, int lines) {
    std::ifstream file(path);
    std::string line;
    int next[kThreads] = {};
    long count = 0;
    for (; std::getline(file, line); ++count) {
        const std::size_t begin = line.find('<');
        int thread = -1;
        int number = -1;
        int length = 0;
        const bool isRead = begin != std::string::npos &&
                            std::sscanf(line.c_str() + begin, "<%d %d %n", &thread, &number, &length) == 2 &&
                            thread >= 0 && thread < kThreads;
        run.Expect(isRead, "a line is damaged: %s", line.c_str());
        if (isRead) {
            const std::string rest = line.substr(begin + static_cast<std::size_t>(length));
            const auto size = static_cast<std::size_t>(20 + thread * 40);
            run.Expect(rest == std::string(size, static_cast<char>('a' + thread)) + ">",
                       "a line is mixed: %s", line.c_str());
            run.Expect(number == next[thread]++, "line %d of thread %d is not in order", number, thread);
        }
    }
    run.Expect(count == static_cast<long>(lines) * kThreads, "%s has %ld lines", path.c_str(), count);
}

}  // namespace

ROW(Logging,
    "8 threads log to a full disk, a closed pipe (SIGPIPE is ignored), a syslog that nobody reads and two "
    "files: nothing is thrown, the files have every line, whole and in order",
    30) {
    ::signal(SIGPIPE, SIG_IGN);  // as libdbus does in every process that uses the bus
    const test::TempDir folder;
    const core::FileAppender first(folder.File("first").c_str());
    const core::FileAppender full("/dev/full");
    const core::FileAppender closed(OpenClosedPipe(), true);
    core::IniFile ini;
    ini.SetValue("log", "log.syslog.ident", "zarip-reliability");
    const core::SyslogAppender syslog(ini, "log");
    const core::FileAppender last(folder.File("last").c_str());
    const core::ILogAppender* const appenders[] = {&first, &full, &closed, &syslog, &last};
    for (const core::ILogAppender* const appender : appenders) {
        core::Logger::AddAppender(appender, false);
    }
    // The C library writes what syslog does not take to the console, which may take milliseconds.
    const int withSyslog = 100;
    const int lines = run.Count(100'000, 5'000);
    LogFromThreads(run, 0, withSyslog);
    core::Logger::RemoveAppender(&syslog);
    LogFromThreads(run, withSyslog, lines);
    for (const core::ILogAppender* const appender : appenders) {
        core::Logger::RemoveAppender(appender);
    }
    CheckLines(run, folder.File("first"), lines);
    CheckLines(run, folder.File("last"), lines);
    run.Figure("%d lines of each thread, the first %d of them %s", lines, withSyslog,
               ::access("/dev/log", F_OK) == 0 ? "to a syslog, too" : "without a syslog");
}

}  // namespace zarip::reliability
