// SPDX-License-Identifier: MIT

#include "zarip/osa/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "osa/Errors.h"
#include "osa/FileCalls.h"
#include "osa/ProcessImpl.h"
#include "osa/ProcessStart.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/Mutex.h"
#include "zarip/osa/MutexAutoLock.h"

namespace zarip::osa {

namespace {

constexpr int kFirstOther = 3;
constexpr MonotonicMs kLongestPauseMs = 20;

#ifdef SYS_pidfd_open
constexpr long kPidFdOpen = SYS_pidfd_open;
constexpr long kPidFdSendSignal = SYS_pidfd_send_signal;
#else
constexpr long kPidFdOpen = 434;
constexpr long kPidFdSendSignal = 424;
#endif

struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

/// The descriptor, or a copy of it if its number is that of a standard stream.
UniqueFd AboveStandard(UniqueFd fd, const char* what, const std::string& name) {
    if (fd.Get() >= kFirstOther) {
        return fd;
    }
    UniqueFd copy(fd.IsValid() ? ::fcntl(fd.Get(), F_DUPFD_CLOEXEC, kFirstOther) : -1);
    if (!copy.IsValid()) {
        ThrowIOErrno(what, name);
    }
    return copy;
}

Pipe MakePipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        ThrowIOErrno("Couldn't make a pipe");
    }
    Pipe pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
    pipe.read = AboveStandard(std::move(pipe.read), "Couldn't open", "pipe");
    pipe.write = AboveStandard(std::move(pipe.write), "Couldn't open", "pipe");
    return pipe;
}

UniqueFd OpenFile(const std::string& path, int flags) {
    return AboveStandard(OpenAtOnce(path.c_str(), flags), "Couldn't open", path);
}

void CheckText(const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        throw Exception("Invalid parameter");
    }
}

/// Strings and the null-terminated array of their addresses.
class TextArray {
public:
    void Add(const std::string& text) {
        CheckText(text);
        _texts.push_back(text);
    }

    /// Valid until the next string is added.
    char* const* Get() {
        _addresses.clear();
        for (std::string& text : _texts) {
            _addresses.push_back(text.data());
        }
        _addresses.push_back(nullptr);
        return _addresses.data();
    }

private:
    std::vector<std::string> _texts;
    std::vector<char*> _addresses;
};

TextArray MakeEnvironment(const Process::Options& options) {
    TextArray result;
    for (char** entry = options.clearEnvironment ? nullptr : ::environ; entry != nullptr && *entry != nullptr;
         ++entry) {
        const std::string text = *entry;
        if (options.environment.count(text.substr(0, text.find('='))) == 0) {
            result.Add(text);
        }
    }
    for (const auto& [name, value] : options.environment) {
        if (name.empty() || name.find('=') != std::string::npos) {
            throw Exception("Invalid parameter");
        }
        result.Add(std::string(name).append("=").append(value));
    }
    return result;
}

TextArray MakeCandidates(const std::string& program) {
    TextArray result;
    if (program.empty() || program.find('/') != std::string::npos) {
        result.Add(program);
        return result;
    }
    const char* const variable = std::getenv("PATH");
    const std::string folders = variable != nullptr ? variable : "/bin:/usr/bin";
    for (std::size_t begin = 0; begin <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', begin), folders.size());
        const std::string folder = folders.substr(begin, end - begin);
        result.Add((folder.empty() ? "." : folder) + "/" + program);
        begin = end + 1;
    }
    return result;
}

/// Programs that were killed and did not end. *Thread-safe*.
class LeftBehind {
public:
    static LeftBehind& Get() {
        static auto* const instance = new LeftBehind;
        return *instance;
    }

    void Add(pid_t pid) {
        const MutexAutoLock lock(&_mutex);
        _pids.push_back(pid);
    }

    void Reap() {
        const MutexAutoLock lock(&_mutex);
        const auto isGone = [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; };
        _pids.erase(std::remove_if(_pids.begin(), _pids.end(), isGone), _pids.end());
    }

private:
    Mutex _mutex{"LeftBehind"};
    std::vector<pid_t> _pids ZARIP_GUARDED_BY(_mutex);
};

}  // namespace

/// Opens what becomes the program's stream; invalid if the stream stays.
UniqueFd Process::Impl::Connect(const Redirect& redirect, int stream) {
    const MutexAutoLock lock(&mutex);
    const bool isInput = stream == 0;
    Redirect::Kind kind = redirect._kind;
    if (kind == Redirect::kInherit) {
        // If a standard stream is missing, other code may have opened another file with that number.
        const int flags = ::fcntl(stream, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            return UniqueFd();
        }
        kind = Redirect::kNull;
    }
    CheckText(redirect._path);
    switch (kind) {
        case Redirect::kPipe: {
            Pipe pipe = MakePipe();
            pipes[stream] = std::move(isInput ? pipe.write : pipe.read);
            return std::move(isInput ? pipe.read : pipe.write);
        }
        case Redirect::kFile:
            return OpenFile(redirect._path, isInput ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC);
        case Redirect::kAppend:
            if (!isInput) {
                return OpenFile(redirect._path, O_WRONLY | O_CREAT | O_APPEND);
            }
            break;
        case Redirect::kDescriptor: {
            UniqueFd copy(::fcntl(redirect._fd, F_DUPFD_CLOEXEC, kFirstOther));
            if (!copy.IsValid()) {
                ThrowIOErrno("Couldn't open", std::to_string(redirect._fd));
            }
            return copy;
        }
        case Redirect::kNull:
            return OpenFile("/dev/null", isInput ? O_RDONLY : O_WRONLY);
        default:
            break;
    }
    throw Exception("Invalid parameter");
}

namespace {

/// Returns whether the child has reported a failure.
bool ReadReport(int fd, StartFailure& failure) {
    ssize_t length = 0;
    do {
        length = ::read(fd, &failure, sizeof failure);
    } while (length < 0 && errno == EINTR);
    return length == static_cast<ssize_t>(sizeof failure);
}

}  // namespace

void Process::Impl::Start(const std::string& program, const std::vector<std::string>& arguments,
                          const Options& options) {
    TextArray candidates = MakeCandidates(program);
    TextArray environment = MakeEnvironment(options);
    TextArray allArguments;
    allArguments.Add(program);
    for (const std::string& argument : arguments) {
        allArguments.Add(argument);
    }
    CheckText(options.folder);
    const bool isJoined = options.error._kind == Redirect::kOutput;
    const UniqueFd input = Connect(options.input, 0);
    const UniqueFd output = Connect(options.output, 1);
    const UniqueFd error = isJoined ? UniqueFd() : Connect(options.error, 2);
    Pipe report = MakePipe();

    ProcessPlan plan{};
    plan.candidates = candidates.Get();
    plan.arguments = allArguments.Get();
    plan.environment = environment.Get();
    plan.folder = options.folder.empty() ? nullptr : options.folder.c_str();
    plan.streams[0] = input.Get();
    plan.streams[1] = output.Get();
    plan.streams[2] = isJoined ? STDOUT_FILENO : error.Get();
    plan.report = report.write.Get();
    plan.ownGroup = options.ownGroup;
    isGroup = options.ownGroup;
    pid = StartProcess(plan);
    if (pid < 0) {
        ThrowIOErrno("Couldn't start", program);
    }

    report.write = UniqueFd();
    if (plan.isDone) {
        // The pipe is not read to its end, because a process that other code forks meanwhile keeps it open.
        ::fcntl(report.read.Get(), F_SETFL, O_NONBLOCK);
    }
    StartFailure failure{};
    if (ReadReport(report.read.Get(), failure)) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        if (failure.isFolder) {
            ThrowIOErrno("Couldn't change to folder", options.folder, failure.error);
        }
        ThrowIOErrno("Couldn't start", program, failure.error);
    }
    pidFd = UniqueFd(static_cast<int>(::syscall(kPidFdOpen, pid, 0)));
}

/// Whether the program has ended. The leader of a group stays a zombie until the object is destroyed, so that
/// the system does not give the number of the group to other processes.
bool Process::Impl::CheckEnded() {
    const MutexAutoLock lock(&mutex);
    if (ended) {
        return true;
    }
    siginfo_t info{};
    int result = 0;
    do {
        result = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | (isGroup ? WNOWAIT : 0));
    } while (result != 0 && errno == EINTR);
    if (result == 0 && info.si_pid == 0) {
        return false;
    }
    ended = true;
    reaped = result != 0 || !isGroup;
    if (result == 0) {
        (info.si_code == CLD_EXITED ? status : signal) = info.si_status;
    }
    return true;
}

void Process::Impl::Reap() {
    const MutexAutoLock lock(&mutex);
    while (!reaped && ::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    reaped = true;
}

/// Sends a signal; 0 or the errno.
int Process::Impl::Send(int number) {
    const auto result = isGroup           ? ::kill(-pid, number)
                        : pidFd.IsValid() ? ::syscall(kPidFdSendSignal, pidFd.Get(), number, nullptr, 0)
                                          : ::kill(pid, number);
    return result == 0 ? 0 : errno;
}

Process::Redirect::Redirect() : Redirect(kInherit, "", -1) {}
Process::Redirect::Redirect(Kind kind, const std::string& path, int fd) : _kind(kind), _path(path), _fd(fd) {}

Process::Redirect Process::Redirect::Inherit() {
    return {kInherit, "", -1};
}
Process::Redirect Process::Redirect::Null() {
    return {kNull, "", -1};
}
Process::Redirect Process::Redirect::Pipe() {
    return {kPipe, "", -1};
}
Process::Redirect Process::Redirect::File(const std::string& path) {
    return {kFile, path, -1};
}
Process::Redirect Process::Redirect::Append(const std::string& path) {
    return {kAppend, path, -1};
}
Process::Redirect Process::Redirect::Descriptor(int fd) {
    return {kDescriptor, "", fd};
}
Process::Redirect Process::Redirect::Output() {
    return {kOutput, "", -1};
}

Process::Process(const std::string& program, const std::vector<std::string>& arguments)
    : Process(program, arguments, Options()) {}

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const Options& options)
    : _impl(new Impl) {
    LeftBehind::Get().Reap();
    _impl->Start(program, arguments, options);
}

Process::~Process() {
    try {
        const bool hadEnded = _impl->CheckEnded();
        {
            const MutexAutoLock lock(&_impl->mutex);
            if (!_impl->reaped) {
                _impl->Send(SIGKILL);
            }
        }
        if (hadEnded || Wait(kKillTimeoutMs)) {
            _impl->Reap();
        } else {
            LeftBehind::Get().Add(_impl->pid);
        }
        LeftBehind::Get().Reap();
    } catch (...) {
        // Out of memory: the program is killed, and stays a zombie until this process ends.
    }
}

bool Process::Wait(unsigned int timeoutMs) {
    const MonotonicMs until = timeoutMs == kWaitForEver ? kNever : NowMs() + timeoutMs;
    MonotonicMs pause = 1;
    while (!_impl->CheckEnded()) {
        const MonotonicMs left = until == kNever ? kLongestPauseMs : until - NowMs();
        if (left <= 0) {
            return false;
        }
        if (!_impl->pidFd.IsValid()) {
            ::poll(nullptr, 0, static_cast<int>(std::min(pause, left)));
            pause = std::min(2 * pause, kLongestPauseMs);
            continue;
        }
        WaitResult result{};
        if (!WaitForEither({_impl->pidFd.Get(), POLLIN}, {-1, 0}, nullptr, until, result)) {
            ThrowIOErrno("poll failed");
        }
    }
    return true;
}

bool Process::Kill(int signal) {
    const bool ended = _impl->CheckEnded();
    const MutexAutoLock lock(&_impl->mutex);
    if (_impl->reaped) {
        return false;
    }
    const int error = _impl->Send(signal);
    if (error != 0 && error != ESRCH) {
        ThrowIOErrno("Couldn't send the signal", error);
    }
    return !ended && error == 0;
}

int Process::GetExitStatus() {
    if (!_impl->CheckEnded()) {
        throw Exception("Process has not ended");
    }
    const MutexAutoLock lock(&_impl->mutex);
    return _impl->status;
}

int Process::GetSignal() {
    if (!_impl->CheckEnded()) {
        throw Exception("Process has not ended");
    }
    const MutexAutoLock lock(&_impl->mutex);
    return _impl->signal;
}

int Process::GetPid() const {
    return _impl->pid;
}

int Process::TakeInput() {
    const MutexAutoLock lock(&_impl->mutex);
    return _impl->pipes[0].Release();
}

int Process::TakeOutput() {
    const MutexAutoLock lock(&_impl->mutex);
    return _impl->pipes[1].Release();
}

int Process::TakeError() {
    const MutexAutoLock lock(&_impl->mutex);
    return _impl->pipes[2].Release();
}

}  // namespace zarip::osa
