// SPDX-License-Identifier: MIT

#include "osa/Wait.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "osa/Errors.h"

namespace zarip::osa {

namespace {

/// A cancel event without a descriptor is looked at this often.
constexpr MonotonicMs kLookAgainMs = 200;

}  // namespace

CancelEvent::~CancelEvent() {
    if (_fd >= 0) {
        ::close(_fd);
    }
}

void CancelEvent::Cancel() {
    // The order matters: a thread that makes the descriptor publishes it and then looks at the flag.
    _cancelled = true;
    const int fd = _fd;
    if (fd >= 0) {
        ::eventfd_write(fd, 1);
    }
}

int CancelEvent::GetFd() {
    if (_fd >= 0) {
        return _fd;
    }
    const int made = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int none = -1;
    if (made >= 0 && !_fd.compare_exchange_strong(none, made)) {
        ::close(made);
    }
    if (_cancelled && _fd >= 0) {
        ::eventfd_write(_fd, 1);
    }
    return _fd;
}

MonotonicMs NowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<MonotonicMs>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

namespace {

/// Waits for one of two descriptors; false with errno if the system refuses.
bool Wait(const WaitFd (&fds)[2], CancelEvent* const (&cancels)[2], MonotonicMs until, WaitResult& result) {
    pollfd descriptors[] = {
        {fds[0].fd, fds[0].events, 0}, {fds[1].fd, fds[1].events, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
    bool looksAgain = false;
    for (int i = 0; i < 2; ++i) {
        if (cancels[i] != nullptr) {
            descriptors[i + 2].fd = cancels[i]->GetFd();
            looksAgain = looksAgain || descriptors[i + 2].fd < 0;
        }
    }
    for (;;) {
        for (const CancelEvent* const event : cancels) {
            if (event != nullptr && event->IsCancelled()) {
                result = WaitResult::kCancelled;
                return true;
            }
        }
        MonotonicMs wait = until == kNever ? 0x7FFFFFFF : std::max<MonotonicMs>(until - NowMs(), 0);
        if (looksAgain) {
            wait = std::min(wait, kLookAgainMs);
        }
        const int ready = ::poll(descriptors, 4, static_cast<int>(std::min<MonotonicMs>(wait, 0x7FFFFFFF)));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready > 0 && descriptors[2].revents == 0 && descriptors[3].revents == 0) {
            result = WaitResult::kReady;
            return true;
        }
        if (ready == 0 && until != kNever && NowMs() >= until) {
            result = WaitResult::kTimeout;
            return true;
        }
    }
}

}  // namespace

WaitResult WaitFor(int fd, short events, CancelEvent* cancel, MonotonicMs until, CancelEvent* other) {
    WaitResult result{};
    if (!Wait({{fd, events}, {-1, 0}}, {cancel, other}, until, result)) {
        ThrowErrno("select failed");
    }
    return result;
}

bool WaitForEither(WaitFd first, WaitFd second, CancelEvent* cancel, MonotonicMs until, WaitResult& result) {
    return Wait({first, second}, {cancel, nullptr}, until, result);
}

void Pause(MonotonicMs duration, CancelEvent* cancel) {
    WaitResult result{};
    WaitForEither({-1, 0}, {-1, 0}, cancel, NowMs() + duration, result);
}

}  // namespace zarip::osa
