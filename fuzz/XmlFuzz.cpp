// SPDX-License-Identifier: MIT

#include <sstream>
#include <string>

#include <zarip/xml/XmlDocument.h>
#include <zarip/xml/XmlException.h>
#include <zarip/xml/XmlReader.h>
#include <zarip/xml/XmlWriter.h>

#include "Targets.h"

namespace fuzz {

namespace {

using zarip::xml::XmlDocument;
using zarip::xml::XmlElement;
using zarip::xml::XmlException;
using zarip::xml::XmlReader;

/// The elements and all text of a document, read piece by piece.
struct Summary {
    std::size_t elements = 0;
    std::string text;
    bool isWellFormed = true;
};

Summary Read(XmlReader& reader) {
    Summary summary;
    try {
        while (reader.Read()) {
            const XmlReader::NodeType type = reader.GetNodeType();
            summary.elements += type == XmlReader::kElement ? 1 : 0;
            if (type == XmlReader::kText || type == XmlReader::kCData || type == XmlReader::kWhitespace) {
                summary.text += reader.GetValue();
            }
        }
    } catch (const XmlException&) {
        summary.isWellFormed = false;
    }
    return summary;
}

std::size_t CountElements(XmlElement element) {
    std::size_t count = 1;
    for (const XmlElement child : element.GetChildren()) {
        count += CountElements(child);
    }
    return count;
}

/// Writes what the reader finds, and a text; whatever the writer takes can be read again.
void CheckWriter(const std::string& input, const std::string& text) {
    std::ostringstream out;
    zarip::xml::XmlWriter writer(out);
    try {
        writer.StartElement("all");
        XmlReader reader(input);
        while (reader.Read()) {
            if (reader.GetNodeType() == XmlReader::kElement) {
                writer.StartElement(std::string(reader.GetName()));
                for (const char* const name : {"a", "xmlns", "xmlns:a", "a:b", "xml:id"}) {
                    std::string value;
                    if (reader.GetAttribute(name, value)) {
                        writer.Attribute(name, value);
                    }
                }
                if (reader.IsEmptyElement()) {
                    writer.EndElement();
                }
            } else if (reader.GetNodeType() == XmlReader::kEndElement) {
                writer.EndElement();
            } else if (reader.GetNodeType() == XmlReader::kComment) {
                writer.Comment(std::string(reader.GetValue()));
            }
        }
        writer.Element("text", text);
        writer.EndDocument();
    } catch (const XmlException&) {
        return;
    }
    const XmlDocument document = XmlDocument::Parse(out.str());
    Check(document.GetRoot().GetChildren().back().GetText() == text,
          "a text that was written reads as the same");
}

}  // namespace

FUZZ_TARGET(xml) {
    XmlReader reader(input);
    const Summary fromText = Read(reader);
    std::istringstream stream(input);
    XmlReader streamReader(stream);
    const Summary fromStream = Read(streamReader);
    Check(fromText.isWellFormed == fromStream.isWellFormed, "a stream is read as a text is");

    std::string written;
    try {
        const XmlDocument document = XmlDocument::Parse(input);
        written = document.ToString();
        Check(fromText.isWellFormed, "the reader takes what the document takes");
        Check(CountElements(document.GetRoot()) == fromText.elements,
              "reader and document see the same elements");
        Check(document.GetRoot().GetText() == fromText.text, "reader and document see the same text");
    } catch (const XmlException&) {
        Check(!fromText.isWellFormed, "the document takes what the reader takes");
        return;
    }
    Check(XmlDocument::Parse(written).ToString() == written, "a document that was written reads as the same");

    CheckWriter(input, fromText.text);
}

}  // namespace fuzz
