// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace json {

class Array;
class Object;
class Null;
template <class T>
class TrivialType_T;
using Number = TrivialType_T<double>;
using Boolean = TrivialType_T<bool>;
using String = TrivialType_T<std::string>;

/// Receives the element that an `UnknownElement` contains (see `UnknownElement::Accept`), and may change it.
class Visitor {
public:
    virtual ~Visitor() = default;
    virtual void Visit(Array& array) = 0;
    virtual void Visit(Object& object) = 0;
    virtual void Visit(Number& number) = 0;
    virtual void Visit(String& string) = 0;
    virtual void Visit(Boolean& boolean) = 0;
    virtual void Visit(Null& null) = 0;
};

class ConstVisitor {
public:
    virtual ~ConstVisitor() = default;
    virtual void Visit(const Array& array) = 0;
    virtual void Visit(const Object& object) = 0;
    virtual void Visit(const Number& number) = 0;
    virtual void Visit(const String& string) = 0;
    virtual void Visit(const Boolean& boolean) = 0;
    virtual void Visit(const Null& null) = 0;
};

}  // namespace json
