// SPDX-License-Identifier: MIT

// Fails one allocation after the other, of the library and of what it uses, in each kind of work.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "FailingMemory.h"
#include "Harness.h"
#include "Works.h"
#include "zarip/crypto/GCryptInit.h"

namespace zarip::reliability {
namespace {

/// The environment variable ZARIP_WORK chooses one kind.
bool IsChosen(const Work& work) {
    const char* const chosen = std::getenv("ZARIP_WORK");
    return chosen == nullptr || std::string(chosen) == work.name;
}

/// Fails the n-th allocation; false if there are not so many.
bool Fail(Run& run, const Work& work, long n) {
    FailingMemory::FailAt(n, work.threads);
    const Result result = Try(work);
    const bool hasFailed = FailingMemory::End();
    run.Expect(result != Result::kWrong || work.mayBeLost, "%s: wrong result at allocation %ld", work.name,
               n);
    run.Expect(Try(work) == Result::kRight, "%s: does not work after allocation %ld failed", work.name, n);
    return hasFailed;
}

/// Fails each allocation of the very first run, each in a process of its own.
void FailEachFirst(Run& run, const Work& work) {
    for (long n = 1; n <= 5000; ++n) {
        std::fflush(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            // What libxml2 prints for each allocation that fails at its own start.
            if (std::getenv("ZARIP_TRACE") == nullptr && std::freopen("/dev/null", "w", stderr) == nullptr) {
                ::_exit(4);
            }
            FailingMemory::FailAt(n, work.threads);
            const Result result = Try(work);
            const bool hasFailed = FailingMemory::End();
            if (result == Result::kWrong && !work.mayBeLost) {
                ::_exit(1);
            }
            ::_exit(Try(work) != Result::kRight ? 2 : hasFailed ? 0 : 3);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 3) {
            return;
        }
        run.Expect(status == 0, "%s, first run: status %#x at allocation %ld", work.name,
                   static_cast<unsigned int>(status), n);
    }
}

/// Fails each allocation many times: what leaks does so each time, while the caches of libdbus and libxml2
/// grow by a few blocks. How many allocations there are.
long FailEach(Run& run, const Work& work) {
    constexpr int kRounds = 20;
    run.Expect(Try(work) == Result::kRight, "%s: does not work at all", work.name);
    const auto start = std::chrono::steady_clock::now();
    long count = 0;
    while (count < 5000 && Fail(run, work, count + 1)) {
        ++count;
    }
    // What takes long has waited for something that was lost.
    const int rounds = MillisecondsSince(start) < (run.IsLong() ? 5000 : 100) ? kRounds : 1;
    for (long n = 1; n <= count && rounds > 1 && !work.mayLeaveBlocks; ++n) {
        const long before = FailingMemory::GetBlocks();
        for (int round = 0; round < rounds; ++round) {
            Fail(run, work, n);
        }
        const auto hasLeft = [&] { return FailingMemory::GetBlocks() - before >= kRounds; };
        run.Expect(test::WaitUntil([&] { return !hasLeft(); }, std::chrono::milliseconds(200)),
                   "%s: %ld blocks are left after %d failures of allocation %ld", work.name,
                   FailingMemory::GetBlocks() - before, kRounds, n);
    }
    if (std::getenv("ZARIP_TRACE") != nullptr) {
        std::fprintf(stderr, "%s: %ld allocations, %lld ms\n", work.name, count, MillisecondsSince(start));
    }
    return count;
}

}  // namespace

ROW(Allocation,
    "Each single allocation fails once, in calls, served calls, signals, web requests, INI files, log "
    "records, tasks, timers, datagrams, digests, XML, JSON, process starts and in making connections and "
    "servers: an exception or an error answer, no block leaked, the next operation right",
    60) {
    if (!FailingMemory::IsSupported()) {
        run.Figure("not measured with sanitizers");
        return;
    }
    crypto::GCryptInit::InitializeGcrypt();  // libgcrypt ends the process if its own start fails
    const test::TempDir folder;
    long allocations = 0;
    int kinds = 0;
    const auto fail = [&](const Work& work) {
        allocations += IsChosen(work) ? FailEach(run, work) : 0;
        ++kinds;
    };
    for (const Work& work : LocalWorks(folder)) {
        if (IsChosen(work)) {
            FailEachFirst(run, work);
        }
        fail(work);
    }
    Services services;
    for (const Work& work : services.GetWorks()) {
        fail(work);
    }
    run.Figure("%ld allocations in %d kinds of work", allocations, kinds);
}

}  // namespace zarip::reliability
