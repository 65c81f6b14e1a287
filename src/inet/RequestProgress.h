// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string_view>

namespace zarip::inet {

/// How far a request has come in. It tells whether waiting for more can change the answer; what the request
/// says is the parser's to decide. Each byte is looked at once.
class RequestProgress {
public:
    /// Looks at what has come since the last look.
    /// @param text  all that has come.
    void Look(std::string_view text);

    /// Whether the empty line after the headers has come.
    bool HasHead() const { return _head != 0; }
    /// The length of the first line and the headers with their ends; 0 before they have come.
    std::size_t GetHead() const { return _head; }

    /// Whether the parser will refuse the request whatever comes: a line or the head is too long, or the
    /// first line holds control characters, as a client does that speaks TLS.
    bool IsHopeless() const { return _isHopeless; }
    void SetHopeless() { _isHopeless = true; }

    /// Whether the last look has found the end of the first line.
    bool HasNewFirstLine() const { return _hasNewFirstLine; }
    std::size_t GetFirstLine() const { return _firstLine; }

    /// The length of the whole request, once its head has been read; 0 before.
    std::size_t GetLength() const { return _length; }
    void SetLength(std::size_t length) { _length = length; }

private:
    void LookAtLine(std::string_view text, std::size_t end);

    std::size_t _seen = 0;
    std::size_t _line = 0;  // where the line begins that has not ended yet
    std::size_t _lines = 0;
    std::size_t _firstLine = 0;
    std::size_t _head = 0;
    std::size_t _length = 0;
    bool _isHopeless = false;
    bool _hasNewFirstLine = false;
};

}  // namespace zarip::inet
