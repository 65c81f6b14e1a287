// SPDX-License-Identifier: MIT

#pragma once

#include <libxml/parser.h>

#include <vector>

#include "xml/XmlText.h"

namespace zarip::xml {

/// What ends the reading of a document: the first error that the parser finds, or a refusal of ours,
/// whichever comes first. The parser is stopped there. It could go on after an error, but then takes time for
/// each further one, and what it believes to be a comment or a tag is a matter of luck. *One thread at a
/// time.*
class XmlVerdict {
public:
    XmlVerdict() = default;
    XmlVerdict(const XmlVerdict&) = delete;
    XmlVerdict& operator=(const XmlVerdict&) = delete;
    ~XmlVerdict() { xmlResetError(&_error); }

    /// Makes the handlers of a parser report to this object, which must outlive it, and refuse declarations
    /// of entities and attributes: what is never declared is never expanded. `_private` of the parser points
    /// here.
    void Attach(xmlParserCtxt& parser);
    static XmlVerdict& Of(void* parser) {
        return *static_cast<XmlVerdict*>(static_cast<xmlParserCtxt*>(parser)->_private);
    }

    /// Refuses the document and stops the parser. @param reason  a literal. The place is where the parser is.
    void Refuse(xmlParserCtxt* parser, const char* reason);

    /// Only refuses it: what the parser asks for its input must not stop it.
    void Keep(const xmlParserCtxt* parser, const char* reason);

    /// Refuses too many namespaces and names; to be called for each start tag. @param namespaces  how many
    /// the tag declares.
    void OpenElement(xmlParserCtxt* parser, int namespaces);

    /// To be called for each end tag.
    void CloseElement();

    bool IsBad() const { return _refusal != nullptr || _error.message != nullptr; }

    /// Throws the `XmlException` for what has ended the document; "no document" if nothing has.
    [[noreturn]] void Throw() const;

private:
    static void OnError(void* parser, ReportedError error);

    xmlError _error{};
    std::vector<int> _namespaces;  // those in force within each open element
    const char* _refusal = nullptr;
    unsigned int _line = 0;
    unsigned int _column = 0;
};

}  // namespace zarip::xml
