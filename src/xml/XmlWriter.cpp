#include "zarip/xml/XmlWriter.h"

#include <libxml/xmlwriter.h>

#include <vector>

#include "xml/XmlText.h"
#include "zarip/osa/IOException.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

int WriteStream(void* stream, const char* buffer, int length) {
    auto& output = *static_cast<std::ostream*>(stream);
    try {
        output.write(buffer, length);
    } catch (const std::exception&) {
        return -1;  // one that throws by its mask; a C library stands between
    }
    return output ? length : -1;
}

int LeaveStream(void* /*stream*/) {
    return 0;
}

}  // namespace

struct ZARIP_HIDDEN XmlWriter::Impl {
    ~Impl() {
        const ErrorScope errors;  // it flushes, and would tell standard error
        xmlFreeTextWriter(writer);
    }

    /// Calls a function of the writer.
    template <class Function, class... Arguments>
    void Do(Function function, const Arguments&... argument) {
        const ErrorScope errors;
        if (function(writer, argument...) < 0) {
            throw osa::IOException("XmlWriter: writing failed");
        }
    }

    void CheckOpen() const {
        if (depth == 0) {
            throw XmlException(isComplete ? "the document is complete" : "no element is open");
        }
    }

    void CheckAttribute(const std::string& name) {
        CheckOpen();
        if (!mayHaveAttributes) {
            throw XmlException("attributes stand at the beginning of an element");
        }
        for (const std::string& other : attributes) {
            if (other == name) {
                throw XmlException("attribute '" + name + "' twice");
            }
        }
    }

    xmlTextWriter* writer = nullptr;
    int depth = 0;
    bool isBegun = false;
    bool isComplete = false;
    bool mayHaveAttributes = false;
    std::vector<std::string> attributes;  ///< of the element that was started last
};

XmlWriter::XmlWriter(std::ostream& stream, bool indent) : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    xmlOutputBuffer* const buffer = Made(xmlOutputBufferCreateIO(WriteStream, LeaveStream, &stream, nullptr));
    _impl->writer = xmlNewTextWriter(buffer);
    if (_impl->writer == nullptr) {
        xmlOutputBufferClose(buffer);
        throw std::bad_alloc();
    }
    xmlTextWriterSetIndent(_impl->writer, indent ? 1 : 0);
    xmlTextWriterSetIndentString(_impl->writer, ToXml("  "));
}

XmlWriter::~XmlWriter() = default;

void XmlWriter::StartDocument() {
    if (_impl->isBegun) {
        throw XmlException("the document has begun");
    }
    _impl->isBegun = true;
    _impl->Do(xmlTextWriterStartDocument, nullptr, "UTF-8", nullptr);
}

void XmlWriter::StartElement(const std::string& name) {
    CheckName(name, true);
    if (_impl->isComplete) {
        throw XmlException("the document is complete");
    }
    _impl->isBegun = true;
    _impl->Do(xmlTextWriterStartElement, ToXml(name));
    ++_impl->depth;
    _impl->mayHaveAttributes = true;
    _impl->attributes.clear();
}

void XmlWriter::EndElement() {
    _impl->CheckOpen();
    _impl->Do(xmlTextWriterEndElement);
    _impl->mayHaveAttributes = false;
    _impl->isComplete = --_impl->depth == 0;
}

void XmlWriter::Element(const std::string& name, const std::string& text) {
    CheckText(text);
    StartElement(name);
    if (!text.empty()) {
        Text(text);
    }
    EndElement();
}

void XmlWriter::Attribute(const std::string& name, const std::string& value) {
    CheckName(name, true);
    CheckText(value);
    if (name == "xmlns" || name.compare(0, 6, "xmlns:") == 0) {
        CheckNamespace(name.size() > 6 ? name.substr(6) : std::string(), value);
    }
    _impl->CheckAttribute(name);
    _impl->Do(xmlTextWriterWriteAttribute, ToXml(name), ToXml(value));
    _impl->attributes.push_back(name);
}

void XmlWriter::Namespace(const std::string& prefix, const std::string& uri) {
    CheckNamespace(prefix, uri);
    Attribute(prefix.empty() ? "xmlns" : "xmlns:" + prefix, uri);
}

void XmlWriter::Text(const std::string& text) {
    CheckText(text);
    _impl->CheckOpen();
    _impl->Do(xmlTextWriterWriteString, ToXml(text));
    _impl->mayHaveAttributes = false;
}

void XmlWriter::CData(const std::string& text) {
    CheckText(text);
    _impl->CheckOpen();
    // The end mark inside is divided between two sections. A carriage return is escaped between two: in one
    // it would be read as a line feed.
    std::size_t begin = 0;
    for (std::size_t at = text.find_first_of("]\r"); at != std::string::npos;
         at = text.find_first_of("]\r", at)) {
        if (text[at] == '\r') {
            _impl->Do(xmlTextWriterWriteCDATA, ToXml(text.substr(begin, at - begin)));
            _impl->Do(xmlTextWriterWriteString, ToXml("\r"));
            begin = ++at;
        } else if (text.compare(at, 3, "]]>") == 0) {
            at += 2;
            _impl->Do(xmlTextWriterWriteCDATA, ToXml(text.substr(begin, at - begin)));
            begin = at;
        } else {
            ++at;
        }
    }
    _impl->Do(xmlTextWriterWriteCDATA, ToXml(text.substr(begin)));
    _impl->mayHaveAttributes = false;
}

void XmlWriter::Comment(const std::string& text) {
    CheckText(text);
    if (text.find("--") != std::string::npos || (!text.empty() && text.back() == '-')) {
        throw XmlException("invalid comment");
    }
    _impl->isBegun = true;
    _impl->Do(xmlTextWriterWriteComment, ToXml(text));
    _impl->mayHaveAttributes = false;
}

void XmlWriter::EndDocument() {
    if (_impl->depth == 0 && !_impl->isComplete) {
        throw XmlException("no element is open");
    }
    _impl->Do(xmlTextWriterEndDocument);
    _impl->Do(xmlTextWriterFlush);
    _impl->depth = 0;
    _impl->isComplete = true;
    _impl->mayHaveAttributes = false;
}

}  // namespace zarip::xml
