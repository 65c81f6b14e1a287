// SPDX-License-Identifier: MIT

#include "inet/RequestProgress.h"

#include <algorithm>

#include "inet/MessageReader.h"
#include "inet/MessageText.h"

namespace zarip::inet {

void RequestProgress::ScanText(std::string_view text) {
    _hasNewFirstLine = false;
    while (_head == 0 && !_isHopeless && _seen < text.size()) {
        const std::size_t found = text.find('\n', _seen);
        ScanLine(text, found);
        _seen = std::min(found, text.size() - 1) + 1;
    }
}

/// Scans the rest of a line; `end` is the position of its line feed, or npos.
void RequestProgress::ScanLine(std::string_view text, std::size_t end) {
    const bool hasEnd = end != std::string_view::npos;
    const std::string_view line = text.substr(_line, hasEnd ? end - _line : std::string_view::npos);
    const std::size_t length = line.size() + (hasEnd ? 1 : 0);
    if (_firstLine == 0) {
        // A carriage return may be the beginning of the line's end.
        std::string_view fresh = line.substr(_seen);
        fresh.remove_suffix(!fresh.empty() && fresh.back() == '\r' ? 1 : 0);
        _isHopeless =
            length > MessageReader::kLineBuffer || std::any_of(fresh.begin(), fresh.end(), IsControl);
    } else {
        _isHopeless = length > MessageReader::kMaxHeaderLine || _lines > MessageReader::kMaxHeaders + 1 ||
                      _line + length - _firstLine > MessageReader::kMaxHeaderText;
    }
    if (!hasEnd) {
        return;
    }
    if (_firstLine == 0) {
        _firstLine = length;
        _hasNewFirstLine = true;
    } else if (line.empty() || line == "\r") {
        _head = end + 1;
    }
    ++_lines;
    _line = end + 1;
}

}  // namespace zarip::inet
