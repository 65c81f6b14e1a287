// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace zarip::inet {

/// One message on its way in: lines at first, then the body. Derived classes say where it comes from.
/// *One thread at a time.*
class MessageReader {
public:
    MessageReader(const MessageReader&) = delete;
    MessageReader& operator=(const MessageReader&) = delete;
    virtual ~MessageReader() = default;

    static constexpr std::size_t kLineBuffer = 4096;
    static constexpr std::size_t kMaxHeaderLine = 4094;  ///< its end included
    static constexpr std::size_t kMaxHeaders = 1000;
    static constexpr std::size_t kMaxHeaderText = 0x100000;
    static constexpr std::uint64_t kMaxBody = 0x100000;
    static constexpr std::size_t kBodyStep = 4096;

    /// Deliberate: the first line has no limit of its own, what does not fit into the buffer is cut off. The
    /// message then ends with that line.
    /// Throws "BadRequest" for a zero byte, after which the rest of the line would go unseen.
    char* ReadFirst();

    /// Null after the last header; `length` is set for each. The line may hold zero bytes.
    char* ReadHeader(std::size_t& length);

    /// Whether a line of that length has a zero byte within it.
    static bool HoldsZero(const char* line, std::size_t length);

    /// The bytes that arrive, at most `length` and no more than one beyond the limit of a body. Valid while
    /// the reader is.
    std::pair<char*, std::size_t> ReadBody(std::uint64_t length);

    /// The bytes that arrive, at most `size`: their count. Throws "BadRequest" if reading breaks down.
    virtual std::size_t ReadBytes(char* data, std::size_t size) = 0;

    /// Whether more may come: no end and no over-long line has been met.
    virtual bool IsGood() const = 0;

protected:
    MessageReader() { _line[0] = '\0'; }

    /// Takes a line, at most `size - 1` characters of it, and stores it zero-terminated without its line
    /// feed. Returns the count of characters taken, the line feed included, and stores that of the line.
    /// Throws "BadRequest" if reading breaks down.
    virtual std::size_t TakeLine(char* line, std::size_t size, std::size_t& length) = 0;

private:
    std::size_t Read(std::size_t& length);

    char _line[kLineBuffer];
    std::string _body;
    std::size_t _headers = 0;
    std::size_t _text = 0;
};

/// Reads from a stream, and no more of it than the message needs.
class StreamReader final : public MessageReader {
public:
    explicit StreamReader(std::istream& in) : _in(in) {}
    std::size_t ReadBytes(char* data, std::size_t size) override;
    bool IsGood() const override;

protected:
    std::size_t TakeLine(char* line, std::size_t size, std::size_t& length) override;

private:
    std::istream& _in;
};

/// Reads what is in memory already; its end is the end of the message.
class MemoryReader final : public MessageReader {
public:
    /// @param text  *not owned*, must outlive the reader.
    explicit MemoryReader(std::string_view text) : _rest(text) {}
    std::size_t ReadBytes(char* data, std::size_t size) override;
    bool IsGood() const override { return _isGood; }

    /// What has not been read.
    std::string_view GetRest() const { return _rest; }

protected:
    std::size_t TakeLine(char* line, std::size_t size, std::size_t& length) override;

private:
    std::string_view _rest;
    bool _isGood = true;
};

}  // namespace zarip::inet
