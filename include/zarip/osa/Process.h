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
/// The program gets the three standard streams and no other descriptor of this process. No signal is blocked
/// or ignored in it. It inherits the user, the umask, the limits, and the priority of the thread that starts
/// it.
///
/// If other code forks while a pipe is open and the child executes no program, the child also holds this
/// process's end of the pipe. The program then reads the end of its input only when that child has ended.
///
/// No other code may wait for the program. If other code calls `waitpid(-1)`, or if the process ignores
/// SIGCHLD, the exit status is lost and counts as not known.
class ZARIP_EXPORT Process {
public:
    /// What a standard stream of the program is connected to.
    class ZARIP_EXPORT Redirect {
    public:
        /// Makes the same as `Inherit()`.
        Redirect();

        /// Connects to the same stream of the caller, or to /dev/null if the caller does not have that
        /// stream.
        static Redirect Inherit();

        /// Connects to /dev/null.
        static Redirect Null();

        /// Connects to a pipe, whose other end a `PipeStream` takes.
        static Redirect Pipe();

        /// Connects to a file, which input reads and output replaces. A relative path counts from the current
        /// folder of the caller. A named pipe is opened without waiting for its other end. If it has no
        /// reader, a redirection of output fails with errno 6 (ENXIO); if it has no writer, input is empty.
        /// To wait for the other end, open the pipe and pass the descriptor.
        static Redirect File(const std::string& path);

        /// Appends output to a file.
        static Redirect Append(const std::string& path);

        /// Connects to a descriptor.
        /// @param fd  *not owned*; the program gets a copy.
        static Redirect Descriptor(int fd);

        /// Connects errors to the same as output. It cannot be used for another stream.
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
        /// These variables are added to those of the caller, or replace them all if `clearEnvironment` is
        /// set.
        std::map<std::string, std::string> environment;
        bool clearEnvironment = false;

        /// The current folder of the program; if it is empty, that of the caller.
        std::string folder;

        Redirect input;
        Redirect output;
        Redirect error;

        /// Makes the program the leader of a process group, which also contains the processes that it starts.
        /// `Kill` and the destructor then signal the whole group.
        bool ownGroup = false;
    };

    /// The options of `Run`. Output and errors are collected and input is `inputData`, unless they are
    /// redirected to something other than `Inherit()`.
    struct RunOptions : Options {
        /// Sets `ownGroup`, so that processes that the program has started end with it.
        RunOptions() { ownGroup = true; }

        /// The input of the program, which is followed by the end of file.
        std::string inputData;

        /// How long the program may run, in milliseconds; `kWaitForEver` means no limit.
        unsigned int timeoutMs = 30'000;

        /// How many bytes of output and of errors are kept; the rest is dropped.
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
    /// it has started may still have its output open; they are killed unless `ownGroup` is false. If the
    /// program runs for longer than `timeoutMs`, it is killed (SIGKILL), and what it wrote before is
    /// returned.
    ///
    /// Throws what the constructor throws. Throws `Exception` "Invalid parameter" if there is `inputData` and
    /// the input is redirected to something other than `Pipe()`.
    static Result Run(const std::string& program, const std::vector<std::string>& arguments);
    static Result Run(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options);

    /// Starts a program and returns when it runs. Throws `IOException` "Couldn't start '<program>':
    /// errno(<number>): <description>", "Couldn't change to folder '<folder>': ..." or "Couldn't open
    /// '<path>': ...". Throws `Exception` "Invalid parameter" if a string contains a zero byte, if a variable
    /// has no name or a name with '=', or if `Redirect::Output()` is used for a stream other than errors.
    /// @param program  the name or path of the program. A name without a slash is searched in the PATH of
    ///     this process; the PATH in `options.environment` is for the program only. A relative path, also one
    ///     in PATH, counts from the folder of the program (`options.folder`).
    /// @param arguments  the arguments without the name of the program.
    Process(const std::string& program, const std::vector<std::string>& arguments);
    Process(const std::string& program, const std::vector<std::string>& arguments, const Options& options);

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Kills a program that still runs (SIGKILL) and reaps it, which takes at most 5 seconds. A program that
    /// the system has not ended by then is reaped when the next `Process` is made or destroyed.
    ~Process();

    /// Waits until the program has ended. Returns false if the time-out passes before.
    /// @param timeoutMs  milliseconds; 0 does not wait, `kWaitForEver` waits without limit.
    bool Wait(unsigned int timeoutMs = kWaitForEver);

    /// Sends a signal, SIGTERM by default. Returns false if the program is known to have ended. With
    /// `ownGroup`, the group gets the signal even if the program has ended. Throws `IOException` "Couldn't
    /// send the signal: ...".
    bool Kill(int signal = 15);

    /// Returns 0 to 255, or -1 if a signal ended the program or the status is not known. Throws `Exception`
    /// "Process has not ended".
    int GetExitStatus();

    /// Returns the signal that ended the program, or 0 if no signal did. Throws what `GetExitStatus` throws.
    int GetSignal();

    int GetPid() const;

    /// These functions return this process's ends of the pipes, which the *caller owns*. They return -1 if
    /// the stream has no pipe or its pipe was taken.
    int TakeInput();
    int TakeOutput();
    int TakeError();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::osa
