// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <memory>
#include <thread>

#include "osa/FailingCalls.h"
#include "support/ErrorOf.h"
#include "zarip/osa/IOException.h"
#include "zarip/osa/PipeStream.h"
#include "zarip/osa/Process.h"

namespace zarip::osa {
namespace {

namespace fs = std::filesystem;
using std::string;
using test::ErrorOf;

/// A program on pipes.
struct Program {
    explicit Program(const string& script, unsigned int timeoutSeconds = 30)
        : process("sh", {"-c", script}, Piped()), stream(process, timeoutSeconds) {}

    static Process::Options Piped() {
        Process::Options options;
        options.input = options.output = Process::Redirect::Pipe();
        return options;
    }

    Process process;
    PipeStream stream;
};

/// A pipe in the process itself.
struct Pipe {
    Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0); }
    int fds[2] = {-1, -1};
};

/// What an operation throws when the stream passes exceptions on; without, it only sets badbit.
template <class Action>
string FailureOf(PipeStream& stream, Action action) {
    stream.exceptions(std::ios::badbit);
    const string text = ErrorOf(action);
    EXPECT_TRUE(stream.bad());
    stream.exceptions(std::ios::goodbit);
    return text;
}

TEST(PipeStreamTest, TalksWithAProgram) {
    Program program("while read -r line; do echo \"<$line>\"; done; printf 'rest\\377'");
    string line;
    for (const char* text : {"one", "", "two words"}) {
        program.stream << text << '\n';  // no flush: reading sends it
        ASSERT_TRUE(std::getline(program.stream, line));
        EXPECT_EQ(line, "<" + string(text) + ">");
    }
    program.stream << "last\n";
    program.stream.CloseWrite();
    EXPECT_EQ(program.stream.ReadAll(), "<last>\nrest\xFF");
    EXPECT_TRUE(program.stream.eof());
    program.stream.clear();
    EXPECT_EQ(FailureOf(program.stream, [&] { program.stream << "x" << std::flush; }), "Pipe is not open");
    EXPECT_TRUE(program.process.Wait());
    EXPECT_EQ(program.process.GetExitStatus(), 0);
}

std::size_t BytesInUse() {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Either side would wait for the other to read when both pipes are full.
TEST(PipeStreamTest, MuchGoesBothWaysWithoutReadingInBetween) {
    string text;
    for (int i = 0; text.size() < (4U << 20U); ++i) {
        text += std::to_string(i) + (i % 100 == 0 ? "\n" : " ");
    }
    Program program("cat", 60);
    const std::size_t before = BytesInUse();
    program.stream << text.substr(0, 10) << text.substr(10);
    program.stream.CloseWrite();
    EXPECT_TRUE(program.stream.ReadAll() == text);
    EXPECT_LT(BytesInUse(), before + (1U << 20U));  // what has been read is not kept
}

// A terminal's or a socket's.
TEST(PipeStreamTest, ReadsAndWritesByOneDescriptor) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    PipeStream other(fds[1], fds[1]);
    string text;
    int taken = -1;
    {
        PipeStream stream(fds[0], fds[0]);
        stream << "question\n" << std::flush;
        other << "answer\n" << std::flush;
        EXPECT_TRUE(std::getline(other, text));
        EXPECT_EQ(text, "question");
        stream.CloseWrite();
        EXPECT_FALSE(std::getline(other, text));
        EXPECT_TRUE(other.eof());
        EXPECT_TRUE(std::getline(stream, text));
        EXPECT_EQ(text, "answer");
        taken = ::fcntl(0, F_DUPFD_CLOEXEC, 3);  // not one that is still to be closed
    }
    EXPECT_EQ(::fcntl(fds[0], F_GETFD), -1);
    EXPECT_NE(::fcntl(taken, F_GETFD), -1);
    ::close(taken);
}

TEST(PipeStreamTest, DestructionSendsWhatIsLeft) {
    const Pipe pipe;
    PipeStream reader(pipe.fds[0], -1);
    { PipeStream(-1, pipe.fds[1]) << "left"; }
    EXPECT_EQ(reader.ReadAll(), "left");
    reader.clear();
    EXPECT_EQ(FailureOf(reader, [&] { reader << "x" << std::flush; }), "Pipe is not open");
    EXPECT_EQ(ErrorOf([] { PipeStream(-1, -1); }), "Pipe is not open");
    Process process("true", {});
    EXPECT_EQ(ErrorOf([&] { PipeStream stream(process); }), "Pipe is not open");
    const Pipe other;
    PipeStream writer(-1, other.fds[1]);
    EXPECT_EQ(FailureOf(writer, [&] { writer.get(); }), "Pipe is not open");
    ::close(other.fds[0]);
}

TEST(PipeStreamTest, ReadsAllUpToALimit) {
    for (const unsigned int size : {9'999U, 10'000U, 10'001U}) {
        Program program("head -c " + std::to_string(size) + " /dev/zero");
        string content;
        const string error = ErrorOf([&] { content = program.stream.ReadAll(10'000); });
        EXPECT_EQ(error, size > 10'000 ? "read failed: errno(27): File too large" : "no exception");
        EXPECT_EQ(content.size(), size > 10'000 ? 0 : size);
        EXPECT_EQ(program.stream.bad(), size > 10'000);
    }
    Program silent("exec sleep 1000", 0);
    silent.stream.exceptions(std::ios::badbit);  // nor does the stream throw an exception of its own
    EXPECT_EQ(ErrorOf([&] { silent.stream.ReadAll(); }), "Timeout");
}

// Though the stream has no time-out and the program reads nothing.
TEST(PipeStreamTest, DestructionIsBounded) {
    const Pipe pipe;
    EXPECT_GT(::fcntl(pipe.fds[1], F_SETPIPE_SZ, 4'096), 0);
    { PipeStream(-1, pipe.fds[1], kWaitForEver) << string(4'096, 'x') << "the pipe is full"; }
    PipeStream reader(pipe.fds[0], -1);
    EXPECT_EQ(reader.ReadAll(), string(4'096, 'x'));
}

TEST(PipeStreamTest, TimesOut) {
    const Pipe pipe;
    PipeStream stream(pipe.fds[0], pipe.fds[1], 0);
    string word;
    EXPECT_EQ(FailureOf(stream, [&] { stream >> word; }), "Timeout");
    stream.clear();
    stream << "word" << std::endl;
    EXPECT_TRUE(stream >> word);  // nothing is broken
    EXPECT_EQ(word, "word");

    // A program that never reads: a full pipe with none to read from, and one whose output has no end.
    Program silent("exec sleep 1000", 1);
    EXPECT_EQ(FailureOf(silent.stream, [&] { silent.stream << string(1U << 20U, 'x') << std::flush; }),
              "Timeout");
    Program endless("exec yes", 1);
    EXPECT_EQ(FailureOf(endless.stream, [&] { endless.stream << string(1U << 20U, 'x') << std::flush; }),
              "Timeout");
    endless.stream.clear();
    EXPECT_LE(endless.stream.rdbuf()->in_avail(), 17 << 20);
    std::getline(endless.stream, word);
    EXPECT_EQ(word, "y");

    // The limit also ends what never waits.
    Program dribbling("exec yes", kWaitForEver);
    dribbling.stream.SetTimeLimit(50);
    EXPECT_EQ(FailureOf(dribbling.stream,
                        [&] { dribbling.stream.ignore(std::numeric_limits<std::streamsize>::max()); }),
              "Timeout");
    dribbling.stream.clear();
    dribbling.stream.SetTimeLimit(kWaitForEver);
    EXPECT_NE(dribbling.stream.get(), EOF);
}

TEST(PipeStreamTest, CancelEndsWaiting) {
    for (const bool isWriting : {false, true}) {
        Program program("exec sleep 1000", kWaitForEver);
        std::thread canceller([&] { program.stream.Cancel(); });
        EXPECT_EQ(FailureOf(program.stream,
                            [&] {
                                if (isWriting) {
                                    program.stream << string(1U << 20U, 'x') << std::flush;
                                } else {
                                    program.stream.get();
                                }
                            }),
                  "Pipe was closed");
        canceller.join();
        program.stream.clear();
        EXPECT_EQ(FailureOf(program.stream, [&] { program.stream.get(); }), "Pipe was closed");
    }
}

std::ptrdiff_t OpenEvents() {
    const auto isEvent = [](const auto& entry) {
        std::error_code ignored;
        return fs::read_symlink(entry, ignored) == "anon_inode:[eventfd]";
    };
    return std::count_if(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator(), isEvent);
}

// Otherwise `Cancel` could write into a file that has got the number of a closed descriptor.
TEST(PipeStreamTest, MayBeDestroyedBeforeCancelReturns) {
    const Pipe pipe;
    const std::ptrdiff_t before = OpenEvents();
    auto stream = std::make_unique<PipeStream>(pipe.fds[0], pipe.fds[1], 0);
    EXPECT_EQ(FailureOf(*stream, [&] { stream->get(); }), "Timeout");  // which makes the event's descriptor
    bool isDestroyed = false;
    const FailingCall waking("eventfd_write", 0, [&] {
        stream->clear();
        EXPECT_EQ(FailureOf(*stream, [&] { stream->get(); }), "Pipe was closed");
        stream.reset();
        isDestroyed = true;
        EXPECT_EQ(OpenEvents(), before + 1);
    });
    stream->Cancel();
    EXPECT_TRUE(isDestroyed);
    EXPECT_EQ(OpenEvents(), before);
}

void ExpectNoSignalOfABrokenPipe() {
    const auto handler = ::signal(SIGPIPE, SIG_DFL);
    Program program("exec <&-; echo answer");
    EXPECT_TRUE(program.process.Wait());
    program.stream << "question";
    string word;
    EXPECT_TRUE(program.stream >> word);  // which it wrote although it read no question
    EXPECT_EQ(word, "answer");
    program.stream.clear();
    EXPECT_EQ(FailureOf(program.stream, [&] { program.stream << "x" << std::flush; }),
              "write failed: errno(32): Broken pipe");
    program.stream.clear();
    program.stream << "lost";
    EXPECT_EQ(ErrorOf([&] { program.stream.CloseWrite(); }), "write failed: errno(32): Broken pipe");
    sigset_t mask;
    sigset_t pending;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    ::sigpending(&pending);
    EXPECT_EQ(::sigismember(&mask, SIGPIPE), 0);
    EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
    ::signal(SIGPIPE, handler);
}

TEST(PipeStreamTest, ABrokenPipeDoesNotEndTheProcess) {
    ExpectNoSignalOfABrokenPipe();
    const FailingCall oldKernel("pwritev64v2", -1, [] { errno = EOPNOTSUPP; });
    ExpectNoSignalOfABrokenPipe();
    // A signal that the caller has blocked, and that is pending, is not the stream's to take.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (const bool isPending : {false, true}) {
        const Pipe broken;
        ::close(broken.fds[0]);
        PipeStream stream(-1, broken.fds[1]);
        if (isPending) {
            ::raise(SIGPIPE);
        }
        stream << "x" << std::flush;
        const timespec none{};
        EXPECT_EQ(::sigtimedwait(&pipe, nullptr, &none), isPending ? SIGPIPE : -1);
    }
    ::pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

}  // namespace
}  // namespace zarip::osa
