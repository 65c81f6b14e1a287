// SPDX-License-Identifier: MIT

#pragma once

#include <libxml/parser.h>

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "xml/XmlVerdict.h"
#include "zarip/xml/XmlReader.h"

namespace zarip::xml {

/// What the parser has found and `XmlReader` has not yet delivered: the parser takes a piece of a document at
/// a time, which holds many nodes, or half a text. *One thread at a time.*
///
/// All strings of the nodes stand in one buffer, in their order; a node and an attribute know where. Names
/// are the parser's own and live as long as it does.
class XmlNodeQueue : public XmlVerdict {
public:
    /// A part of the buffer.
    struct Slice {
        std::size_t begin = 0;
        std::size_t size = 0;
    };

    struct Name {
        const xmlChar* local = nullptr;
        const xmlChar* prefix = nullptr;
        const xmlChar* uri = nullptr;
    };

    struct Attribute {
        Name name;
        Slice value;
    };

    struct Node {
        XmlReader::NodeType type = XmlReader::kNone;
        Name name;
        Slice value;
        std::size_t firstAttribute = 0;
        std::size_t attributes = 0;  ///< declarations of namespaces included
        int depth = 0;
        unsigned int line = 0;
        bool isEmpty = false;
    };

    /// Goes to the next node; false when it is not there yet.
    /// @param isComplete  nothing more will be added, so that a text at the end is whole.
    bool Advance(bool isComplete);

    /// The node that `Advance` went to; one of type `kNone` before the first and after the last.
    const Node& Current() const { return _at < _nodes.size() && _isDelivered ? _nodes[_at] : _none; }
    const Attribute& AttributeAt(std::size_t index) const { return _attributes[index]; }
    std::string_view TextOf(Slice slice) const {
        return std::string_view(_texts).substr(slice.begin, slice.size);
    }

    /// Makes the handlers of a parser fill this queue, which must outlive it.
    void Attach(xmlParserCtxt& parser);

    /// Whether the parser has come to the end of the document.
    bool IsEnded() const { return _isEnded; }

private:
    Node& Add(xmlParserCtxt* parser, XmlReader::NodeType type);
    void AddText(xmlParserCtxt* parser, XmlReader::NodeType type, std::string_view text);
    void AddAttribute(const Name& name, std::string_view value);
    void CheckId(xmlParserCtxt* parser, std::string_view id);
    void DropDelivered();
    Slice Append(std::string_view text);

    static void OnStart(void* parser, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri,
                        int namespaceCount, const xmlChar** namespaces, int attributeCount,
                        int defaultedCount, const xmlChar** attributes);
    static void OnEnd(void* parser, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri);
    static void OnText(void* parser, const xmlChar* text, int length);
    static void OnCData(void* parser, const xmlChar* text, int length);
    static void OnComment(void* parser, const xmlChar* text);
    static void OnInstruction(void* parser, const xmlChar* target, const xmlChar* data);
    static void OnEndOfDocument(void* parser);
    static void OnType(void* parser, const xmlChar* name, const xmlChar* publicId, const xmlChar* systemId);

    static const Node _none;

    std::vector<Node> _nodes;
    std::vector<Attribute> _attributes;
    std::string _texts;
    std::size_t _at = 0;
    bool _isDelivered = false;  ///< the node at `_at`
    int _depth = 0;
    bool _isEnded = false;
    std::set<std::string> _ids;
};

}  // namespace zarip::xml
