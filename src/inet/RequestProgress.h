// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string_view>

namespace zarip::inet {

/// How much of a request has arrived. It decides whether more bytes can change the answer; only the parser
/// interprets the request. Each byte is scanned once.
class RequestProgress {
public:
    /// Scans the bytes that have arrived since the last call.
    /// @param text  all bytes that have arrived.
    void ScanText(std::string_view text);

    /// Returns whether the empty line after the headers has arrived.
    bool HasHead() const { return _head != 0; }
    /// Returns the length of the first line and the headers with their line ends; 0 until they have arrived.
    std::size_t GetHead() const { return _head; }

    /// Returns whether the parser will refuse the request in any case: a line or the head is too long, or the
    /// first line contains control characters, for example because the client speaks TLS.
    bool IsHopeless() const { return _isHopeless; }
    void SetHopeless() { _isHopeless = true; }

    /// Returns whether the last call of `ScanText` has found the end of the first line.
    bool HasNewFirstLine() const { return _hasNewFirstLine; }
    std::size_t GetFirstLine() const { return _firstLine; }

    /// Returns the length of the whole request; 0 until its head has been read.
    std::size_t GetLength() const { return _length; }
    void SetLength(std::size_t length) { _length = length; }

private:
    void ScanLine(std::string_view text, std::size_t end);

    std::size_t _seen = 0;
    std::size_t _line = 0;  // the beginning of the line that has not ended yet
    std::size_t _lines = 0;
    std::size_t _firstLine = 0;
    std::size_t _head = 0;
    std::size_t _length = 0;
    bool _isHopeless = false;
    bool _hasNewFirstLine = false;
};

}  // namespace zarip::inet
