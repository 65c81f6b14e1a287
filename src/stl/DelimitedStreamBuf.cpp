// SPDX-License-Identifier: MIT

#include "zarip/stl/DelimitedStreamBuf.h"

namespace zarip::stl {

DelimitedStreamBuf::DelimitedStreamBuf(std::istream* source, const char* delimiter)
    : _source(source),
      _delimiter(delimiter != nullptr ? delimiter : ""),
      _ended(source == nullptr),
      _line() {}

DelimitedStreamBuf::~DelimitedStreamBuf() = default;

DelimitedStreamBuf::int_type DelimitedStreamBuf::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    if (_ended) {
        return traits_type::eof();
    }
    _source->get(_line, sizeof _line, '\n');
    auto length = static_cast<std::size_t>(_source->gcount());
    const bool atEnd = _source->eof();
    if (_source->bad() || (length == 0 && atEnd)) {
        return traits_type::eof();
    }
    _source->clear();  // for the stream, an empty line is a failure

    // The next character is the line feed or, after the first piece of a long line, a character of the line.
    const int_type next = atEnd ? traits_type::eof() : _source->peek();
    const bool isNone = traits_type::eq_int_type(next, traits_type::eof());
    const bool lineEnds = isNone || next == '\n';
    if (lineEnds && length > 0 && _line[length - 1] == '\r') {
        --length;
    }
    if (_delimiter.compare(0, std::string::npos, _line, length) == 0) {
        _ended = true;
        if (next == '\n') {
            _source->get();
        }
        return traits_type::eof();
    }
    if (!isNone) {
        _line[length] = traits_type::to_char_type(_source->get());
        // The carriage return of a line end may be that next character.
        if (next == '\r' && _source->peek() == '\n') {
            _line[length] = traits_type::to_char_type(_source->get());
        }
        ++length;
    }
    setg(_line, _line, _line + length);
    return length > 0 ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

}  // namespace zarip::stl
