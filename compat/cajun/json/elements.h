// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "visitor.h"

/// Elements of a JSON document. They are values, so copies are deep. *One thread at a time*, except that
/// several threads may read. Copying, comparing, writing and destroying recurse once for each level of
/// nesting.
namespace json {

namespace detail {
class DocumentBuilder;
}

/// The exception of all functions here, except if memory is short.
class Exception : public std::runtime_error {
public:
    explicit Exception(const std::string& message) : std::runtime_error(message) {}
};

/// A number, a string or a boolean. It converts implicitly from and to the plain type.
template <class T>
class TrivialType_T {
public:
    TrivialType_T(T value = T()) : _value(std::move(value)) {}

    operator T&() { return _value; }
    operator const T&() const { return _value; }

    T& Value() { return _value; }
    const T& Value() const { return _value; }

    bool operator==(const TrivialType_T& other) const { return _value == other._value; }

private:
    T _value;
};

class Null {
public:
    bool operator==(const Null& /*other*/) const { return true; }
};

class UnknownElement;

/// Elements in order. References stay valid when elements are added at the end, and iterators as long as the
/// array stays where it is; an empty array takes no memory of its own.
class Array {
    template <class Owner, class Element>
    class IndexIterator;

public:
    using iterator = IndexIterator<Array, UnknownElement>;
    using const_iterator = IndexIterator<const Array, const UnknownElement>;

    Array() noexcept;
    Array(const Array& other);
    Array(Array&& other) noexcept;
    /// `other` may be a part of this array.
    Array& operator=(Array other) noexcept;
    ~Array();

    iterator Begin();
    iterator End();
    const_iterator Begin() const;
    const_iterator End() const;
    iterator begin();
    iterator end();
    const_iterator begin() const;
    const_iterator end() const;

    /// Insert at the end or before `where`, and return the position of the element.
    iterator Insert(UnknownElement element);
    iterator Insert(UnknownElement element, iterator where);
    /// Returns the element after it.
    iterator Erase(iterator where);
    /// New elements are `Null`.
    void Resize(std::size_t size);
    void Clear();

    std::size_t Size() const { return _size; }
    bool Empty() const { return _size == 0; }

    /// Grows the array to hold the index.
    UnknownElement& operator[](std::size_t index);

    /// Throws "Array out of bounds".
    const UnknownElement& operator[](std::size_t index) const;

    bool operator==(const Array& other) const;

private:
    // Block k has room for 2^(k+1) elements, so none ever moves and an array of one is small. Elements after
    // the last one are `Null`.
    using Block = std::unique_ptr<UnknownElement[]>;

    static std::size_t BlockOf(std::size_t index);
    static std::size_t FirstOf(std::size_t block) { return (std::size_t{2} << block) - 2; }
    std::size_t CountBlocks() const {
        return _more != nullptr ? _more->size() + 1 : _first != nullptr ? 1 : 0;
    }
    void AddBlock();
    void RemoveBlock();
    UnknownElement& At(std::size_t index) const;
    void Cut(std::size_t size);

    Block _first;
    std::unique_ptr<std::vector<Block>> _more;  // the other blocks; null without any
    std::size_t _size = 0;
};

/// Named elements in order of insertion. Iterators and references stay valid until their member is erased. A
/// member is searched from the first one on. Objects are equal if they have equal members in the same order.
/// An empty object takes no memory of its own.
class Object {
public:
    struct Member;
    using iterator = std::list<Member>::iterator;
    using const_iterator = std::list<Member>::const_iterator;

    Object() noexcept;
    Object(const Object& other);
    Object(Object&& other) noexcept;
    /// `other` may be a part of this object.
    Object& operator=(Object other) noexcept;
    ~Object();

    iterator Begin() { return _members.begin(); }
    iterator End() { return _members.end(); }
    const_iterator Begin() const { return _members.begin(); }
    const_iterator End() const { return _members.end(); }
    iterator begin() { return Begin(); }
    iterator end() { return End(); }
    const_iterator begin() const { return Begin(); }
    const_iterator end() const { return End(); }

    std::size_t Size() const { return _members.size(); }
    bool Empty() const { return _members.empty(); }

    /// Returns `End()` if no member has that name.
    iterator Find(const std::string& name);
    const_iterator Find(const std::string& name) const;

    /// Insert at the end or before `where`, and return the position of the member. Throw "Object member
    /// already exists: " + name.
    iterator Insert(Member member);
    iterator Insert(Member member, iterator where);
    /// Returns the member after it.
    iterator Erase(iterator where);
    void Clear();

    /// Adds a `Null` member if no member has that name.
    UnknownElement& operator[](const std::string& name);

    /// Throws "Object member not found: " + name.
    const UnknownElement& operator[](const std::string& name) const;

    bool operator==(const Object& other) const;

private:
    friend class detail::DocumentBuilder;

    std::list<Member> _members;
};

/// Any of the six kinds of element. By default it is `Null`.
class UnknownElement {
public:
    UnknownElement() noexcept = default;
    UnknownElement(const Array& array) : _value(array) {}
    UnknownElement(Array&& array) : _value(std::move(array)) {}
    UnknownElement(const Object& object) : _value(object) {}
    UnknownElement(Object&& object) : _value(std::move(object)) {}
    UnknownElement(const Number& number) : _value(number) {}
    UnknownElement(const Boolean& boolean) : _value(boolean) {}
    UnknownElement(const String& string) : _value(string) {}
    UnknownElement(String&& string) : _value(std::move(string)) {}
    UnknownElement(const Null& null) : _value(null) {}

    UnknownElement(const UnknownElement& other);
    /// `other` is `Null` afterwards.
    UnknownElement(UnknownElement&& other) noexcept;
    /// `other` may be a part of this element.
    UnknownElement& operator=(UnknownElement other) noexcept;
    // Not inlined, because g++ would then warn of an uninitialized string that does not exist.
    [[gnu::noinline]] ~UnknownElement() {}

    /// Throw "Bad cast" if the element is of another kind.
    operator const Array&() const { return Cast<Array>(); }
    operator const Object&() const { return Cast<Object>(); }
    operator const Number&() const { return Cast<Number>(); }
    operator const Boolean&() const { return Cast<Boolean>(); }
    operator const String&() const { return Cast<String>(); }
    operator const Null&() const { return Cast<Null>(); }

    /// If the element is of another kind, an empty one of this kind replaces it.
    operator Array&() { return Become<Array>(); }
    operator Object&() { return Become<Object>(); }
    operator Number&() { return Become<Number>(); }
    operator Boolean&() { return Become<Boolean>(); }
    operator String&() { return Become<String>(); }
    operator Null&() { return Become<Null>(); }

    /// The conversion to `Object` or `Array`, then its index.
    UnknownElement& operator[](const std::string& name);
    const UnknownElement& operator[](const std::string& name) const;
    UnknownElement& operator[](std::size_t index);
    const UnknownElement& operator[](std::size_t index) const;

    /// Call the `Visit` for the kind of the element.
    void Accept(Visitor& visitor);
    void Accept(ConstVisitor& visitor) const;

    /// The same kind with the same value.
    bool operator==(const UnknownElement& other) const { return _value == other._value; }

private:
    template <class T>
    const T& Cast() const;
    template <class T>
    T& Become();
    std::variant<Null, Boolean, Number, String, Array, Object> _value;
};

struct Object::Member {
    Member(std::string memberName = std::string(), UnknownElement memberElement = UnknownElement())
        : name(std::move(memberName)), element(std::move(memberElement)) {}

    bool operator==(const Member& other) const { return name == other.name && element == other.element; }

    std::string name;
    UnknownElement element;
};

/// An array and an index.
template <class Owner, class Element>
class Array::IndexIterator {
public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = UnknownElement;
    using difference_type = std::ptrdiff_t;
    using pointer = Element*;
    using reference = Element&;

    IndexIterator() = default;
    /// Every iterator converts to a constant one.
    operator const_iterator() const { return const_iterator(_owner, _index); }

    reference operator*() const { return _owner->At(_index); }
    pointer operator->() const { return &**this; }
    reference operator[](difference_type distance) const { return *(*this + distance); }

    IndexIterator& operator++() { return *this += 1; }
    IndexIterator& operator--() { return *this -= 1; }
    IndexIterator operator++(int) { return std::exchange(*this, *this + 1); }
    IndexIterator operator--(int) { return std::exchange(*this, *this - 1); }
    IndexIterator& operator+=(difference_type distance) {
        _index += static_cast<std::size_t>(distance);
        return *this;
    }
    IndexIterator& operator-=(difference_type distance) { return *this += -distance; }
    friend IndexIterator operator+(IndexIterator at, difference_type distance) { return at += distance; }
    friend IndexIterator operator+(difference_type distance, IndexIterator at) { return at += distance; }
    friend IndexIterator operator-(IndexIterator at, difference_type distance) { return at -= distance; }
    friend difference_type operator-(IndexIterator a, IndexIterator b) {
        return static_cast<difference_type>(a._index - b._index);
    }

    friend bool operator==(IndexIterator a, IndexIterator b) { return a._index == b._index; }
    friend bool operator!=(IndexIterator a, IndexIterator b) { return a._index != b._index; }
    friend bool operator<(IndexIterator a, IndexIterator b) { return a._index < b._index; }
    friend bool operator>(IndexIterator a, IndexIterator b) { return a._index > b._index; }
    friend bool operator<=(IndexIterator a, IndexIterator b) { return a._index <= b._index; }
    friend bool operator>=(IndexIterator a, IndexIterator b) { return a._index >= b._index; }

private:
    friend class Array;
    template <class OtherOwner, class OtherElement>
    friend class IndexIterator;

    IndexIterator(Owner* owner, std::size_t index) : _owner(owner), _index(index) {}

    Owner* _owner = nullptr;
    std::size_t _index = 0;
};

// ---------------------------------------------------------------------------------------------------------

inline Array::Array() noexcept = default;

inline Array::Array(const Array& other) {
    for (const UnknownElement& element : other) {
        Insert(element);
    }
}

inline Array::Array(Array&& other) noexcept
    : _first(std::move(other._first)), _more(std::move(other._more)), _size(std::exchange(other._size, 0)) {}

inline Array& Array::operator=(Array other) noexcept {
    _first.swap(other._first);
    _more.swap(other._more);
    std::swap(_size, other._size);
    return *this;
}

inline Array::~Array() = default;

inline Array::iterator Array::Begin() {
    return iterator(this, 0);
}
inline Array::iterator Array::End() {
    return iterator(this, _size);
}
inline Array::const_iterator Array::Begin() const {
    return const_iterator(this, 0);
}
inline Array::const_iterator Array::End() const {
    return const_iterator(this, _size);
}
inline Array::iterator Array::begin() {
    return Begin();
}
inline Array::iterator Array::end() {
    return End();
}
inline Array::const_iterator Array::begin() const {
    return Begin();
}
inline Array::const_iterator Array::end() const {
    return End();
}

inline std::size_t Array::BlockOf(std::size_t index) {
    return 63U - static_cast<std::size_t>(__builtin_clzll(index / 2 + 1));
}

inline UnknownElement& Array::At(std::size_t index) const {
    if (index < 2) {
        return _first[index];
    }
    const std::size_t block = BlockOf(index);
    return (*_more)[block - 1][index - FirstOf(block)];
}

inline void Array::AddBlock() {
    const std::size_t count = CountBlocks();
    if (count == 0) {
        _first.reset(new UnknownElement[2]);
        return;
    }
    Block block(new UnknownElement[std::size_t{2} << count]);
    if (_more == nullptr) {
        auto more = std::make_unique<std::vector<Block>>();
        more->push_back(std::move(block));
        _more = std::move(more);
    } else {
        _more->push_back(std::move(block));
    }
}

inline void Array::RemoveBlock() {
    if (_more == nullptr) {
        _first.reset();
    } else if (_more->size() > 1) {
        _more->pop_back();
    } else {
        _more.reset();
    }
}

inline Array::iterator Array::Insert(UnknownElement element) {
    Resize(_size + 1);
    At(_size - 1) = std::move(element);
    return iterator(this, _size - 1);
}

inline Array::iterator Array::Insert(UnknownElement element, iterator where) {
    Resize(_size + 1);
    std::move_backward(where, End() - 1, End());
    *where = std::move(element);
    return where;
}

inline Array::iterator Array::Erase(iterator where) {
    std::move(where + 1, End(), where);
    Cut(_size - 1);
    return where;
}

inline void Array::Resize(std::size_t size) {
    if (size < _size) {
        Cut(size);
    }
    while (size > FirstOf(CountBlocks())) {
        AddBlock();
    }
    _size = size;
}

inline void Array::Cut(std::size_t size) {
    for (; _size > size; --_size) {
        At(_size - 1) = UnknownElement();
    }
    for (std::size_t blocks = CountBlocks(); blocks != 0 && FirstOf(blocks - 1) >= size; --blocks) {
        RemoveBlock();
    }
}

inline void Array::Clear() {
    *this = Array();
}

inline UnknownElement& Array::operator[](std::size_t index) {
    if (index >= _size) {
        if (index > std::numeric_limits<std::size_t>::max() / 4 / sizeof(UnknownElement)) {
            throw Exception("Array out of bounds");
        }
        Resize(index + 1);
    }
    return At(index);
}

inline const UnknownElement& Array::operator[](std::size_t index) const {
    if (index >= _size) {
        throw Exception("Array out of bounds");
    }
    return At(index);
}

inline bool Array::operator==(const Array& other) const {
    return _size == other._size && std::equal(Begin(), End(), other.Begin());
}

inline Object::Object() noexcept = default;
inline Object::Object(const Object& other) = default;
inline Object::Object(Object&& other) noexcept = default;
inline Object& Object::operator=(Object other) noexcept {
    _members.swap(other._members);
    return *this;
}
inline Object::~Object() = default;

inline Object::iterator Object::Find(const std::string& name) {
    return std::find_if(Begin(), End(), [&name](const Member& member) { return member.name == name; });
}

inline Object::const_iterator Object::Find(const std::string& name) const {
    return std::find_if(Begin(), End(), [&name](const Member& member) { return member.name == name; });
}

inline Object::iterator Object::Insert(Member member) {
    return Insert(std::move(member), End());
}

inline Object::iterator Object::Insert(Member member, iterator where) {
    if (Find(member.name) != End()) {
        throw Exception("Object member already exists: " + member.name);
    }
    return _members.insert(where, std::move(member));
}

inline Object::iterator Object::Erase(iterator where) {
    return _members.erase(where);
}

inline void Object::Clear() {
    _members.clear();
}

inline UnknownElement& Object::operator[](const std::string& name) {
    iterator member = Find(name);
    if (member == End()) {
        member = _members.emplace(End(), name);
    }
    return member->element;
}

inline const UnknownElement& Object::operator[](const std::string& name) const {
    const const_iterator member = Find(name);
    if (member == End()) {
        throw Exception("Object member not found: " + name);
    }
    return member->element;
}

inline bool Object::operator==(const Object& other) const {
    return _members == other._members;
}

inline UnknownElement::UnknownElement(const UnknownElement& other) = default;

inline UnknownElement::UnknownElement(UnknownElement&& other) noexcept : _value(std::move(other._value)) {
    other._value.emplace<Null>();
}

inline UnknownElement& UnknownElement::operator=(UnknownElement other) noexcept {
    _value = std::move(other._value);
    return *this;
}

template <class T>
const T& UnknownElement::Cast() const {
    const T* const held = std::get_if<T>(&_value);
    if (held == nullptr) {
        throw Exception("Bad cast");
    }
    return *held;
}

template <class T>
T& UnknownElement::Become() {
    T* const held = std::get_if<T>(&_value);
    return held != nullptr ? *held : _value.emplace<T>();
}

inline UnknownElement& UnknownElement::operator[](const std::string& name) {
    return Become<Object>()[name];
}

inline const UnknownElement& UnknownElement::operator[](const std::string& name) const {
    return Cast<Object>()[name];
}

inline UnknownElement& UnknownElement::operator[](std::size_t index) {
    return Become<Array>()[index];
}

inline const UnknownElement& UnknownElement::operator[](std::size_t index) const {
    return Cast<Array>()[index];
}

inline void UnknownElement::Accept(Visitor& visitor) {
    std::visit([&visitor](auto& held) { visitor.Visit(held); }, _value);
}

inline void UnknownElement::Accept(ConstVisitor& visitor) const {
    std::visit([&visitor](const auto& held) { visitor.Visit(held); }, _value);
}

}  // namespace json
