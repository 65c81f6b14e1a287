// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <thread>
#include <tuple>

#include "osa/FailingCalls.h"
#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/SmallStack.h"
#include "support/TempDir.h"
#include "zarip/core/Logger.h"
#include "zarip/core/MemoryAppender.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/osa/PipeStream.h"
#include "zarip/osa/Process.h"

namespace zarip::osa {
namespace {

using std::string;
using test::ErrorOf;
using test::TempDir;
using Redirect = Process::Redirect;

/// All that a program prints.
string OutputOf(const string& program, const std::vector<string>& arguments,
                Process::Options options = Process::Options()) {
    options.output = Redirect::Pipe();
    Process process(program, arguments, options);
    return PipeStream(process, 30).ReadAll();
}

TEST(ProcessTest, HandsOverArgumentsEnvironmentAndFolder) {
    const TempDir folder;
    Process::Options options;
    options.environment = {{"ZARIP_ONE", "1 = \"one\""}, {"LANG", "C"}};
    options.folder = folder.Path();
    ::setenv("ZARIP_TWO", "two", 1);
    // Nothing is taken for the language of a shell.
    const std::vector<string> arguments = {"-c", "printf '%s|' \"$@\" \"$ZARIP_ONE\" \"$ZARIP_TWO\"; pwd",
                                           "x", "", "$HOME *; \"a b\"\n"};
    EXPECT_EQ(OutputOf("sh", arguments, options),
              "|$HOME *; \"a b\"\n|1 = \"one\"|two|" + folder.Path() + "\n");
    options.clearEnvironment = true;
    EXPECT_EQ(OutputOf("/usr/bin/env", {}, options), "LANG=C\nZARIP_ONE=1 = \"one\"\n");
    ::unsetenv("ZARIP_TWO");

    // A relative program counts from its folder, a name without a slash from PATH.
    std::filesystem::create_symlink("/bin/pwd", folder.File("here"));
    EXPECT_EQ(OutputOf("./here", {}, options), folder.Path() + "\n");
    const string path = ::getenv("PATH");
    ::setenv("PATH", ("/no/folder:" + folder.Path()).c_str(), 1);
    options.environment["PATH"] = "/no/folder";  // which is not the one that counts
    EXPECT_EQ(OutputOf("here", {"-P"}, options), folder.Path() + "\n");
    ::setenv("PATH", path.c_str(), 1);
}

TEST(ProcessTest, RedirectsStreams) {
    const TempDir folder;
    Process::Options options;
    options.input = Redirect::File(folder.Write("in", "input\n"));
    options.output = Redirect::File(folder.Write("out", "much longer than what comes"));
    options.error = Redirect::Append(folder.Write("err", "kept\n"));
    const std::vector<string> script = {"-c", "cat; echo error >&2"};
    EXPECT_TRUE(Process("sh", script, options).Wait());
    EXPECT_EQ(folder.Read("out"), "input\n");
    EXPECT_EQ(folder.Read("err"), "kept\nerror\n");

    const int fd = ::open(folder.File("both").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    options.input = Redirect::Null();
    options.output = Redirect::Descriptor(fd);
    options.error = Redirect::Output();
    EXPECT_TRUE(Process("sh", {"-c", "echo one; echo two >&2; cat"}, options).Wait());
    ::close(fd);
    EXPECT_EQ(folder.Read("both"), "one\ntwo\n");
    options.input = Redirect::File(folder.File("in"));
    EXPECT_EQ(OutputOf("sh", script, options), "input\nerror\n");

    // At first it has no writer, and then it has one.
    ASSERT_EQ(::mkfifo(folder.File("fifo").c_str(), 0600), 0);
    options.input = Redirect::File(folder.File("fifo"));
    EXPECT_EQ(OutputOf("sh", script, options), "error\n");
    const int fifo = ::open(folder.File("fifo").c_str(), O_RDWR | O_CLOEXEC);
    options.input = Redirect::File(folder.File("fifo"));
    options.output = Redirect::Pipe();
    {
        Process head("head", {"-n", "1"}, options);
        PipeStream fromHead(head, 30);
        EXPECT_EQ(::write(fifo, "line\n", 5), 5);  // it waits for that
        EXPECT_EQ(fromHead.ReadAll(), "line\n");
    }
    ::close(fifo);

    options.output = options.error = Redirect::Pipe();
    Process apart("sh", {"-c", "echo one; echo two >&2"}, options);
    PipeStream output(apart);
    PipeStream error(apart.TakeError(), -1);
    string word;
    EXPECT_TRUE(error >> word);
    EXPECT_EQ(word, "two");
    EXPECT_TRUE(output >> word);
    EXPECT_EQ(word, "one");
    EXPECT_EQ(apart.TakeInput() + apart.TakeOutput() + apart.TakeError(), -3);
}

TEST(ProcessTest, TellsHowItEnded) {
    const struct {
        const char* script;
        int status, signal;
    } rows[] = {{"exit 0", 0, 0}, {"exit 7", 7, 0}, {"exit 255", 255, 0}, {"kill -TERM $$", -1, SIGTERM}};
    for (const bool isGroup : {false, true}) {
        for (const auto& row : rows) {
            Process::Options options;
            options.ownGroup = isGroup;
            Process process("sh", {"-c", row.script}, options);
            EXPECT_TRUE(process.Wait());
            EXPECT_EQ(process.GetExitStatus(), row.status) << row.script;
            EXPECT_EQ(process.GetSignal(), row.signal) << row.script;
            EXPECT_FALSE(process.Kill());
            // Nobody else is to get the number of a group that can still be killed.
            EXPECT_EQ(::kill(process.GetPid(), 0), isGroup ? 0 : -1);
        }
    }
}

TEST(ProcessTest, FailsToStart) {
    const TempDir folder;
    const string file = folder.Write("text", "echo hello\n");
    const string script = folder.Write("script", "echo hello\n");
    std::filesystem::permissions(script, std::filesystem::perms(0755));
    Process::Options good;
    Process::Options badFolder;
    badFolder.folder = folder.File("none");
    Process::Options badFile;
    badFile.output = Redirect::File("/no/file");
    const string fifo = folder.File("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Process::Options badFifo;
    badFifo.output = Redirect::Append(fifo);
    Process::Options badFd;
    badFd.input = Redirect::Descriptor(12'345);
    Process::Options badKind;
    badKind.input = Redirect::Output();
    Process::Options badName;
    badName.environment["A=B"] = "";
    const struct {
        string program;
        const Process::Options& options;
        string error;
    } rows[] = {
        {"no-such-program", good, "Couldn't start 'no-such-program': errno(2): No such file or directory"},
        {"", good, "Couldn't start '': errno(2): No such file or directory"},
        {folder.File("none"), good,
         "Couldn't start '" + folder.File("none") + "': errno(2): No such file or directory"},
        {file, good, "Couldn't start '" + file + "': errno(13): Permission denied"},
        {script, good, "Couldn't start '" + script + "': errno(8): Exec format error"},  // no shell runs it
        {"true", badFolder,
         "Couldn't change to folder '" + folder.File("none") + "': errno(2): No such file or directory"},
        {"true", badFile, "Couldn't open '/no/file': errno(2): No such file or directory"},
        {"true", badFifo, "Couldn't open '" + fifo + "': errno(6): No such device or address"},
        {"true", badFd, "Couldn't open '12345': errno(9): Bad file descriptor"},
        {"true", badKind, "Invalid parameter"},
        {"true", badName, "Invalid parameter"},
        {string("true\0x", 6), good, "Invalid parameter"},
    };
    const auto before = FileUtils::List("/proc/self/fd").size();
    for (const auto& row : rows) {
        EXPECT_EQ(ErrorOf([&] { Process(row.program, {}, row.options); }), row.error);
    }
    EXPECT_EQ(FileUtils::List("/proc/self/fd").size(), before);
    siginfo_t zombie{};
    ::waitid(P_ALL, 0, &zombie, WEXITED | WNOHANG | WNOWAIT);
    EXPECT_EQ(zombie.si_pid, 0);
}

/// Descriptors that other code has opened, and signals that our processes ignore or block.
class Untidy {
public:
    Untidy() {
        for (int& fd : _fds) {
            fd = ::open("/dev/null", O_RDONLY);
        }
        for (int i = 0; i < 2; ++i) {
            _handlers[i] = ::signal(kIgnored[i], SIG_IGN);
        }
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::pthread_sigmask(SIG_BLOCK, &blocked, &_mask);
    }
    Untidy(const Untidy&) = delete;
    Untidy& operator=(const Untidy&) = delete;
    ~Untidy() {
        for (const int fd : _fds) {
            ::close(fd);
        }
        ::pthread_sigmask(SIG_SETMASK, &_mask, nullptr);
        for (int i = 0; i < 2; ++i) {
            ::signal(kIgnored[i], _handlers[i]);
        }
    }

private:
    static constexpr int kIgnored[] = {SIGPIPE, SIGUSR1};
    sighandler_t _handlers[2];
    int _fds[100];  // more than one call lists
    sigset_t _mask;
};

void ExpectTidyPrograms() {
    EXPECT_EQ(OutputOf("ls", {"/proc/self/fd"}), "0\n1\n2\n3\n");  // the last is that of the folder
    EXPECT_EQ(OutputOf("grep", {"-E", "^Sig(Blk|Ign)", "/proc/self/status"}),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(ProcessTest, ProgramsInheritNeitherDescriptorsNorSignals) {
    const Untidy untidy;
    ExpectTidyPrograms();
    test::OnSmallStack([] { ExpectTidyPrograms(); });
}

/// Runs an action on a thread that has not some of the system calls, nor have its programs.
void Without(const std::vector<unsigned int>& calls, const std::function<void()>& action) {
    std::thread old([&] {
        std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
        for (const unsigned int call : calls) {
            filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
            filter.push_back(
                BPF_STMT(BPF_RET | BPF_K, static_cast<unsigned int>(SECCOMP_RET_ERRNO) | ENOSYS));
        }
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
            GTEST_SKIP() << "cannot filter system calls";
        }
        action();
    });
    old.join();
}

constexpr unsigned int kCloseRange = 436;
constexpr unsigned int kPidFdOpen = 434;

TEST(ProcessTest, ManagesOnOldKernels) {
    const Untidy untidy;
    Without({kCloseRange, kPidFdOpen}, [] {
        ASSERT_EQ(::syscall(kPidFdOpen, ::getpid(), 0), -1);
        ExpectTidyPrograms();
        Process process("sleep", {"1000"});
        EXPECT_FALSE(process.Wait(0));
        EXPECT_FALSE(process.Wait(30));
        EXPECT_TRUE(process.Kill());
        EXPECT_TRUE(process.Wait());
        EXPECT_EQ(process.GetSignal(), SIGTERM);
    });
}

// Where the system does not list them either, and one is beyond the limit.
TEST(ProcessTest, ProgramsInheritNoDescriptorsWhateverTheirNumbers) {
    rlimit old{};
    ::getrlimit(RLIMIT_NOFILE, &old);
    const rlimit all = {old.rlim_max, old.rlim_max};
    const rlimit few = {200, old.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &all);
    const int low = ::fcntl(2, F_DUPFD, 3);
    const int high = ::fcntl(2, F_DUPFD, static_cast<int>(std::min<rlim_t>(old.rlim_max, 100'001) - 1));
    ::setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_GT(high, 200);
    Without({kCloseRange, SYS_getdents64}, [&] {
        const string script = "for fd in 1 " + std::to_string(low) + " " + std::to_string(high) +
                              "; do [ ! -e /proc/self/fd/$fd ] || echo $fd; done";
        EXPECT_EQ(OutputOf("sh", {"-c", script}), "1\n");
    });
    ::setrlimit(RLIMIT_NOFILE, &old);
    ::close(low);
    ::close(high);
}

// Another thread's, at the worst moment.
TEST(ProcessTest, DoesNotWaitForAForkedProcess) {
    volatile bool isShared = false;
    const pid_t child = ::vfork();
    if (child == 0) {
        isShared = true;
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    if (!isShared) {
        GTEST_SKIP() << "vfork is fork here";
    }
    pid_t forked = -1;
    {
        const FailingCall fork("pthread_setcancelstate", 0, [&] {
            forked = forked < 0 ? ::fork() : forked;
            if (forked == 0) {
                ::pause();
            }
        });
        Process process("true", {});
        EXPECT_TRUE(process.Wait());
        EXPECT_EQ(ErrorOf([] { Process("/no/program", {}); }),
                  "Couldn't start '/no/program': errno(2): No such file or directory");
    }
    ::kill(forked, SIGKILL);
    EXPECT_EQ(::waitpid(forked, nullptr, 0), forked);
}

// Where there is no standard stream, neither a file of ours nor a pipe takes its place.
TEST(ProcessTest, ReplacesMissingStreams) {
    const int input = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    const int error = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    ::close(0);
    ::close(2);
    const int taken = ::open("/etc/passwd", O_RDONLY | O_CLOEXEC);  // 0
    const string links = OutputOf("readlink", {"/proc/self/fd/0", "/proc/self/fd/2"});
    Process::Options options;
    options.input = Redirect::Pipe();
    options.output = Redirect::Pipe();
    ::close(taken);
    string word;
    {
        Process cat("cat", {}, options);  // both are below 3 at first
        PipeStream stream(cat);
        stream << "word" << std::endl;
        stream >> word;
    }
    ::dup2(input, 0);
    ::dup2(error, 2);
    ::close(input);
    ::close(error);
    EXPECT_EQ(taken, 0);
    EXPECT_EQ(links, "/dev/null\n/dev/null\n");
    EXPECT_EQ(word, "word");
}

TEST(ProcessTest, WaitsAndKills) {
    Process process("sleep", {"1000"});
    EXPECT_EQ(::kill(process.GetPid(), 0), 0);
    EXPECT_FALSE(process.Wait(0));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(process.Wait(50));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(ErrorOf([&] { process.GetExitStatus(); }), "Process has not ended");
    EXPECT_EQ(ErrorOf([&] { process.GetSignal(); }), "Process has not ended");
    EXPECT_EQ(ErrorOf([&] { process.Kill(1'000); }), "Couldn't send the signal: errno(22): Invalid argument");
    std::thread waiting([&] { EXPECT_TRUE(process.Wait()); });
    EXPECT_TRUE(process.Kill(SIGINT));
    waiting.join();
    EXPECT_TRUE(process.Wait(0));
    EXPECT_EQ(process.GetSignal(), SIGINT);
    EXPECT_FALSE(process.Kill());
    EXPECT_EQ(::kill(process.GetPid(), 0), -1);
}

TEST(ProcessTest, RunsToTheEnd) {
    const string much(4U << 20U, 'x');
    Process::RunOptions twice;
    twice.inputData = much;
    twice.maxOutput = twice.maxError = much.size();
    Process::RunOptions cut = twice;
    cut.maxOutput = 10;
    cut.maxError = 0;
    Process::RunOptions joined;
    joined.error = Redirect::Output();
    Process::RunOptions endless;
    endless.timeoutMs = 50;
    const string ten(10, 'x');
    const struct {
        const char* script;
        const Process::RunOptions& options;
        Process::Result expected;
    } rows[] = {
        // A caller that served only one pipe at a time would wait for ever.
        {"tee /dev/stderr; exit 7", twice, {7, 0, much, much, false, false, false}},
        {"tee /dev/stderr", cut, {0, 0, ten, "", true, true, false}},
        {"exec <&-; echo unread", twice, {0, 0, "unread\n", "", false, false, false}},
        {"echo one; echo two >&2; cat", joined, {0, 0, "one\ntwo\n", "", false, false, false}},
        {"exec >&- 2>&-; kill -TERM $$", joined, {-1, SIGTERM, "", "", false, false, false}},
        {"sleep 1000; echo", endless, {-1, SIGKILL, "", "", false, false, true}},
        {"sleep 1000 & echo begun", joined, {0, 0, "begun\n", "", false, false, false}},
    };
    const auto runAll = [&] {
        const auto before = FileUtils::List("/proc/self/fd").size();
        for (const auto& row : rows) {
            const Process::Result found = Process::Run("sh", {"-c", row.script}, row.options);
            const auto parts = [](const Process::Result& result) {
                return std::tie(result.status, result.signal, result.output, result.error, result.isOutputCut,
                                result.isErrorCut, result.isTimeout);
            };
            EXPECT_TRUE(parts(found) == parts(row.expected))
                << row.script << ": " << found.status << " " << found.output.size() << " "
                << found.error.size();
        }
        EXPECT_EQ(FileUtils::List("/proc/self/fd").size(), before);
    };
    test::OnSmallStack(runAll);
    Without({kPidFdOpen}, runAll);
    EXPECT_EQ(ErrorOf([] { Process::Run("/no/program", {}); }),
              "Couldn't start '/no/program': errno(2): No such file or directory");
    joined.input = Redirect::Null();
    joined.inputData = "x";
    EXPECT_EQ(ErrorOf([&] { Process::Run("cat", {}, joined); }), "Invalid parameter");
}

TEST(ProcessTest, RunEndsWhatTheProgramHasStartedUnlessItHasNoGroup) {
    int held[2];
    ASSERT_EQ(::pipe2(held, O_CLOEXEC), 0);
    Process::RunOptions options;
    options.error = Redirect::Descriptor(held[1]);
    for (const bool isGroup : {true, false}) {
        options.ownGroup = isGroup;
        const int pid = std::stoi(Process::Run("sh", {"-c", "sleep 1000 & echo $!"}, options).output);
        EXPECT_TRUE(isGroup || ::kill(pid, SIGKILL) == 0);
    }
    ::close(held[1]);
    EXPECT_EQ(::read(held[0], held, 1), 0);  // no process is left that could write
    ::close(held[0]);
}

TEST(ProcessTest, DestructionLeavesNothingBehind) {
    int pid = 0;
    {
        const Process process("sh", {"-c", "trap '' TERM; exec sleep 1000"});
        pid = process.GetPid();
    }
    EXPECT_EQ(::kill(pid, 0), -1);

    // The head of the group has ended before, what it started has not.
    for (const char* script : {"sleep 1000 & echo", "sleep 1000 & echo; wait"}) {
        Process::Options options;
        options.ownGroup = true;
        options.output = Redirect::Pipe();
        std::unique_ptr<PipeStream> output;
        {
            Process process("sh", {"-c", script}, options);
            output = std::make_unique<PipeStream>(process, 30);
            EXPECT_EQ(output->get(), '\n');
            EXPECT_EQ(process.Wait(string(script).back() == 't' ? 0 : kWaitForEver),
                      string(script).back() != 't');
        }
        EXPECT_EQ(output->get(), EOF);  // no process is left that could write
        EXPECT_TRUE(output->eof());
    }
}

TEST(ProcessTest, KeepsToItsOwnProgram) {
    pid_t other = 0;
    char name[] = "sh";
    char option[] = "-c";
    char script[] = "exit 3";
    char* const arguments[] = {name, option, script, nullptr};
    ASSERT_EQ(::posix_spawn(&other, "/bin/sh", nullptr, nullptr, arguments, environ), 0);
    {
        Process process("true", {});
        EXPECT_TRUE(process.Wait());
        const Process killed("sleep", {"1000"});
    }
    int status = 0;
    EXPECT_EQ(::waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 3);

    // It does not wait for ever either if other code has reaped the program.
    Process reaped("sh", {"-c", "exit 3"});
    EXPECT_EQ(::waitpid(reaped.GetPid(), nullptr, 0), reaped.GetPid());
    EXPECT_TRUE(reaped.Wait());
    EXPECT_EQ(reaped.GetExitStatus(), -1);
    EXPECT_EQ(reaped.GetSignal(), 0);
    EXPECT_FALSE(reaped.Kill());
}

// Programs start while other threads hold locks, and their pipes do not leak into each other: a copy of the
// input's other end would keep cat waiting.
TEST(ProcessTest, StartsFromManyThreads) {
    core::MemoryAppender appender;
    core::Logger* const logger = core::Logger::GetLogger("ProcessTest");
    std::atomic<bool> isDone{false};
    std::thread noise([&] {
        while (!isDone) {
            logger->Information("%s", string(500, 'x').c_str());
        }
    });
    test::InThreads(4, [](int) {
        for (int j = 0; j < 25; ++j) {
            Process::Options options;
            options.input = options.output = Redirect::Pipe();
            Process process("cat", {}, options);
            PipeStream stream(process, 30);
            stream << "text";
            stream.CloseWrite();
            EXPECT_EQ(stream.ReadAll(), "text");
            EXPECT_TRUE(process.Wait());
            EXPECT_EQ(process.GetExitStatus(), 0);
        }
    });
    isDone = true;
    noise.join();
}

}  // namespace
}  // namespace zarip::osa
