// SPDX-License-Identifier: MIT

#pragma once

#include <istream>
#include <streambuf>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::stl {

/// The lines of a stream before a delimiter line, each ended by a line feed; a carriage return before it is
/// removed. Afterwards the source is positioned after the delimiter line. *One thread at a time.*
///
/// A line of more than 511 characters is read in pieces. A piece that equals the delimiter also ends the
/// buffer.
class ZARIP_EXPORT DelimitedStreamBuf : public std::streambuf {
public:
    /// @param source  *not owned*, must outlive the buffer; null is an empty one.
    /// @param delimiter  copied; the line without its line end.
    DelimitedStreamBuf(std::istream* source, const char* delimiter);
    ~DelimitedStreamBuf() override;

protected:
    int_type underflow() override;

private:
    std::istream* _source;
    std::string _delimiter;
    bool _ended;
    char _line[512];
};

}  // namespace zarip::stl
