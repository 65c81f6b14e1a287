// SPDX-License-Identifier: MIT

#include "xml/XmlNodeQueue.h"

#include "xml/XmlLimits.h"
#include "xml/XmlText.h"

namespace zarip::xml {

namespace {

/// Duplicates are only searched among this many. Remembering all values of a long document would take too
/// much memory.
constexpr std::size_t kMaxIds = 4'096;

constexpr std::string_view kSpaces = " \t\r\n";

XmlNodeQueue& GetQueue(void* parser) {
    return static_cast<XmlNodeQueue&>(XmlVerdict::Of(parser));
}

/// Returns the value of an attribute in the parser's form: local name, prefix, namespace, begin and end of
/// the value.
std::string_view GetValue(const xmlChar** attribute) {
    return {reinterpret_cast<const char*>(attribute[3]),
            static_cast<std::size_t>(attribute[4] - attribute[3])};
}

bool MayGrow(XmlReader::NodeType type) {
    return type == XmlReader::kText || type == XmlReader::kCData;
}

}  // namespace

const XmlNodeQueue::Node XmlNodeQueue::_none;

void XmlNodeQueue::Attach(xmlParserCtxt& parser) {
    xmlSAXHandler& handlers = *parser.sax;
    handlers = {};  // removes the handlers that build a document
    handlers.initialized = XML_SAX2_MAGIC;
    XmlVerdict::Attach(parser);
    handlers.startElementNs = OnStart;
    handlers.endElementNs = OnEnd;
    handlers.characters = OnText;
    handlers.ignorableWhitespace = OnText;
    handlers.cdataBlock = OnCData;
    handlers.comment = OnComment;
    handlers.processingInstruction = OnInstruction;
    handlers.internalSubset = OnType;
    handlers.endDocument = OnEndOfDocument;
}

bool XmlNodeQueue::Advance(bool isComplete) {
    const std::size_t next = _isDelivered ? _at + 1 : _at;
    const bool isThere =
        next + 1 < _nodes.size() || (next < _nodes.size() && (isComplete || !MayGrow(_nodes[next].type)));
    _at = next;
    _isDelivered = isThere;
    if (!isThere) {
        DropDelivered();
        return false;
    }
    Node& node = _nodes[_at];
    if (node.type == XmlReader::kText &&
        TextOf(node.value).find_first_not_of(kSpaces) == std::string_view::npos) {
        node.type = XmlReader::kWhitespace;
    }
    return true;
}

/// Drops all delivered nodes, so that at most an incomplete text is left.
void XmlNodeQueue::DropDelivered() {
    const bool hasOpenText = _at < _nodes.size();
    const std::size_t dropped = hasOpenText ? _nodes[_at].value.begin : _texts.size();
    _nodes.erase(_nodes.begin(), _nodes.begin() + static_cast<std::ptrdiff_t>(_at));
    _attributes.clear();
    _texts.erase(0, dropped);
    if (hasOpenText) {
        _nodes.front().value.begin = 0;
    } else if (_texts.capacity() > 65'536) {
        _texts = {};  // frees the memory of an unusually long text
    }
    _at = 0;
}

XmlNodeQueue::Slice XmlNodeQueue::Append(std::string_view text) {
    const Slice slice = {_texts.size(), text.size()};
    _texts += text;
    return slice;
}

XmlNodeQueue::Node& XmlNodeQueue::Add(xmlParserCtxt* parser, XmlReader::NodeType type) {
    Node& node = _nodes.emplace_back();
    node.type = type;
    node.depth = _depth;
    node.line = static_cast<unsigned int>(parser->input->line);
    return node;
}

/// Adds a text, or appends to the last node, because the parser delivers long texts in parts.
void XmlNodeQueue::AddText(xmlParserCtxt* parser, XmlReader::NodeType type, std::string_view text) {
    const bool isMore = !_nodes.empty() && _nodes.back().type == type;
    Node& node = isMore ? _nodes.back() : Add(parser, type);
    const Slice slice = Append(text);
    node.value = isMore ? Slice{node.value.begin, node.value.size + slice.size} : slice;
    if (node.value.size > kMaxText) {
        Refuse(parser, kTooLongText);
    }
}

void XmlNodeQueue::AddAttribute(const Name& name, std::string_view value) {
    _attributes.push_back({name, Append(value)});
}

void XmlNodeQueue::CheckId(xmlParserCtxt* parser, std::string_view id) {
    if (!IsName(id, false)) {
        Refuse(parser, kInvalidId);
    } else if (_ids.size() < kMaxIds ? !_ids.emplace(id).second : _ids.count(std::string(id)) != 0) {
        Refuse(parser, kDoubledId);
    }
}

void XmlNodeQueue::OnStart(void* context, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri,
                           int namespaceCount, const xmlChar** namespaces, int attributeCount,
                           int /*defaultedCount*/, const xmlChar** attributes) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    XmlNodeQueue& queue = GetQueue(parser);
    queue.OpenElement(parser, namespaceCount);
    if (queue._depth > kMaxDepth) {
        queue.Refuse(parser, kTooDeep);
    }
    for (const xmlChar** one = attributes; one != attributes + std::ptrdiff_t{5} * attributeCount; one += 5) {
        if (ToView(one[1]) == "xml" && ToView(one[0]) == "id") {
            queue.CheckId(parser, GetValue(one));
        }
    }
    if (queue.IsBad()) {
        return;
    }
    Node& node = queue.Add(parser, XmlReader::kElement);
    // The end of the tag. The parser keeps a zero after the input.
    const xmlChar* const end = parser->input->cur;
    node.isEmpty = end[0] == '/' && end[1] == '>';
    node.name = {local, prefix, uri};
    node.firstAttribute = queue._attributes.size();
    node.attributes = static_cast<std::size_t>(namespaceCount) + static_cast<std::size_t>(attributeCount);
    for (const xmlChar** one = namespaces; one != namespaces + std::ptrdiff_t{2} * namespaceCount; one += 2) {
        const bool isDefault = one[0] == nullptr;
        queue.AddAttribute({isDefault ? ToXml("xmlns") : one[0], isDefault ? nullptr : ToXml("xmlns"),
                            ToXml("http://www.w3.org/2000/xmlns/")},
                           ToView(one[1]));
    }
    for (const xmlChar** one = attributes; one != attributes + std::ptrdiff_t{5} * attributeCount; one += 5) {
        queue.AddAttribute({one[0], one[1], one[2]}, GetValue(one));
    }
    ++queue._depth;
}

void XmlNodeQueue::OnEnd(void* context, const xmlChar* local, const xmlChar* prefix, const xmlChar* uri) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    XmlNodeQueue& queue = GetQueue(parser);
    queue.CloseElement();
    --queue._depth;
    if (!queue._nodes.empty() && queue._nodes.back().isEmpty && queue._nodes.back().depth == queue._depth) {
        return;
    }
    queue.Add(parser, XmlReader::kEndElement).name = {local, prefix, uri};
}

void XmlNodeQueue::OnText(void* context, const xmlChar* text, int length) {
    GetQueue(context).AddText(static_cast<xmlParserCtxt*>(context), XmlReader::kText,
                              {reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)});
}

void XmlNodeQueue::OnCData(void* context, const xmlChar* text, int length) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    const std::string_view part(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    // libxml2 checks all other texts. It delivers these in parts of whole characters.
    if (!IsText(part)) {
        GetQueue(parser).Refuse(parser, kInvalidText);
    }
    GetQueue(parser).AddText(parser, XmlReader::kCData, part);
}

void XmlNodeQueue::OnComment(void* context, const xmlChar* text) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    if (parser->inSubset == 0) {
        XmlNodeQueue& queue = GetQueue(parser);
        queue.Add(parser, XmlReader::kComment).value = queue.Append(ToView(text));
    }
}

void XmlNodeQueue::OnInstruction(void* context, const xmlChar* target, const xmlChar* data) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    if (parser->inSubset == 0) {
        XmlNodeQueue& queue = GetQueue(parser);
        Node& node = queue.Add(parser, XmlReader::kProcessingInstruction);
        node.name.local = target;
        node.value = queue.Append(ToView(data));
    }
}

void XmlNodeQueue::OnEndOfDocument(void* parser) {
    GetQueue(parser)._isEnded = true;
}

void XmlNodeQueue::OnType(void* context, const xmlChar* name, const xmlChar* /*publicId*/,
                          const xmlChar* /*systemId*/) {
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    Node& node = GetQueue(parser).Add(parser, XmlReader::kOther);
    node.name.local = name;
    node.line = 0;
}

}  // namespace zarip::xml
