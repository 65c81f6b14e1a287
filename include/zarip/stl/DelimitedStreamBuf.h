// SPDX-License-Identifier: MIT

#pragma once

#include <istream>
#include <streambuf>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::stl {

/// Reads the lines of another stream up to a delimiter line. Each line ends with a line feed; a carriage
/// return before it is removed. When all lines have been read, the position of the source is after the
/// delimiter line. *One thread at a time.*
///
/// A line of more than 511 characters is read in pieces. If a piece equals the delimiter, it also ends the
/// buffer.
class ZARIP_EXPORT DelimitedStreamBuf : public std::streambuf {
public:
    /// @param source  *not owned*, must outlive the buffer; null is an empty source.
    /// @param delimiter  the delimiter line without its line end; it is copied.
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
