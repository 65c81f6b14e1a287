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
/// The program gets the standard streams and no other descriptor, whatever others have opened; no signal is
/// blocked or ignored, as some are in our processes. It inherits user, umask, limits and the priority of the
/// starting thread.
///
/// What is forked meanwhile without executing a program has the other ends of its pipes, too, so that their
/// ends of file come late.
///
/// Nobody else waits for it: `waitpid(-1)`, or ignoring SIGCHLD, costs its exit status, which is then not
/// known.
class ZARIP_EXPORT Process {
public:
    /// What a standard stream of the program is connected to.
    class ZARIP_EXPORT Redirect {
    public:
        /// `Inherit()`.
        Redirect();

        /// The caller's; /dev/null if the caller has none.
        static Redirect Inherit();
        static Redirect Null();

        /// A pipe, whose other end a `PipeStream` takes.
        static Redirect Pipe();

        /// A file, counted from the caller's folder: read as input, replaced as output. Nobody is waited for
        /// at the other end of a named pipe: as output it is errno 6 (ENXIO) unless somebody reads it, as
        /// input it ends at once unless somebody writes it. To wait, open it and hand over the descriptor.
        static Redirect File(const std::string& path);

        /// A file that output is appended to.
        static Redirect Append(const std::string& path);

        /// @param fd  *not owned*; the program gets a copy.
        static Redirect Descriptor(int fd);

        /// For errors: where output goes.
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
        /// Set beside the caller's variables, or instead of them.
        std::map<std::string, std::string> environment;
        bool clearEnvironment = false;

        /// Where the program runs; empty for the caller's folder.
        std::string folder;

        Redirect input;
        Redirect output;
        Redirect error;

        /// The program heads a process group, and what it starts itself ends with it: `Kill` and the
        /// destructor reach all of the group.
        bool ownGroup = false;
    };

    /// For `Run`. Output and errors that are `Inherit()` are collected, and other redirections stay as they
    /// are. Input that is `Inherit()` is `inputData`.
    struct RunOptions : Options {
        /// Other than for a `Process`, what the program has started ends with it, too.
        RunOptions() { ownGroup = true; }

        /// What the program reads from its input, before the end of file.
        std::string inputData;

        /// How long the program may run, in milliseconds; 0xFFFFFFFF is without limit.
        unsigned int timeoutMs = 30'000;

        /// How much is kept of what it writes, in bytes.
        std::size_t maxOutput = 1U << 20U;
        std::size_t maxError = 1U << 20U;
    };

    /// What came of a program that `Run` has run.
    struct Result {
        int status = -1;     ///< 0 to 255, or -1 if a signal ended it or its status is not known
        int signal = 0;      ///< the signal that ended it, or 0
        std::string output;  ///< empty if it was redirected
        std::string error;
        bool isOutputCut = false;  ///< more than `maxOutput` was written; the rest is dropped
        bool isErrorCut = false;
        bool isTimeout = false;  ///< it was killed because it ran for too long
    };

    /// Runs a program to its end: hands it the input, and collects output and errors at the same time, so
    /// that neither side waits for the other. Needs no thread. A program that writes more than is kept, or
    /// does not read its input, is not stopped by that.
    ///
    /// Returns when the program itself has ended, with all that was written until then, although processes
    /// that it has started may still have its output open. They are killed unless `ownGroup` is false. A
    /// program that runs for too long is killed (SIGKILL), and what it wrote before is returned.
    ///
    /// Throws what the constructor throws, and `Exception` "Invalid parameter" for `inputData` if the input
    /// is redirected to something else than `Pipe()`.
    static Result Run(const std::string& program, const std::vector<std::string>& arguments);
    static Result Run(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options);

    /// Returns when the program runs.
    /// @param program  if it has no slash, it is looked for in the PATH of this process, and not in that of
    ///     `options.environment`, which only the program sees. A relative path, also one in PATH, counts from
    ///     the program's folder (`options.folder`).
    /// @param arguments  without the program's name.
    /// Throws `IOException` "Couldn't start '<program>': errno(<number>): <description>", "Couldn't change to
    /// folder '<folder>': ...", "Couldn't open '<path>': ..."; `Exception` "Invalid parameter" for strings
    /// with a zero byte, variables without a name or with '=' in it, and `Output` for anything but errors.
    Process(const std::string& program, const std::vector<std::string>& arguments);
    Process(const std::string& program, const std::vector<std::string>& arguments, const Options& options);

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// A program that still runs is killed (SIGKILL), so that it neither stays behind nor becomes a zombie.
    /// Takes at most 5 seconds; one that the system does not let go by then is reaped when the next `Process`
    /// is made or destroyed.
    ~Process();

    /// Waits until the program has ended; false if it has not in time.
    /// @param timeoutMs  milliseconds; 0 does not wait, 0xFFFFFFFF waits without limit.
    bool Wait(unsigned int timeoutMs = kWaitForEver);

    /// Sends a signal, SIGTERM unless told otherwise; false if the program is known to have ended. To a
    /// group it is sent as long as the object lives. Throws `IOException` "Couldn't send the signal: ...".
    bool Kill(int signal = 15);

    /// 0 to 255, or -1 if a signal ended the program or the status is not known. Throws `Exception`
    /// "Process has not ended".
    int GetExitStatus();

    /// The signal that ended the program, 0 if none did. Throws the same.
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
