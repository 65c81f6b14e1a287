// SPDX-License-Identifier: MIT

#pragma once

#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>

#include <zarip/inet/ParserException.h>

#include "support/ErrorOf.h"

namespace zarip::inet {

/// A stream buffer for both directions of a connection: it delivers what the peer sends byte by byte and
/// records what the peer gets.
class Wire : public std::streambuf {
public:
    enum End {
        kCloses,
        kBreaks
    };  ///< the end of the input: the peer closes, or reading throws as after a time-out

    explicit Wire(std::string input, End end = kCloses) : _input(std::move(input)), _end(end) {}

    const std::string& Output() const { return _output; }
    int Writes() const { return _writes; }
    std::string Unread() const { return _input.substr(_next); }

protected:
    int_type underflow() override {
        if (_next == _input.size()) {
            if (_end == kBreaks) {
                throw std::runtime_error("Timeout");
            }
            return traits_type::eof();
        }
        _byte = _input[_next++];
        setg(&_byte, &_byte, &_byte + 1);
        return traits_type::to_int_type(_byte);
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        ++_writes;
        _output.append(data, static_cast<std::size_t>(size));
        return size;
    }
    int_type overflow(int_type c) override {
        const char byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }

private:
    std::string _input;
    std::size_t _next = 0;
    char _byte = 0;
    End _end;
    std::string _output;
    int _writes = 0;
};

/// Returns the message of the exception or the bare string that an action throws, or "no exception".
template <class Action>
std::string ParserErrorOf(Action action) {
    try {
        return test::ErrorOf<ParserException>(action);
    } catch (const char* text) {
        return std::string("the text ") + text;
    }
}

}  // namespace zarip::inet
