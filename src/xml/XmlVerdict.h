// SPDX-License-Identifier: MIT

#pragma once

#include <libxml/parser.h>

#include <array>
#include <cstddef>

#include "xml/XmlLimits.h"
#include "xml/XmlText.h"

namespace zarip::xml {

/// The reason why the reading of a document has ended: the first error of the parser or a refusal of this
/// library, whichever comes first. The parser is stopped there. It could continue after an error, but each
/// further error takes time, and it may misinterpret the following markup. *One thread at a time.*
class XmlVerdict {
public:
    XmlVerdict() = default;
    XmlVerdict(const XmlVerdict&) = delete;
    XmlVerdict& operator=(const XmlVerdict&) = delete;
    ~XmlVerdict() { xmlResetError(&_error); }

    /// Makes the handlers of a parser report to this object, which must outlive the parser, and refuse
    /// declarations of entities and attributes, so that there is nothing to expand. `_private` of the parser
    /// points to this object.
    void Attach(xmlParserCtxt& parser);
    static XmlVerdict& Of(void* parser) {
        return *static_cast<XmlVerdict*>(static_cast<xmlParserCtxt*>(parser)->_private);
    }

    /// Refuses the document at the parser's position and stops the parser.
    /// @param reason  a string literal.
    void Refuse(xmlParserCtxt* parser, const char* reason);

    /// Refuses the document without stopping the parser, for functions that the parser calls for its input.
    void Keep(const xmlParserCtxt* parser, const char* reason);

    /// Refuses too many namespaces and names. To be called for each start tag.
    /// @param namespaces  the number of namespaces that the tag declares.
    void OpenElement(xmlParserCtxt* parser, int namespaces);

    /// To be called for each end tag.
    void CloseElement();

    bool IsBad() const { return _refusal != nullptr || _error.message != nullptr; }

    /// Throws the `XmlException` for the reason, or "no document" if there is no reason.
    [[noreturn]] void Throw() const;

private:
    static void OnError(void* parser, ReportedError error);

    xmlError _error{};
    // The number of namespaces in scope in each open element. The parser opens one element more than it
    // allows before it refuses the document. Handlers must not throw, so this needs no memory.
    std::array<int, kMaxDepth + 1> _namespaces{};
    std::size_t _depth = 0;
    const char* _refusal = nullptr;
    unsigned int _line = 0;
    unsigned int _column = 0;
};

}  // namespace zarip::xml
