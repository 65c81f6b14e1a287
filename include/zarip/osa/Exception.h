// SPDX-License-Identifier: MIT

#pragma once

#include <exception>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// The root of the library's exceptions: a message and, if `SetLocation` was called, a source location.
///
/// Constructors never throw. If memory runs out while the message is built, they print "ERROR:
/// Exception::Exception" to standard output, and the object holds the part that was built. *One thread at a
/// time.*
class ZARIP_EXPORT Exception : public std::exception {
public:
    /// The message of an operation that an interface declares and an implementation does not provide:
    /// "unimplemented".
    static const std::string kUnimplemented;

    explicit Exception(const std::string& message);

    /// Builds the message as printf does. Pass a string from outside as an argument, never as the format.
    explicit Exception(const char* format, ...) ZARIP_PRINTF(2, 3);

    /// Deliberate: copies only the message, so a copy of an exception has no location. Callers that log
    /// `GetFile()` rely on seeing a location only if they have caught the original.
    Exception(const Exception& other);

    /// Copies message, file and line.
    Exception& operator=(const Exception& other);

    ~Exception() override;

    const char* what() const noexcept override;

    void SetLocation(const char* file, unsigned int line);
    const std::string& GetFile() const { return _file; }
    unsigned int GetLine() const { return _line; }
    const std::string& ToString() const { return _message; }

private:
    unsigned int _line = 0;
    std::string _file;
    std::string _message;
};

}  // namespace zarip::osa
