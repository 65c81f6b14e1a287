// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

/// A program that the process has started, without a shell. *Thread-safe*, except for destruction.
///
/// The program gets the standard streams and no other descriptor of this process. No signal is blocked or
/// ignored in it. It inherits user, umask, limits and the priority of the starting thread.
///
/// If other code forks meanwhile and the child executes no program, that child also holds the other ends of
/// the pipes. The end of file then comes only when the child has ended.
///
/// No other code may wait for the program. `waitpid(-1)` takes its exit status, and so does ignoring SIGCHLD;
/// the status is then not known.
class ZARIP_EXPORT Process {
public:
    /// What a standard stream of the program is connected to.
    class ZARIP_EXPORT Redirect {
    public:
        /// `Inherit()`.
        Redirect();

        /// The caller's stream, or /dev/null if the caller does not have that stream.
        static Redirect Inherit();
        static Redirect Null();

        /// A pipe, whose other end a `PipeStream` takes.
        static Redirect Pipe();

        /// A file, which input reads and output replaces. A relative path counts from the caller's folder. A
        /// named pipe is opened without waiting for its other end: without a reader, output is errno 6
        /// (ENXIO); without a writer, input is empty. To wait, open the pipe and pass the descriptor.
        static Redirect File(const std::string& path);

        /// A file that output is appended to.
        static Redirect Append(const std::string& path);

        /// @param fd  *not owned*; the program gets a copy.
        static Redirect Descriptor(int fd);

        /// For errors: the same as output.
        static Redirect Output();

    private:
        friend class Process;
        enum Kind { kInherit, kNull, kPipe, kFile, kAppend, kDescriptor, kOutput };
        Redirect(Kind kind, const std::string& path, int fd);

        Kind _kind;
        std::string _path;
        int _fd;
    };

    struct Options {
        /// Added to the caller's variables, or set instead of them (`clearEnvironment`).
        std::map<std::string, std::string> environment;
        bool clearEnvironment = false;

        /// The folder in which the program runs; empty for the caller's folder.
        std::string folder;

        Redirect input;
        Redirect output;
        Redirect error;

        /// The program leads a process group, which holds the processes that it starts as well. `Kill` and
        /// the destructor reach the whole group.
        bool ownGroup = false;
    };

    /// For `Run`. Output and errors that are `Inherit()` are collected, and input that is `Inherit()` is
    /// `inputData`. Other redirections stay as they are.
    struct RunOptions : Options {
        /// Sets `ownGroup`, so that processes which the program has started end with it.
        RunOptions() { ownGroup = true; }

        /// What the program reads from its input, before the end of file.
        std::string inputData;

        /// How long the program may run, in milliseconds; `kWaitForEver` is without limit.
        unsigned int timeoutMs = 30'000;

        /// How much of the program's output is kept, in bytes.
        std::size_t maxOutput = 1U << 20U;
        std::size_t maxError = 1U << 20U;
    };

    /// The outcome of `Run`.
    struct Result {
        int status = -1;     ///< 0 to 255, or -1 if a signal ended it or its status is not known
        int signal = 0;      ///< the signal that ended it, or 0
        std::string output;  ///< empty if it was redirected
        std::string error;
        bool isOutputCut = false;  ///< the program wrote more than `maxOutput`; the rest is dropped
        bool isErrorCut = false;
        bool isTimeout = false;  ///< the program was killed because it ran for too long
    };

    /// Runs a program to its end. It passes the input and collects output and errors at the same time, so
    /// neither side blocks the other; no thread is needed. A program that writes more than is kept, or that
    /// does not read its input, runs on.
    ///
    /// Returns when the program itself has ended, with everything that was written until then. Processes that
    /// it has started may still have its output open; they are killed unless `ownGroup` is false. A program
    /// that runs for too long is killed (SIGKILL), and what it wrote before is returned.
    ///
    /// Throws what the constructor throws, and `Exception` "Invalid parameter" for `inputData` if the input
    /// is redirected to something else than `Pipe()`.
    static Result Run(const std::string& program, const std::vector<std::string>& arguments);
    static Result Run(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options);

    /// Returns when the program runs.
    /// @param program  a name without a slash is searched in the PATH of this process. The PATH of
    ///     `options.environment` is for the program only. A relative path, also one in PATH, counts from the
    ///     program's folder (`options.folder`).
    /// @param arguments  without the program's name.
    /// Throws `IOException` "Couldn't start '<program>': errno(<number>): <description>", "Couldn't change to
    /// folder '<folder>': ...", "Couldn't open '<path>': ..."; `Exception` "Invalid parameter" for strings
    /// with a zero byte, variables without a name or with '=' in it, and `Output` for anything but errors.
    Process(const std::string& program, const std::vector<std::string>& arguments);
    Process(const std::string& program, const std::vector<std::string>& arguments, const Options& options);

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Kills a program that still runs (SIGKILL) and reaps it, which takes at most 5 seconds. A program that
    /// the system has not ended by then is reaped when the next `Process` is made or destroyed.
    ~Process();

    /// Waits until the program has ended. False if the time-out passes before.
    /// @param timeoutMs  milliseconds; 0 does not wait, `kWaitForEver` waits without limit.
    bool Wait(unsigned int timeoutMs = kWaitForEver);

    /// Sends a signal, SIGTERM by default. False if the program is known to have ended. A group gets the
    /// signal as long as the object lives. Throws `IOException` "Couldn't send the signal: ...".
    bool Kill(int signal = 15);

    /// 0 to 255, or -1 if a signal ended the program or the status is not known. Throws `Exception`
    /// "Process has not ended".
    int GetExitStatus();

    /// The signal that ended the program, or 0 if no signal did. Throws as `GetExitStatus`.
    int GetSignal();

    int GetPid() const;

    /// Our ends of the pipes, *caller owns*; -1 for a stream without a pipe, or whose pipe was taken.
    int TakeInput();
    int TakeOutput();
    int TakeError();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
