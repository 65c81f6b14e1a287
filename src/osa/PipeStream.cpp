// SPDX-License-Identifier: MIT

#include "zarip/osa/PipeStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <string>

#include "osa/Errors.h"
#include "osa/FileCalls.h"
#include "osa/UniqueFd.h"
#include "osa/Wait.h"
#include "zarip/osa/Process.h"

namespace zarip::osa {

namespace {

constexpr std::size_t kMaxKept = 16U << 20U;
constexpr std::size_t kBlockSize = 16'384;
constexpr MonotonicMs kMaxLastSendMs = 5'000;

void MakeNonBlocking(const UniqueFd& fd) {
    if (!fd.IsValid()) {
        return;
    }
    const int flags = ::fcntl(fd.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.Get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        ThrowIOErrno("fcntl failed");
    }
}

/// Sets the state without an exception of the stream, whatever `exceptions` says.
void SetBad(std::ios& stream) {
    const std::ios::iostate passedOn = stream.exceptions();
    stream.exceptions(std::ios::goodbit);
    stream.setstate(std::ios::badbit);
    try {
        stream.exceptions(passedOn);
    } catch (const std::ios::failure&) {
    }
}

}  // namespace

/// The thread that uses the stream owns everything but `_cancel`, which is shared with calls of `Cancel`: the
/// thread that such a call releases may destroy the stream before the call returns.
class PipeStream::Buffer final : public std::streambuf {
public:
    /// @param isOne  both are of the same file or connection.
    Buffer(UniqueFd read, UniqueFd write, bool isOne, unsigned int timeoutSeconds, unsigned int bufferSize)
        : _read(std::move(read)),
          _write(std::move(write)),
          _isOne(isOne),
          _timeoutMs(timeoutSeconds == kWaitForEver ? kNever : timeoutSeconds * 1'000LL),
          _bufferSize(std::max(bufferSize, 1U)),
          _sendBuffer(new char[_bufferSize]) {
        MakeNonBlocking(_read);
        MakeNonBlocking(_write);
        setp(_sendBuffer.get(), _sendBuffer.get() + _bufferSize);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    ~Buffer() override {
        try {
            if (pptr() != pbase()) {
                _limit = std::min(_limit, NowMs() + kMaxLastSendMs);
                SendPending();
            }
        } catch (...) {
            // The other end takes nothing. A caller that needs to know flushes before.
        }
    }

    void SetTimeLimit(unsigned int milliseconds) {
        _limit = milliseconds == kWaitForEver ? kNever : NowMs() + milliseconds;
    }

    void CloseWrite() {
        try {
            SendPending();
        } catch (...) {
            EndWriting();
            throw;
        }
        EndWriting();
    }

    void Cancel() {
        const std::shared_ptr<CancelEvent> cancel = _cancel;
        cancel->Cancel();
    }

protected:
    int sync() override {
        SendPending();
        return 0;
    }

    std::streamsize showmanyc() override { return static_cast<std::streamsize>(_keptSize); }

    int_type underflow() override {
        if (gptr() != egptr()) {
            return traits_type::to_int_type(*gptr());
        }
        if (!_read.IsValid()) {
            throw IOException("Pipe is not open");
        }
        CheckTime();
        if (_kept.empty()) {
            SendBeforeReading();
        }
        setg(nullptr, nullptr, nullptr);
        if (!_kept.empty()) {
            _received.swap(_kept.front());
            _kept.pop_front();
            _keptSize -= _received.size();
        } else {
            _received.resize(_bufferSize);
            const std::size_t length = Receive();
            _received.resize(length);
        }
        setg(_received.data(), _received.data(), _received.data() + _received.size());
        return _received.empty() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

    std::streamsize xsputn(const char* source, std::streamsize count) override {
        if (count > epptr() - pptr()) {
            SendPending();
        }
        if (count > epptr() - pptr()) {
            Send(source, static_cast<std::size_t>(count));
        } else {
            std::copy_n(source, count, pptr());
            pbump(static_cast<int>(count));
        }
        return count;
    }

    int_type overflow(int_type character) override {
        if (pptr() == epptr()) {
            SendPending();
        }
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(character);
            pbump(1);
        }
        return traits_type::not_eof(character);
    }

private:
    MonotonicMs EndOfWait() const {
        return _timeoutMs == kNever ? _limit : std::min(NowMs() + _timeoutMs, _limit);
    }

    void CheckTime() const {
        if (_cancel->IsCancelled()) {
            throw IOException("Pipe was closed");
        }
        if (_limit != kNever && NowMs() >= _limit) {
            throw IOException("Timeout");
        }
    }

    void Wait(WaitFd first, WaitFd second, MonotonicMs until) {
        WaitResult result{};
        if (!WaitForEither(first, second, _cancel.get(), until, result)) {
            ThrowIOErrno("poll failed");
        }
        if (result != WaitResult::kReady) {
            throw IOException(result == WaitResult::kTimeout ? "Timeout" : "Pipe was closed");
        }
    }

    void SendPending() {
        const auto pending = static_cast<std::size_t>(pptr() - pbase());
        // The buffer is reset first, so that the destructor does not send again what could not be sent.
        setp(_sendBuffer.get(), _sendBuffer.get() + _bufferSize);
        Send(_sendBuffer.get(), pending);
    }

    /// A program that does not read any more may still have answered.
    void SendBeforeReading() {
        try {
            if (pptr() != pbase()) {
                SendPending();
            }
        } catch (const BrokenPipe&) {
        }
    }

    struct BrokenPipe : IOException {
        BrokenPipe() : IOException(WithErrno("write failed", EPIPE)) {}
    };

    void Send(const char* data, std::size_t length) {
        bool canKeep = _read.IsValid();
        bool isWaiting = false;  // the clock is not read for a write that need not wait
        MonotonicMs until = kNever;
        while (length > 0) {
            if (!_write.IsValid()) {
                throw IOException("Pipe is not open");
            }
            CheckTime();
            const ssize_t sent = WriteQuietly(_write.Get(), data, length);
            if (sent > 0) {
                data += sent;
                length -= static_cast<std::size_t>(sent);
                isWaiting = false;
            } else if (sent < 0 && errno == EPIPE) {
                throw BrokenPipe();
            } else if (sent < 0 && errno == EAGAIN) {
                // A program may take nothing as long as its answer is not read.
                until = isWaiting ? until : EndOfWait();
                isWaiting = true;
                canKeep = canKeep && _keptSize < kMaxKept;
                Wait({_write.Get(), POLLOUT}, {canKeep ? _read.Get() : -1, POLLIN}, until);
                canKeep = canKeep && Keep();
            } else if (errno != EINTR) {
                ThrowIOErrno("write failed");
            }
        }
    }

    /// Reads what is there; false if nothing more can come.
    bool Keep() {
        if (_kept.empty() || _kept.back().size() == kBlockSize) {
            _kept.emplace_back().reserve(kBlockSize);
        }
        std::string& block = _kept.back();
        const std::size_t size = block.size();
        block.resize(kBlockSize);
        const ssize_t length = ::read(_read.Get(), &block[size], kBlockSize - size);
        const int error = errno;
        const std::size_t more = static_cast<std::size_t>(std::max<ssize_t>(length, 0));
        block.resize(size + more);
        _keptSize += more;
        if (block.empty()) {
            _kept.pop_back();
        }
        return length > 0 || (length < 0 && (error == EAGAIN || error == EINTR));
    }

    /// Returns 0 at the end.
    std::size_t Receive() {
        const MonotonicMs until = EndOfWait();
        for (;;) {
            const ssize_t length = ::read(_read.Get(), _received.data(), _received.size());
            if (length >= 0) {
                return static_cast<std::size_t>(length);
            }
            if (errno == EAGAIN) {
                Wait({_read.Get(), POLLIN}, {-1, 0}, until);
            } else if (errno != EINTR) {
                ThrowIOErrno("read failed");
            }
        }
    }

    void EndWriting() {
        if (_isOne && _write.IsValid()) {
            ::shutdown(_write.Get(), SHUT_WR);  // only a socket has such an end
        }
        _write = UniqueFd();
    }

    UniqueFd _read;
    UniqueFd _write;
    const bool _isOne;
    const MonotonicMs _timeoutMs;
    MonotonicMs _limit = kNever;
    const unsigned int _bufferSize;
    const std::unique_ptr<char[]> _sendBuffer;
    std::string _received;          // what is being read
    std::deque<std::string> _kept;  // what comes after it, in blocks that are freed as they are read
    std::size_t _keptSize = 0;
    const std::shared_ptr<CancelEvent> _cancel = std::make_shared<CancelEvent>();
};

PipeStream::PipeStream(Process& process, unsigned int timeoutSeconds, unsigned int bufferSize)
    : PipeStream(process.TakeOutput(), process.TakeInput(), timeoutSeconds, bufferSize) {}

PipeStream::PipeStream(int readFd, int writeFd, unsigned int timeoutSeconds, unsigned int bufferSize)
    : std::iostream(nullptr) {
    UniqueFd read(readFd);
    const bool isOne = readFd == writeFd && read.IsValid();
    UniqueFd write(isOne ? ::fcntl(readFd, F_DUPFD_CLOEXEC, 0) : writeFd);
    if (isOne && !write.IsValid()) {
        ThrowIOErrno("fcntl failed");
    }
    if (!read.IsValid() && !write.IsValid()) {
        throw IOException("Pipe is not open");
    }
    _buffer = std::make_unique<Buffer>(std::move(read), std::move(write), isOne, timeoutSeconds, bufferSize);
    rdbuf(_buffer.get());
}

PipeStream::~PipeStream() = default;

void PipeStream::SetTimeLimit(unsigned int milliseconds) {
    _buffer->SetTimeLimit(milliseconds);
}

void PipeStream::CloseWrite() {
    _buffer->CloseWrite();
}

std::string PipeStream::ReadAll(std::size_t maxSize) {
    std::string content;
    try {
        // `sgetc` waits until something is there, which `in_avail` then counts.
        while (!traits_type::eq_int_type(_buffer->sgetc(), traits_type::eof())) {
            const std::streamsize size = _buffer->in_avail();
            const std::size_t before = content.size();
            if (static_cast<std::size_t>(size) > maxSize - before) {
                ThrowIOErrno("read failed", EFBIG);
            }
            content.resize(before + static_cast<std::size_t>(size));
            _buffer->sgetn(&content[before], size);
        }
    } catch (...) {
        SetBad(*this);
        throw;
    }
    setstate(std::ios::eofbit);
    return content;
}

void PipeStream::Cancel() {
    _buffer->Cancel();
}

}  // namespace zarip::osa
