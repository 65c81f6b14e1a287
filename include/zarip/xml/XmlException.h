// SPDX-License-Identifier: MIT

#pragma once

#include <zarip/osa/Exception.h>

namespace zarip::xml {

/// A document that is not well formed or holds what is not allowed, or a wrong use of the classes here.
class ZARIP_EXPORT XmlException : public osa::Exception {
public:
    explicit XmlException(const std::string& message);

    /// The text is the message, followed by " (line <line>, column <column>)".
    /// @param line, column  from 1; a column 0 is not known and left out.
    XmlException(const std::string& message, unsigned int line, unsigned int column);
    XmlException(const XmlException& other);
    XmlException& operator=(const XmlException& other);
    ~XmlException() override;

    /// Where in the document, from 1; 0 when that is not known.
    unsigned int GetDocumentLine() const { return _documentLine; }
    unsigned int GetDocumentColumn() const { return _documentColumn; }

private:
    unsigned int _documentLine = 0;
    unsigned int _documentColumn = 0;
};

}  // namespace zarip::xml
