// SPDX-License-Identifier: MIT

#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>
#include <zarip/xml/XmlElement.h>

namespace zarip::xml {

/// An XPath 1.0 expression, compiled once and evaluated as often as one likes. *One thread at a time.*
///
/// Evaluation starts at an element; an expression that begins with '/' starts at the document all the same.
/// It throws `XmlException` "XPath: ..." for what is no expression, or none of the kind asked for, and
/// "XPath: Operation limit exceeded" where an evaluation looks at 20 million nodes.
///
/// That limit does not hold everything: the set that "//" after another step, "|" or "ancestor::" finds is
/// compared node by node, which takes time with the square of its size. In documents from strangers look for
/// children ("/a/b", "b[@c]"), with at most one "//", and let no stranger write an expression.
class ZARIP_EXPORT XmlXPathExpression {
public:
    /// @param namespaces  prefixes of the expression and the namespaces they stand for; those of the document
    /// do not count.
    explicit XmlXPathExpression(const std::string& expression,
                                const std::map<std::string, std::string>& namespaces = {});
    XmlXPathExpression(const XmlXPathExpression&) = delete;
    XmlXPathExpression& operator=(const XmlXPathExpression&) = delete;
    ~XmlXPathExpression();

    /// The elements found, in the order of the document; other nodes are left out.
    std::vector<XmlElement> EvaluateNodes(XmlElement start) const;

    /// The text of every node found, attributes included.
    std::vector<std::string> EvaluateTexts(XmlElement start) const;

    /// The value as XPath's functions string(), number() and boolean() make it of any result.
    std::string EvaluateText(XmlElement start) const;
    double EvaluateNumber(XmlElement start) const;
    bool EvaluateBoolean(XmlElement start) const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

}  // namespace zarip::xml
