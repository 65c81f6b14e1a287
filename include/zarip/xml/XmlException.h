// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::xml {

/// A document is not well formed or contains something that is not allowed, or a class of this namespace was
/// used in a wrong way.
class ZARIP_EXPORT XmlException : public osa::Exception {
public:
    explicit XmlException(const std::string& message);

    /// Appends " (line <line>, column <column>)" to the message.
    /// @param line, column  counted from 1; an unknown column is 0 and left out.
    XmlException(const std::string& message, unsigned int line, unsigned int column);
    XmlException(const XmlException& other);
    XmlException& operator=(const XmlException& other);
    ~XmlException() override;

    /// These functions return the position in the document, from 1, or 0 if it is not known.
    unsigned int GetDocumentLine() const { return _documentLine; }
    unsigned int GetDocumentColumn() const { return _documentColumn; }

private:
    unsigned int _documentLine = 0;
    unsigned int _documentColumn = 0;
};

}  // namespace zarip::xml
