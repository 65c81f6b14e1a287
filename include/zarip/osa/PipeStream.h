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
/// Reading waits for data and writing waits for room, each up to a time-out in whole seconds. A failure
/// ("Timeout", "Pipe was closed" after `Cancel`, "read failed: errno(...)...", "Pipe is not open") sets
/// badbit; if `exceptions` contains badbit, the stream throws an `IOException` with this message instead.
/// When every writer has closed the pipe, reading meets the end of file. No operation raises SIGPIPE.
///
/// The caller may write much to a program without reading its output in between: while the program takes no
/// input, up to 16 MiB of its output are read and kept. Beyond that, the write waits until the time-out.
/// Reading first sends what is in the buffer, so the program has received everything that it needs for its
/// answer. `CloseWrite` ends the input, for programs that answer only after the end of their input. If errors
/// are redirected to a pipe of their own, another stream on another thread has to read them; otherwise the
/// program stops when that pipe is full. `Process::Redirect::Output` sends errors to the output instead.
/// `Process::Run` does all of this in one call.
class ZARIP_EXPORT PipeStream : public std::iostream {
public:
    /// Takes the pipes for input and output of the program. Throws `IOException` "Pipe is not open" if it has
    /// neither. The `Process` may be destroyed before or after the stream.
    explicit PipeStream(Process& process, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// @param readFd, writeFd  *takes ownership*, also when it throws, and makes them non-blocking; -1 for no
    ///     descriptor. Both may be one descriptor of a terminal or a socket, which is closed once.
    ///     `CloseWrite` then sends the end of file to a socket only.
    /// @param timeoutSeconds  `kWaitForEver` waits without limit.
    /// @param bufferSize  the size in bytes of each of the two buffers, for reading and for writing.
    PipeStream(int readFd, int writeFd, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// Tries for at most 5 seconds, whatever the time-out is, to send what is buffered, and ignores failures.
    /// To give a slow reader more time and to notice a failure, flush the stream or call `CloseWrite` before.
    ~PipeStream() override;

    /// Limits the time that all operations from now on may take together. After that time they fail with
    /// "Timeout". So a program that writes slowly or without end does not occupy a thread for ever.
    /// `kWaitForEver` removes the limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Sends what is buffered and closes the end for writing, so the program reads the end of file. If
    /// sending fails, the end is closed as well and the function throws.
    void CloseWrite();

    /// Reads to the end of file. Every failure sets badbit and is thrown, whatever `exceptions` contains;
    /// what was read before is lost.
    /// @param maxSize  in bytes. If there are more bytes, the function throws `IOException` "read failed:
    ///     errno(27): File too large". So it also ends if the output has no end.
    std::string ReadAll(std::size_t maxSize = 16U << 20U);

    /// Ends the operation that waits on another thread, and lets every later one fail. That thread may
    /// destroy the stream before this call returns.
    void Cancel();

private:
    class Buffer;
    std::unique_ptr<Buffer> _buffer;
};

}  // namespace zarip::osa
