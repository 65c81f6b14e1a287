// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <iostream>
#include <memory>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

class Process;

/// A stream on a pipe, or on the input and output of a program. *One thread at a time*, except for `Cancel`,
/// which any thread may call.
///
/// Reading waits for data and writing for room, up to a time-out in whole seconds for each; a failure
/// ("Timeout", "Pipe was closed" after `Cancel`, "read failed: errno(...)...", "Pipe is not open") is an
/// `IOException`, which the stream turns into badbit, or throws if `exceptions` says so. The end of what
/// others write is the end of file. No operation raises SIGPIPE.
///
/// A program that answers may be written to without reading in between: while it takes nothing, up to 16 MiB
/// of its output are kept until they are read; beyond that the time-out counts. Reading first sends what is
/// in the buffer, so that the program has got what it is to answer. A program that answers when its input
/// ends gets that end by `CloseWrite`. Errors that go to a pipe of their own need a stream and a thread of
/// their own, or the program stops when that pipe is full: `Process::Redirect::Output` sends them to the
/// output instead. `Process::Run` does all of this in one call.
class ZARIP_EXPORT PipeStream : public std::iostream {
public:
    /// Takes the program's pipes for input and output; throws `IOException` "Pipe is not open" if it has
    /// neither. The process may end before or after the stream.
    explicit PipeStream(Process& process, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// @param readFd, writeFd  *takes ownership*, also when it throws, and makes them non-blocking; -1 for
    ///     no descriptor. One descriptor for both, of a terminal or a socket, is owned once; the end of file
    ///     that `CloseWrite` means is then told by a socket only.
    /// @param timeoutSeconds  0xFFFFFFFF waits without limit.
    /// @param bufferSize  bytes of the buffer for reading and of that for writing.
    PipeStream(int readFd, int writeFd, unsigned int timeoutSeconds = 5, unsigned int bufferSize = 4096);

    /// Sends what is left; a failure is dropped. That takes at most 5 seconds, whatever the time-out is: to
    /// give a slow reader more time, and to learn of a failure, flush or call `CloseWrite` before.
    ~PipeStream() override;

    /// From now on all operations together take no longer than this, and then fail with "Timeout": a program
    /// that says something now and then, or never stops, does not hold a thread for ever. 0xFFFFFFFF lifts
    /// the limit.
    void SetTimeLimit(unsigned int milliseconds);

    /// Sends what is left and closes the end for writing: the program reads the end of file. Closes it also
    /// when sending fails, and then throws.
    void CloseWrite();

    /// Reads to the end of file.
    /// @param maxSize  in bytes; more is `IOException` "read failed: errno(27): File too large", also for a
    ///     program whose output has no end.
    /// Every failure is thrown, whatever `exceptions` says, and leaves badbit; what was read before is lost.
    std::string ReadAll(std::size_t maxSize = 16U << 20U);

    /// Ends an operation that waits on another thread and every later one. The thread that it releases may
    /// destroy the stream before this call returns.
    void Cancel();

private:
    class Buffer;
    std::unique_ptr<Buffer> _buffer;
};

}  // namespace zarip::osa
