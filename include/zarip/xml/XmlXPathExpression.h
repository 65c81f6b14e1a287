// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>
#include <zarip/xml/XmlElement.h>

namespace zarip::xml {

/// An XPath 1.0 expression, which is compiled once and can be evaluated any number of times. *One thread at a
/// time.*
///
/// Evaluation starts at an element, but an expression that begins with '/' starts at the document. The
/// functions throw `XmlException` "XPath: ..." if the expression is invalid or its result has the wrong type.
/// They throw "XPath: Operation limit exceeded" if an evaluation visits more than 20 million nodes.
///
/// That limit does not bound the time completely. The sets that "//" after another step, "|" and "ancestor::"
/// find are merged node by node, which takes time with the square of their size. In documents from strangers
/// use paths of children ("/a/b", "b[@c]") with at most one "//". Never evaluate expressions from strangers.
class ZARIP_EXPORT XmlXPathExpression {
public:
    /// @param namespaces  maps the prefixes of the expression to namespaces. The prefixes of the document are
    ///     not used.
    explicit XmlXPathExpression(const std::string& expression,
                                const std::map<std::string, std::string>& namespaces = {});
    XmlXPathExpression(const XmlXPathExpression&) = delete;
    XmlXPathExpression& operator=(const XmlXPathExpression&) = delete;
    ~XmlXPathExpression();

    /// Returns the elements found, in the order of the document, without other nodes.
    std::vector<XmlElement> EvaluateNodes(XmlElement start) const;

    /// Returns the text of every node found, including attributes.
    std::vector<std::string> EvaluateTexts(XmlElement start) const;

    /// These functions convert any result as XPath's functions string(), number() and boolean() do.
    std::string EvaluateText(XmlElement start) const;
    double EvaluateNumber(XmlElement start) const;
    bool EvaluateBoolean(XmlElement start) const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
