// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>

#include <zarip/inet/ParserException.h>

namespace zarip::inet {

/// Both directions of a connection: what the peer sends, byte by byte, and what it gets.
class Wire : public std::streambuf {
public:
    enum End { kCloses, kBreaks };  ///< after its text the peer closes; or reading throws, as a time-out does

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

/// The text of what the action throws; "nothing" when it throws nothing.
template <class Action>
std::string Thrown(Action action) {
    try {
        action();
    } catch (const ParserException& e) {
        return e.ToString();
    } catch (const std::exception& e) {
        return std::string("another exception: ") + e.what();
    } catch (const char* text) {
        return std::string("the text ") + text;
    }
    return "nothing";
}

}  // namespace zarip::inet
