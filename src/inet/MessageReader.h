// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace zarip::inet {

/// Reads one message: `ReadFirstLine` once, `ReadHeader` until it returns null, then `ReadBody` or
/// `ReadBytes`. Derived classes define the source. *One thread at a time.*
class MessageReader {
public:
    MessageReader(const MessageReader&) = delete;
    MessageReader& operator=(const MessageReader&) = delete;
    virtual ~MessageReader() = default;

    static constexpr std::size_t kLineBuffer = 4096;
    static constexpr std::size_t kMaxHeaderLine = 4094;  ///< including the line end
    static constexpr std::size_t kMaxHeaders = 1000;
    static constexpr std::size_t kMaxHeaderText = 0x100000;
    static constexpr std::uint64_t kMaxBody = 0x100000;
    static constexpr std::size_t kBodyStep = 4096;

    /// Reads the first line. Deliberate: this line has no limit; it is truncated to the size of the buffer,
    /// and then the message ends with it. Throws "BadRequest" if the line contains a zero byte, which would
    /// hide the rest of it.
    char* ReadFirstLine();

    /// Reads the next header line and its `length`; returns null after the last. The line may contain zero
    /// bytes.
    char* ReadHeader(std::size_t& length);

    /// Returns whether a line of this length contains a zero byte.
    static bool HoldsZero(const char* line, std::size_t length);

    /// Reads at most `length` bytes, and at most one byte more than a body may have. Returns those that have
    /// arrived, which are valid as long as the reader.
    std::pair<char*, std::size_t> ReadBody(std::uint64_t length);

    /// Reads at most `size` bytes and returns how many have arrived. Throws "BadRequest" if the source fails.
    virtual std::size_t ReadBytes(char* data, std::size_t size) = 0;

    /// Returns whether reading may continue: neither the end nor an overlong line has been met.
    virtual bool IsGood() const = 0;

protected:
    MessageReader() { _line[0] = '\0'; }

    /// Reads a line of at most `size - 1` characters and stores it zero-terminated and without its line feed.
    /// Sets `length` to the length of the line and returns the number of characters read, including the line
    /// feed. Throws "BadRequest" if the source fails.
    virtual std::size_t TakeLine(char* line, std::size_t size, std::size_t& length) = 0;

private:
    std::size_t ReadLine(std::size_t& length);

    char _line[kLineBuffer];
    std::string _body;
    std::size_t _headers = 0;
    std::size_t _text = 0;
};

/// Reads from a stream, but no more than the message needs.
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

/// Reads a message in memory. The end of the text is the end of the message.
class MemoryReader final : public MessageReader {
public:
    /// @param text  *not owned*, must outlive the reader.
    explicit MemoryReader(std::string_view text) : _rest(text) {}
    std::size_t ReadBytes(char* data, std::size_t size) override;
    bool IsGood() const override { return _isGood; }

    /// Returns the part that has not been read.
    std::string_view GetRest() const { return _rest; }

protected:
    std::size_t TakeLine(char* line, std::size_t size, std::size_t& length) override;

private:
    std::string_view _rest;
    bool _isGood = true;
};

}  // namespace zarip::inet
