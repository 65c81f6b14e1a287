// SPDX-License-Identifier: MIT

#pragma once

#include <type_traits>
#include <utility>

namespace zarip::core {

/// A delegate is an object that can be called. An `IDelegate0<R>` takes no argument and returns an R. An
/// `IDelegate1<R, A>` also takes an A. An `IVoidDelegate0` and an `IVoidDelegate1<A>` return nothing. A
/// delegate is as thread-safe as the function that it calls.
template <class R>
class IDelegate0 {
public:
    virtual ~IDelegate0() = default;
    virtual R Call() = 0;

    /// Returns whether the delegate is bound to this object. Events use this to remove delegates.
    virtual bool Matches(const void* /*object*/) const { return false; }
};

template <class R, class A>
class IDelegate1 {
public:
    virtual ~IDelegate1() = default;
    virtual R Call(const A& argument) = 0;
    virtual bool Matches(const void* /*object*/) const { return false; }
};

class IVoidDelegate0 {
public:
    virtual ~IVoidDelegate0() = default;
    virtual void Call() = 0;
    virtual bool Matches(const void* /*object*/) const { return false; }
};

template <class A>
class IVoidDelegate1 {
public:
    virtual ~IVoidDelegate1() = default;
    virtual void Call(const A& argument) = 0;
    virtual bool Matches(const void* /*object*/) const { return false; }
};

/// These delegates call a member function of an object, which is *not owned* and must outlive the delegate.
/// `MakeDelegate` deduces the types.
template <class R, class T, class Method>
class ObjectMethodDelegate0 final : public IDelegate0<R> {
public:
    ObjectMethodDelegate0(T* object, Method method) : _object(object), _method(method) {}
    R Call() override { return (_object->*_method)(); }
    bool Matches(const void* object) const override { return object == _object; }

private:
    T* _object;
    Method _method;
};

template <class R, class A, class T, class Method>
class ObjectMethodDelegate1 final : public IDelegate1<R, A> {
public:
    ObjectMethodDelegate1(T* object, Method method) : _object(object), _method(method) {}
    R Call(const A& argument) override { return (_object->*_method)(argument); }
    bool Matches(const void* object) const override { return object == _object; }

private:
    T* _object;
    Method _method;
};

template <class T, class Method>
class VoidObjectMethodDelegate0 final : public IVoidDelegate0 {
public:
    VoidObjectMethodDelegate0(T* object, Method method) : _object(object), _method(method) {}
    void Call() override { (_object->*_method)(); }
    bool Matches(const void* object) const override { return object == _object; }

private:
    T* _object;
    Method _method;
};

template <class A, class T, class Method>
class VoidObjectMethodDelegate1 final : public IVoidDelegate1<A> {
public:
    VoidObjectMethodDelegate1(T* object, Method method) : _object(object), _method(method) {}
    void Call(const A& argument) override { (_object->*_method)(argument); }
    bool Matches(const void* object) const override { return object == _object; }

private:
    T* _object;
    Method _method;
};

/// These delegates own a callable, such as a lambda with its captures. `MakeDelegate` deduces the types.
template <class R, class Callable>
class CallableDelegate0 final : public IDelegate0<R> {
public:
    explicit CallableDelegate0(Callable callable) : _callable(std::move(callable)) {}
    R Call() override { return _callable(); }

private:
    Callable _callable;
};

template <class R, class A, class Callable>
class CallableDelegate1 final : public IDelegate1<R, A> {
public:
    explicit CallableDelegate1(Callable callable) : _callable(std::move(callable)) {}
    R Call(const A& argument) override { return _callable(argument); }

private:
    Callable _callable;
};

template <class Callable>
class VoidCallableDelegate0 final : public IVoidDelegate0 {
public:
    explicit VoidCallableDelegate0(Callable callable) : _callable(std::move(callable)) {}
    void Call() override { _callable(); }

private:
    Callable _callable;
};

template <class A, class Callable>
class VoidCallableDelegate1 final : public IVoidDelegate1<A> {
public:
    explicit VoidCallableDelegate1(Callable callable) : _callable(std::move(callable)) {}
    void Call(const A& argument) override { _callable(argument); }

private:
    Callable _callable;
};

namespace internal {

// The parameter of a function, a method or a callable object; never defined, only asked for their type.
template <class R, class A>
A ParameterOf(R (*function)(A));
template <class C, class R, class A>
A ParameterOf(R (C::*method)(A));
template <class C, class R, class A>
A ParameterOf(R (C::*method)(A) const);
template <class Callable>
auto ParameterOf(const Callable&) -> decltype(ParameterOf(&Callable::operator()));

template <class A>
constexpr void RequireConstArgument() {
    static_assert(!std::is_reference_v<A> || std::is_const_v<std::remove_reference_t<A>>,
                  "a delegate hands its argument on by value or const reference");
}

template <class R, class T, class Method>
auto* NewDelegate0(T* object, Method method) {
    if constexpr (std::is_void_v<R>) {
        return new VoidObjectMethodDelegate0<T, Method>(object, method);
    } else {
        return new ObjectMethodDelegate0<std::decay_t<R>, T, Method>(object, method);
    }
}

template <class R, class A, class T, class Method>
auto* NewDelegate1(T* object, Method method) {
    RequireConstArgument<A>();
    if constexpr (std::is_void_v<R>) {
        return new VoidObjectMethodDelegate1<std::decay_t<A>, T, Method>(object, method);
    } else {
        return new ObjectMethodDelegate1<std::decay_t<R>, std::decay_t<A>, T, Method>(object, method);
    }
}

}  // namespace internal

/// Makes a delegate on the heap (*caller owns*) that calls a member function, for example
/// `MakeDelegate(this, &Camera::OnUsersChanged)`. The function may be const. It takes nothing, an A or a
/// const A&.
template <class T, class C, class R>
auto* MakeDelegate(T* object, R (C::*method)()) {
    return internal::NewDelegate0<R>(object, method);
}

template <class T, class C, class R>
auto* MakeDelegate(T* object, R (C::*method)() const) {
    return internal::NewDelegate0<R>(object, method);
}

template <class T, class C, class R, class A>
auto* MakeDelegate(T* object, R (C::*method)(A)) {
    return internal::NewDelegate1<R, A>(object, method);
}

template <class T, class C, class R, class A>
auto* MakeDelegate(T* object, R (C::*method)(A) const) {
    return internal::NewDelegate1<R, A>(object, method);
}

/// Makes a delegate on the heap (*caller owns*) that owns a callable, for example
/// `MakeDelegate([file = std::move(file)] { ... })`. The callable takes nothing or one argument, whose type
/// must not be `auto`. Its result is returned by value. Such a delegate is not bound to an object, so
/// `Matches` is always false.
template <class Callable>
auto* MakeDelegate(Callable callable) {
    if constexpr (std::is_invocable_v<Callable&>) {
        using R = std::decay_t<std::invoke_result_t<Callable&>>;
        if constexpr (std::is_void_v<R>) {
            return new VoidCallableDelegate0<Callable>(std::move(callable));
        } else {
            return new CallableDelegate0<R, Callable>(std::move(callable));
        }
    } else {
        using Parameter = decltype(internal::ParameterOf(std::declval<const Callable&>()));
        internal::RequireConstArgument<Parameter>();
        using A = std::decay_t<Parameter>;
        using R = std::decay_t<std::invoke_result_t<Callable&, const A&>>;
        if constexpr (std::is_void_v<R>) {
            return new VoidCallableDelegate1<A, Callable>(std::move(callable));
        } else {
            return new CallableDelegate1<R, A, Callable>(std::move(callable));
        }
    }
}

}  // namespace zarip::core
