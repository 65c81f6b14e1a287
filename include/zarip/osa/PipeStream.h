// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <iostream>
#include <memory>
#include <string>

#include <zarip/osa/Export.h>
#include <zarip/osa/Timeout.h>

namespace zarip::osa {

class Process;

/// A stream on a pipe, or on the input and output of a program. *One thread at a time*, except for `Cancel`,
/// which any thread may call.
///
/// Reading waits for data and writing for room, up to a time-out in whole seconds for each. A failure
/// ("Timeout", "Pipe was closed" after `Cancel`, "read failed: errno(...)...", "Pipe is not open") is an
/// `IOException`, which the stream turns into badbit, or throws if `exceptions` says so. When every writer
/// has closed the pipe, reading meets the end of file. No operation raises SIGPIPE.
///
/// The caller may write much to a program without reading its answers in between: while the program takes
/// nothing, up to 16 MiB of its output are kept until they are read. Beyond that the write waits until the
/// time-out. Reading first sends what is in the buffer, so the program has received what it is to answer.
/// `CloseWrite` ends the input of a program that answers only then. If errors go to a pipe of their own,
/// another stream on another thread has to read them, or the program stops when that pipe is full.
/// `Process::Redirect::Output` sends them to the output instead. `Process::Run` does all of this in one call.
class ZARIP_EXPORT PipeStream : public std::iostream {
public:
    /// Takes the program's pipes for input and output; throws `IOException` "Pipe is not open" if it has
    /// neither. The process may end before or after the stream.
    explicit PipeStream(Process& process, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// @param readFd, writeFd  *takes ownership*, also when it throws, and makes them non-blocking; -1 for no
    ///     descriptor. Both may be one descriptor of a terminal or a socket, which is closed once.
    ///     `CloseWrite` then sends the end of file to a socket only.
    /// @param timeoutSeconds  `kWaitForEver` waits without limit.
    /// @param bufferSize  bytes of the buffer for reading and of that for writing.
    PipeStream(int readFd, int writeFd, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// Sends what is left for at most 5 seconds, whatever the time-out is, and ignores failures. Flush or
    /// call `CloseWrite` before to give a slow reader more time and to learn of a failure.
    ~PipeStream() override;

    /// Limits the time of all operations from now on together; after that they fail with "Timeout". So a
    /// program that writes slowly or without end does not hold a thread for ever. `kWaitForEver` lifts the
    /// limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Sends what is left and closes the end for writing, so the program reads the end of file. If sending
    /// fails, it closes that end and throws.
    void CloseWrite();

    /// Reads to the end of file.
    /// @param maxSize  in bytes; more is `IOException` "read failed: errno(27): File too large", also for a
    ///     program whose output has no end.
    /// Every failure is thrown, whatever `exceptions` says, and sets badbit. What was read before is lost.
    std::string ReadAll(std::size_t maxSize = 16U << 20U);

    /// Ends the operation that waits on another thread, and every later one. That thread may destroy the
    /// stream before this call returns.
    void Cancel();

private:
    class Buffer;
    std::unique_ptr<Buffer> _buffer;
};

}  // namespace zarip::osa
