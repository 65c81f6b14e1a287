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

/// The nodes that the parser has found and `XmlReader` has not yet delivered. The parser processes a piece of
/// a document at a time, which may contain many nodes or a part of a text. *One thread at a time.*
///
/// All strings of the nodes are in one buffer, in order; nodes and attributes refer to slices of it. Names
/// belong to the parser and are valid as long as it exists.
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
        std::size_t attributes = 0;  ///< including declarations of namespaces
        int depth = 0;
        unsigned int line = 0;
        bool isEmpty = false;
    };

    /// Moves to the next node. Returns false if it is not complete yet.
    /// @param isComplete  whether no more nodes will be added, so that a text at the end is complete.
    bool Advance(bool isComplete);

    /// Returns the current node, which has the type `kNone` before the first and after the last node.
    const Node& Current() const { return _at < _nodes.size() && _isDelivered ? _nodes[_at] : _none; }
    const Attribute& AttributeAt(std::size_t index) const { return _attributes[index]; }
    std::string_view TextOf(Slice slice) const {
        return std::string_view(_texts).substr(slice.begin, slice.size);
    }

    /// Makes the handlers of a parser fill this queue, which must outlive the parser.
    void Attach(xmlParserCtxt& parser);

    /// Returns whether the parser has reached the end of the document.
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
    bool _isDelivered = false;  ///< whether the node at `_at` was delivered
    int _depth = 0;
    bool _isEnded = false;
    std::set<std::string> _ids;
};

}  // namespace zarip::xml
