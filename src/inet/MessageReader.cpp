// SPDX-License-Identifier: MIT

#include "inet/MessageReader.h"

#include <algorithm>
#include <cstring>
#include <istream>

#include "cutil/chomp.h"
#include "inet/BadRequest.h"

namespace zarip::inet {

char* MessageReader::ReadFirstLine() {
    std::size_t length = 0;
    ReadLine(length);
    if (HoldsZero(_line, length)) {
        ThrowBadRequest();
    }
    return _line;
}

char* MessageReader::ReadHeader(std::size_t& length) {
    const std::size_t extracted = ReadLine(length);
    _text += extracted;
    if (extracted > kMaxHeaderLine || _text > kMaxHeaderText) {
        ThrowBadRequest();
    }
    if (length == 0) {
        return nullptr;
    }
    if (++_headers > kMaxHeaders) {
        ThrowBadRequest();
    }
    return _line;
}

bool MessageReader::HoldsZero(const char* line, std::size_t length) {
    return std::memchr(line, '\0', length) != nullptr;
}

std::pair<char*, std::size_t> MessageReader::ReadBody(std::uint64_t length) {
    const auto wanted = static_cast<std::size_t>(std::min(length, kMaxBody + 1));
    const bool isShort = wanted < kLineBuffer;
    std::size_t held = 0;
    while (held < wanted && IsGood()) {
        const std::size_t step = std::min(wanted - held, kBodyStep);
        if (!isShort) {
            _body.resize(held + step);
        }
        held += ReadBytes(isShort ? _line : _body.data() + held, step);
    }
    return {isShort ? _line : _body.data(), held};
}

/// Reads a line into the buffer and stores its length without its line end. Returns the number of characters
/// read.
std::size_t MessageReader::ReadLine(std::size_t& length) {
    const std::size_t extracted = TakeLine(_line, kLineBuffer, length);
    length = cutil::chomp(_line, length);
    return extracted;
}

bool StreamReader::IsGood() const {
    return _in.good();
}

std::size_t StreamReader::ReadBytes(char* data, std::size_t size) {
    _in.read(data, static_cast<std::streamsize>(size));
    if (_in.bad()) {
        ThrowBadRequest();
    }
    return static_cast<std::size_t>(_in.gcount());
}

std::size_t StreamReader::TakeLine(char* line, std::size_t size, std::size_t& length) {
    _in.getline(line, static_cast<std::streamsize>(size));
    if (_in.bad()) {
        ThrowBadRequest();
    }
    const auto extracted = static_cast<std::size_t>(_in.gcount());
    // A line that has ended the stream or did not fit had no line feed.
    length = _in.good() ? extracted - 1 : extracted;
    return extracted;
}

std::size_t MemoryReader::ReadBytes(char* data, std::size_t size) {
    _isGood = _isGood && size <= _rest.size();
    const std::size_t count = _rest.copy(data, size);
    _rest.remove_prefix(count);
    return count;
}

std::size_t MemoryReader::TakeLine(char* line, std::size_t size, std::size_t& length) {
    // As with std::istream, a line that ends the message or does not fit ends reading.
    const std::string_view piece = _isGood ? _rest.substr(0, size) : std::string_view();
    const std::size_t found = piece.find('\n');
    const bool hasEnd = found != std::string_view::npos;
    length = hasEnd ? found : std::min(piece.size(), size - 1);
    piece.copy(line, length);
    line[length] = '\0';
    _isGood = hasEnd;
    const std::size_t extracted = hasEnd ? length + 1 : length;
    _rest.remove_prefix(extracted);
    return extracted;
}

}  // namespace zarip::inet
