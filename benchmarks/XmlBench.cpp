// SPDX-License-Identifier: MIT

// Reading a document of 1 MB piece by piece, beside the functions of libxml2.

#include <libxml/xmlreader.h>

#include <cstdlib>
#include <string>

#include <zarip/xml/XmlReader.h>

#include "Rounds.h"

namespace {

std::string MakeDocument() {
    std::string text = "<recordings>";
    for (int i = 0; i < 8'000; ++i) {
        const std::string number = std::to_string(i);
        text += "<recording id=\"" + number +
                "\" kind=\"motion\"><begin>2026-11-21T20:10:07Z</begin><name>Recording " + number +
                " of the yard</name></recording>\n";
    }
    return text + "</recordings>";
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    const std::string text = MakeDocument();
    std::size_t raw = 0;
    std::size_t ours = 0;
    bench::Rounds rounds("XML, 1 MB: names, texts and one attribute", options);
    rounds.Add("xmlTextReader", [&] {
        raw = 0;
        xmlTextReader* const reader =
            xmlReaderForMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
        while (xmlTextReaderRead(reader) == 1) {
            const int type = xmlTextReaderNodeType(reader);
            if (type == XML_READER_TYPE_ELEMENT) {
                raw += std::string_view(reinterpret_cast<const char*>(xmlTextReaderConstLocalName(reader)))
                           .size();
                xmlChar* const id = xmlTextReaderGetAttribute(reader, reinterpret_cast<const xmlChar*>("id"));
                if (id != nullptr) {
                    raw += std::string(reinterpret_cast<const char*>(id)).size();
                    xmlFree(id);
                }
            } else if (type == XML_READER_TYPE_TEXT) {
                raw +=
                    std::string_view(reinterpret_cast<const char*>(xmlTextReaderConstValue(reader))).size();
            }
        }
        xmlFreeTextReader(reader);
    });
    rounds.Add("zarip::xml::XmlReader", [&] {
        using zarip::xml::XmlReader;
        ours = 0;
        XmlReader reader(text);
        std::string id;
        while (reader.Read()) {
            const XmlReader::NodeType type = reader.GetNodeType();
            if (type == XmlReader::kElement) {
                ours += reader.GetLocalName().size();
                if (reader.GetAttribute("id", id)) {
                    ours += id.size();
                }
            } else if (type == XmlReader::kText) {
                ours += reader.GetValue().size();
            }
        }
    });
    rounds.Run();
    return raw == ours ? EXIT_SUCCESS : EXIT_FAILURE;
}
