// SPDX-License-Identifier: MIT

#include "zarip/xml/XmlXPathExpression.h"

#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include "xml/XmlText.h"
#include "zarip/xml/XmlException.h"

namespace zarip::xml {

namespace {

struct ContextDelete {
    void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
};

struct ExpressionDelete {
    void operator()(xmlXPathCompExpr* expression) const { xmlXPathFreeCompExpr(expression); }
};

struct ObjectDelete {
    void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
};

/// The limit of an evaluation, in visited nodes. A condition that searches the whole document for each of its
/// elements would take very long.
constexpr unsigned long kMaxOperations = 20'000'000;

using Object = std::unique_ptr<xmlXPathObject, ObjectDelete>;

[[noreturn]] void Throw(const std::string& text) {
    throw XmlException("XPath: " + text);
}

}  // namespace

struct ZARIP_HIDDEN XmlXPathExpression::Impl {
    Object Evaluate(xmlNode* start) const {
        const ErrorScope errors;
        context->doc = start->doc;
        context->node = start;
        context->opCount = 0;
        Object object(xmlXPathCompiledEval(expression.get(), context.get()));
        context->doc = nullptr;
        context->node = nullptr;
        if (!object) {
            Throw(errors.GetText().empty() ? "evaluation failed" : errors.GetText());
        }
        return object;
    }

    static const xmlNodeSet* GetNodes(const Object& object) {
        if (object->type != XPATH_NODESET) {
            Throw("the result is no set of nodes");
        }
        return object->nodesetval;
    }

    std::unique_ptr<xmlXPathContext, ContextDelete> context;
    std::unique_ptr<xmlXPathCompExpr, ExpressionDelete> expression;
};

XmlXPathExpression::XmlXPathExpression(const std::string& expression,
                                       const std::map<std::string, std::string>& namespaces)
    : _impl(std::make_unique<Impl>()) {
    InitializeXml();
    _impl->context.reset(RequireMade(xmlXPathNewContext(nullptr)));
    _impl->context->opLimit = kMaxOperations;
    for (const auto& [prefix, uri] : namespaces) {
        CheckName(prefix, false);
        if (xmlXPathRegisterNs(_impl->context.get(), ToXml(prefix), ToXml(uri)) != 0) {
            throw std::bad_alloc();
        }
    }
    if (expression.find('\0') != std::string::npos) {
        Throw("Invalid expression");
    }
    const ErrorScope errors;
    _impl->expression.reset(xmlXPathCtxtCompile(_impl->context.get(), ToXml(expression)));
    if (!_impl->expression) {
        Throw((errors.GetText().empty() ? "Invalid expression" : errors.GetText()) + " '" + expression + "'");
    }
}

XmlXPathExpression::~XmlXPathExpression() = default;

std::vector<XmlElement> XmlXPathExpression::EvaluateNodes(XmlElement start) const {
    const Object object = _impl->Evaluate(start.Node());
    const xmlNodeSet* const found = Impl::GetNodes(object);
    std::vector<XmlElement> elements;
    for (int i = 0; found != nullptr && i < found->nodeNr; ++i) {
        if (found->nodeTab[i]->type == XML_ELEMENT_NODE) {
            elements.push_back(XmlElement(found->nodeTab[i]));
        }
    }
    return elements;
}

std::vector<std::string> XmlXPathExpression::EvaluateTexts(XmlElement start) const {
    const Object object = _impl->Evaluate(start.Node());
    const xmlNodeSet* const found = Impl::GetNodes(object);
    std::vector<std::string> texts;
    for (int i = 0; found != nullptr && i < found->nodeNr; ++i) {
        texts.push_back(TakeString(xmlXPathCastNodeToString(found->nodeTab[i])));
    }
    return texts;
}

std::string XmlXPathExpression::EvaluateText(XmlElement start) const {
    return TakeString(xmlXPathCastToString(_impl->Evaluate(start.Node()).get()));
}

double XmlXPathExpression::EvaluateNumber(XmlElement start) const {
    return xmlXPathCastToNumber(_impl->Evaluate(start.Node()).get());
}

bool XmlXPathExpression::EvaluateBoolean(XmlElement start) const {
    return xmlXPathCastToBoolean(_impl->Evaluate(start.Node()).get()) != 0;
}

}  // namespace zarip::xml
