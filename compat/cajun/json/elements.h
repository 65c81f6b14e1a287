#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <list>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "visitor.h"

/// Elements of a JSON document. They are values: copies are deep. *One thread at a time*, though several may
/// read. Copying, comparing, writing and destroying recurse, once for each level of nesting.
namespace json {

/// Everything that this library throws, out of memory excepted.
class Exception : public std::runtime_error {
public:
    explicit Exception(const std::string& message) : std::runtime_error(message) {}
};

/// A number, a string or a boolean: converts implicitly from and to the plain type.
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

/// Any of the six kinds of element; `Null` when built from none.
class UnknownElement {
public:
    UnknownElement() noexcept = default;
    UnknownElement(const Array& array);
    UnknownElement(Array&& array);
    UnknownElement(const Object& object);
    UnknownElement(Object&& object);
    UnknownElement(const Number& number) : _value(number) {}
    UnknownElement(const Boolean& boolean) : _value(boolean) {}
    UnknownElement(const String& string) : _value(string) {}
    UnknownElement(String&& string) : _value(std::move(string)) {}
    UnknownElement(const Null& null) : _value(null) {}

    UnknownElement(const UnknownElement& other);
    /// Leaves `Null` behind.
    UnknownElement(UnknownElement&& other) noexcept;
    /// `other` may have been a part of this element.
    UnknownElement& operator=(UnknownElement other) noexcept;
    ~UnknownElement();

    /// Throw "Bad cast" when another kind of element is held.
    operator const Array&() const { return Cast<Array>(); }
    operator const Object&() const { return Cast<Object>(); }
    operator const Number&() const { return Cast<Number>(); }
    operator const Boolean&() const { return Cast<Boolean>(); }
    operator const String&() const { return Cast<String>(); }
    operator const Null&() const { return Cast<Null>(); }

    /// When another kind of element is held, an empty one of this kind takes its place.
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

    /// Call the one `Visit` that fits the element held.
    void Accept(Visitor& visitor);
    void Accept(ConstVisitor& visitor) const;

    /// The same kind with the same value.
    bool operator==(const UnknownElement& other) const;

private:
    // Arrays and objects hold elements themselves, so an element can hold them by pointer only. Null after a
    // move.
    template <class T>
    class Box {
    public:
        Box() : _held(new T) {}
        explicit Box(const T& held) : _held(new T(held)) {}
        explicit Box(T&& held) : _held(new T(std::move(held))) {}
        Box(const Box& other) : _held(new T(*other._held)) {}
        Box(Box&& other) noexcept : _held(std::exchange(other._held, nullptr)) {}
        Box& operator=(Box other) noexcept {
            std::swap(_held, other._held);
            return *this;
        }
        ~Box() { delete _held; }

        T& Get() { return *_held; }
        const T& Get() const { return *_held; }
        bool operator==(const Box& other) const { return *_held == *other._held; }

    private:
        T* _held;
    };

    template <class T>
    using Stored = std::conditional_t<std::is_same_v<T, Array> || std::is_same_v<T, Object>, Box<T>, T>;

    template <class T>
    const T& Cast() const;
    template <class T>
    T& Become();
    template <class Held, class VisitorType>
    static void Dispatch(Held& held, VisitorType& visitor);

    std::variant<Null, Boolean, Number, String, Box<Array>, Box<Object>> _value;
};

/// Elements in order. Iterators and references are those of a `std::deque`: inserting at the end keeps
/// references.
class Array {
public:
    using iterator = std::deque<UnknownElement>::iterator;
    using const_iterator = std::deque<UnknownElement>::const_iterator;

    iterator Begin() { return _elements.begin(); }
    iterator End() { return _elements.end(); }
    const_iterator Begin() const { return _elements.begin(); }
    const_iterator End() const { return _elements.end(); }
    iterator begin() { return Begin(); }
    iterator end() { return End(); }
    const_iterator begin() const { return Begin(); }
    const_iterator end() const { return End(); }

    /// At the end, or in front of `where`; return where the element stands.
    iterator Insert(UnknownElement element) { return Insert(std::move(element), End()); }
    iterator Insert(UnknownElement element, iterator where) {
        return _elements.insert(where, std::move(element));
    }
    /// Returns the element after it.
    iterator Erase(iterator where) { return _elements.erase(where); }
    /// New elements are `Null`.
    void Resize(std::size_t size) { _elements.resize(size); }
    void Clear() { _elements.clear(); }

    std::size_t Size() const { return _elements.size(); }
    bool Empty() const { return _elements.empty(); }

    /// Grows the array to hold the index.
    UnknownElement& operator[](std::size_t index) {
        if (index >= Size()) {
            RequireBelow(_elements.max_size(), index);
            Resize(index + 1);
        }
        return _elements[index];
    }

    /// Throws "Array out of bounds".
    const UnknownElement& operator[](std::size_t index) const {
        RequireBelow(Size(), index);
        return _elements[index];
    }

    bool operator==(const Array& other) const { return _elements == other._elements; }

private:
    static void RequireBelow(std::size_t limit, std::size_t index) {
        if (index >= limit) {
            throw Exception("Array out of bounds");
        }
    }

    std::deque<UnknownElement> _elements;
};

/// Named elements in order of insertion. Iterators and references stay valid until their member is erased. A
/// member is found by looking at one after the other. Objects are equal when they have equal members in the
/// same order.
class Object {
public:
    struct Member {
        Member(std::string memberName = std::string(), UnknownElement memberElement = UnknownElement())
            : name(std::move(memberName)), element(std::move(memberElement)) {}

        bool operator==(const Member& other) const { return name == other.name && element == other.element; }

        std::string name;
        UnknownElement element;
    };
    using iterator = std::list<Member>::iterator;
    using const_iterator = std::list<Member>::const_iterator;

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

    /// `End()` when there is none of that name.
    iterator Find(const std::string& name) { return std::find_if(Begin(), End(), HasName{name}); }
    const_iterator Find(const std::string& name) const { return std::find_if(Begin(), End(), HasName{name}); }

    /// At the end, or in front of `where`; return where the member stands. Throw "Object member already
    /// exists: " + name.
    iterator Insert(Member member) { return Insert(std::move(member), End()); }
    iterator Insert(Member member, iterator where) {
        if (Find(member.name) != End()) {
            throw Exception("Object member already exists: " + member.name);
        }
        return _members.insert(where, std::move(member));
    }
    /// Returns the member after it.
    iterator Erase(iterator where) { return _members.erase(where); }
    void Clear() { _members.clear(); }

    /// Adds a `Null` member when there is none of that name.
    UnknownElement& operator[](const std::string& name) {
        iterator member = Find(name);
        if (member == End()) {
            member = _members.emplace(End(), name);
        }
        return member->element;
    }

    /// Throws "Object member not found: " + name.
    const UnknownElement& operator[](const std::string& name) const {
        const_iterator member = Find(name);
        if (member == End()) {
            throw Exception("Object member not found: " + name);
        }
        return member->element;
    }

    bool operator==(const Object& other) const { return _members == other._members; }

private:
    friend class Reader;

    struct HasName {
        const std::string& name;
        bool operator()(const Member& member) const { return member.name == name; }
    };

    std::list<Member> _members;
};

// ---------------------------------------------------------------------------------------------------------

inline UnknownElement::UnknownElement(const Array& array) : _value(std::in_place_type<Box<Array>>, array) {}

inline UnknownElement::UnknownElement(Array&& array)
    : _value(std::in_place_type<Box<Array>>, std::move(array)) {}

inline UnknownElement::UnknownElement(const Object& object)
    : _value(std::in_place_type<Box<Object>>, object) {}

inline UnknownElement::UnknownElement(Object&& object)
    : _value(std::in_place_type<Box<Object>>, std::move(object)) {}

inline UnknownElement::UnknownElement(const UnknownElement& other) = default;

inline UnknownElement::UnknownElement(UnknownElement&& other) noexcept : _value(std::move(other._value)) {
    other._value.emplace<Null>();
}

inline UnknownElement& UnknownElement::operator=(UnknownElement other) noexcept {
    _value = std::move(other._value);
    return *this;
}

inline UnknownElement::~UnknownElement() = default;

template <class T>
const T& UnknownElement::Cast() const {
    const Stored<T>* held = std::get_if<Stored<T>>(&_value);
    if (held == nullptr) {
        throw Exception("Bad cast");
    }
    if constexpr (std::is_same_v<Stored<T>, T>) {
        return *held;
    } else {
        return held->Get();
    }
}

template <class T>
T& UnknownElement::Become() {
    if (!std::holds_alternative<Stored<T>>(_value)) {
        Stored<T> empty;
        _value = std::move(empty);
    }
    return const_cast<T&>(Cast<T>());
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

template <class Held, class VisitorType>
void UnknownElement::Dispatch(Held& held, VisitorType& visitor) {
    std::visit(
        [&visitor](auto& value) {
            using Kind = std::remove_const_t<std::remove_reference_t<decltype(value)>>;
            if constexpr (std::is_same_v<Kind, Box<Array>> || std::is_same_v<Kind, Box<Object>>) {
                visitor.Visit(value.Get());
            } else {
                visitor.Visit(value);
            }
        },
        held);
}

inline void UnknownElement::Accept(Visitor& visitor) {
    Dispatch(_value, visitor);
}

inline void UnknownElement::Accept(ConstVisitor& visitor) const {
    Dispatch(_value, visitor);
}

inline bool UnknownElement::operator==(const UnknownElement& other) const {
    return _value == other._value;
}

}  // namespace json
