// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "osa/Errors.h"
#include "osa/FileCalls.h"
#include "osa/ProcessImpl.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/Process.h"

namespace zarip::osa {

namespace {

constexpr std::size_t kBlockSize = 65'536;

/// Before Linux 5.3 the end of a program cannot be waited for by a descriptor.
constexpr MonotonicMs kLookAgainMs = 20;

/// Writes into a pipe as far as there is room, until everything is written or the pipe has no reader.
class Feeder {
public:
    Feeder(int fd, std::string_view data) : _fd(fd), _data(data) {
        if (_fd.IsValid() && ::fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
            ThrowIOErrno("fcntl failed");
        }
        CloseAtEnd();
    }

    int GetFd() const { return _fd.Get(); }

    void Write() {
        const ssize_t length = WriteQuietly(_fd.Get(), _data.data(), _data.size());
        if (length >= 0) {
            _data.remove_prefix(static_cast<std::size_t>(length));
            CloseAtEnd();
        } else if (errno == EPIPE) {
            _fd = UniqueFd();
        } else if (errno != EAGAIN && errno != EINTR) {
            ThrowIOErrno("write failed");
        }
    }

private:
    void CloseAtEnd() {
        if (_data.empty()) {
            _fd = UniqueFd();
        }
    }

    UniqueFd _fd;
    std::string_view _data;  // what is still to be written
};

/// Reads from a pipe until its end, and keeps the first bytes.
class Collector {
public:
    Collector(int fd, std::size_t maxSize, std::string& content, bool& isCut)
        : _fd(fd), _maxSize(maxSize), _content(content), _isCut(isCut) {}

    int GetFd() const { return _fd.Get(); }

    /// Reads once; waits if nothing is there. Returns the number of bytes.
    std::size_t Read(std::size_t size = kBlockSize) {
        const ssize_t length = ::read(_fd.Get(), _block.get(), std::min(size, kBlockSize));
        if (length < 0 && errno != EINTR) {
            ThrowIOErrno("read failed");
        }
        const auto read = static_cast<std::size_t>(std::max<ssize_t>(length, 0));
        const std::size_t kept = std::min(read, _maxSize - _content.size());
        _content.append(_block.get(), kept);
        _isCut = _isCut || kept < read;
        if (length == 0) {
            _fd = UniqueFd();
        }
        return read;
    }

    /// Reads what is in the pipe now, and not what may still be written.
    void ReadRest() {
        int left = 0;
        if (_fd.IsValid() && ::ioctl(_fd.Get(), FIONREAD, &left) != 0) {
            ThrowIOErrno("ioctl failed");
        }
        while (left > 0 && _fd.IsValid()) {
            left -= static_cast<int>(Read(static_cast<std::size_t>(left)));
        }
    }

private:
    UniqueFd _fd;
    const std::size_t _maxSize;
    std::string& _content;
    bool& _isCut;
    const std::unique_ptr<char[]> _block{new char[kBlockSize]};
};

/// Waits until one of the pipes is ready or the program has ended, and serves the pipes that are ready.
void Exchange(Feeder& input, Collector& output, Collector& error, int pidFd, MonotonicMs until) {
    pollfd fds[] = {{input.GetFd(), POLLOUT, 0},
                    {output.GetFd(), POLLIN, 0},
                    {error.GetFd(), POLLIN, 0},
                    {pidFd, POLLIN, 0}};
    MonotonicMs wait = until == kNever ? -1 : std::clamp<MonotonicMs>(until - NowMs(), 0, 0x7FFFFFFF);
    if (pidFd < 0) {
        wait = wait < 0 ? kLookAgainMs : std::min(wait, kLookAgainMs);
    }
    if (::poll(fds, 4, static_cast<int>(wait)) < 0) {
        if (errno == EINTR) {
            return;
        }
        ThrowIOErrno("poll failed");
    }
    if (fds[0].revents != 0) {
        input.Write();
    }
    if (fds[1].revents != 0) {
        output.Read();
    }
    if (fds[2].revents != 0) {
        error.Read();
    }
}

}  // namespace

Process::Result Process::Run(const std::string& program, const std::vector<std::string>& arguments) {
    return Run(program, arguments, RunOptions());
}

Process::Result Process::Run(const std::string& program, const std::vector<std::string>& arguments,
                             const RunOptions& options) {
    Options redirected = options;
    if (redirected.input._kind == Redirect::kInherit) {
        redirected.input = options.inputData.empty() ? Redirect::Null() : Redirect::Pipe();
    } else if (redirected.input._kind != Redirect::kPipe && !options.inputData.empty()) {
        throw Exception("Invalid parameter");
    }
    for (Redirect* const redirect : {&redirected.output, &redirected.error}) {
        if (redirect->_kind == Redirect::kInherit) {
            *redirect = Redirect::Pipe();
        }
    }
    Process process(program, arguments, redirected);
    Result result;
    Feeder input(process.TakeInput(), options.inputData);
    Collector output(process.TakeOutput(), options.maxOutput, result.output, result.isOutputCut);
    Collector error(process.TakeError(), options.maxError, result.error, result.isErrorCut);
    const MonotonicMs until = options.timeoutMs == kWaitForEver ? kNever : NowMs() + options.timeoutMs;
    while (!process.Wait(0)) {
        if (until != kNever && NowMs() >= until) {
            result.isTimeout = process.Kill(SIGKILL);
            process.Wait(kKillTimeoutMs);
            break;
        }
        Exchange(input, output, error, process._impl->pidFd.Get(), until);
    }
    output.ReadRest();
    error.ReadRest();
    if (process.Wait(0)) {
        result.status = process.GetExitStatus();
        result.signal = process.GetSignal();
    }
    return result;
}

}  // namespace zarip::osa
