// SPDX-License-Identifier: MIT

#pragma once

#include <exception>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::inet {

/// A message is malformed or exceeds a limit. Copies keep all fields. *One thread at a time*. This is not an
/// `osa::Exception`.
class ZARIP_EXPORT ParserException : public std::exception {
public:
    explicit ParserException(const std::string& message);
    ParserException(const ParserException& other);
    ParserException& operator=(const ParserException& other);
    ~ParserException() override;

    const char* what() const noexcept override;

    void SetLocation(const char* file, unsigned int line);
    const std::string& GetFile() const { return _file; }
    unsigned int GetLine() const { return _line; }
    const std::string& ToString() const { return _message; }

private:
    std::string _file;
    unsigned int _line = 0;
    std::string _message;
};

}  // namespace zarip::inet
