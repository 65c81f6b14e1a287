// SPDX-License-Identifier: MIT

#include "Harness.h"

#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/WaitUntil.h"

namespace zarip::reliability {

namespace {

constexpr long kMaxMemory = 256 * 1024;  // KiB
constexpr unsigned int kLongFactor = 60;

const Row* s_rows = nullptr;
std::atomic<int> s_failures{0};
int s_figures = -1;  // where the process of a row writes them

int CountEntries(const char* folder) {
    int count = -3;  // itself, its parent and the descriptor that reads it
    if (DIR* const directory = ::opendir(folder)) {
        while (::readdir(directory) != nullptr) {
            ++count;
        }
        ::closedir(directory);
    }
    return count;
}

/// The result of the process of a row.
struct Outcome {
    bool isPassed;
    std::string figures;
    double seconds;
    long memory;  ///< KiB at most
};

[[noreturn]] void ShowWhereItEnds() {
    void* frames[50];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, 50), STDERR_FILENO);
    std::abort();
}

[[noreturn]] void RunHere(const Row& row, bool isLong, int figures) {
    s_figures = figures;
    std::set_terminate(ShowWhereItEnds);
    ::alarm(row.limit * (isLong ? kLongFactor : 1));
    Run run(isLong);
    try {
        row.run(run);
    } catch (const std::exception& e) {
        run.Expect(false, "exception: %s", e.what());
    } catch (...) {
        run.Expect(false, "an exception of unknown type");
    }
    std::exit(s_failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE);  // objects of the process end, the bus too
}

Outcome RunRow(const Row& row, bool isLong) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        std::exit(EXIT_FAILURE);
    }
    std::fflush(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        RunHere(row, isLong, ends[1]);
    }
    ::close(ends[1]);
    Outcome outcome{};
    char buffer[1024];
    ssize_t length = 0;
    while ((length = ::read(ends[0], buffer, sizeof(buffer))) > 0) {
        outcome.figures.append(buffer, static_cast<std::size_t>(length));
    }
    ::close(ends[0]);
    int status = 0;
    rusage usage{};
    ::wait4(child, &status, 0, &usage);
    outcome.seconds = static_cast<double>(MillisecondsSince(start)) / 1000;
    outcome.memory = usage.ru_maxrss;
    outcome.isPassed = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "%s: ended by signal %d%s\n", row.name, WTERMSIG(status),
                     WTERMSIG(status) == SIGALRM ? ": the time limit" : "");
    }
    if (outcome.memory > kMaxMemory) {
        std::fprintf(stderr, "%s: took %ld MiB\n", row.name, outcome.memory / 1024);
        outcome.isPassed = false;
    }
    return outcome;
}

void Print(const Row& row, const Outcome& outcome, bool isLong, bool asTable) {
    const char* const figures = outcome.figures.empty() ? "" : outcome.figures.c_str() + 2;
    if (!asTable) {
        std::printf("%-14s %s  %.1f s, %ld MiB  %s\n", row.name, outcome.isPassed ? "passed" : "FAILED",
                    outcome.seconds, outcome.memory / 1024, figures);
    } else {
        const std::time_t now = std::time(nullptr);
        char date[16];
        std::strftime(date, sizeof(date), "%Y-%m-%d", std::gmtime(&now));
        std::printf("| %s | `scripts/reliability%s %s` | %s%s; %.0f s, at most %ld MiB | %s |\n", row.claim,
                    isLong ? " --long" : "", row.name, outcome.isPassed ? "" : "**failed** ", figures,
                    outcome.seconds, outcome.memory / 1024, date);
    }
    std::fflush(stdout);
}

bool IsWanted(const Row& row, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (name == row.name) {
            return true;
        }
    }
    return names.empty();
}

/// Replaces this process by a program that inherits descriptors up to a number.
int RunWithDescriptors(int count, char** command) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 0; fd >= 0 && fd < count;) {
        fd = ::open("/dev/null", O_RDONLY);  // NOLINT: it is meant to be inherited
    }
    ::execvp(command[0], command);
    std::perror(command[0]);
    return 127;
}

}  // namespace

Usage Usage::Now() {
    Usage usage{};
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            usage.memory = std::atol(line.c_str() + 6);
        }
    }
    status.close();
    usage.descriptors = CountEntries("/proc/self/fd");
    usage.threads = CountEntries("/proc/self/task") + 1;
    return usage;
}

void Run::Expect(bool holds, const char* format, ...) {
    if (holds || ++s_failures > 20) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "  not so: %s\n", text);
}

void Run::ExpectNothingLeft(const Usage& before) {
    Usage now{};
    const bool isSame = test::WaitUntil(
        [&] {
            now = Usage::Now();
            // A thread that was ending when `before` was counted may have ended since.
            return now.descriptors == before.descriptors && now.threads <= before.threads;
        },
        std::chrono::seconds(20));
    Expect(isSame, "%+d descriptors, %+d threads", now.descriptors - before.descriptors,
           now.threads - before.threads);
}

void Run::Figure(const char* format, ...) {
    char text[512] = "; ";
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text + 2, sizeof(text) - 2, format, arguments);
    va_end(arguments);
    if (::write(s_figures, text, std::strlen(text)) < 0) {
        std::perror("write");
    }
}

Row::Row(const char* rowName, const char* rowClaim, unsigned int rowLimit, void (*function)(Run&))
    : name(rowName), claim(rowClaim), limit(rowLimit), run(function) {
    const Row** place = &s_rows;  // by name, whatever the order of the source files
    while (*place != nullptr && std::strcmp((*place)->name, rowName) < 0) {
        place = const_cast<const Row**>(&(*place)->next);
    }
    next = *place;
    *place = this;
}

static int RunRows(int argc, char** argv) {
    bool isLong = false;
    bool asTable = false;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--long") {
            isLong = true;
        } else if (argument == "--table") {
            asTable = true;
        } else if (argument == "--with-descriptors" && i + 2 < argc) {
            return RunWithDescriptors(std::atoi(argv[i + 1]), argv + i + 2);
        } else {
            names.push_back(argument);
        }
    }
    std::size_t found = 0;
    bool isPassed = true;
    for (const Row* row = s_rows; row != nullptr; row = row->next) {
        if (IsWanted(*row, names)) {
            ++found;
            const Outcome outcome = RunRow(*row, isLong);
            Print(*row, outcome, isLong, asTable);
            isPassed = isPassed && outcome.isPassed;
        }
    }
    if (found == 0 || found < names.size()) {
        std::fprintf(stderr, "The rows are:\n");
        for (const Row* row = s_rows; row != nullptr; row = row->next) {
            std::fprintf(stderr, "  %-14s %s\n", row->name, row->claim);
        }
        return 2;
    }
    return isPassed ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace zarip::reliability

int main(int argc, char** argv) {
    return zarip::reliability::RunRows(argc, argv);
}
