// SPDX-License-Identifier: MIT

#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <zarip/core/Delegate.h>
#include <zarip/core/Event.h>
#include <zarip/interfaces/Record.h>
#include <zarip/interfaces/ServerBase.h>
#include <zarip/interfaces/ServiceDescription.h>
#include <zarip/msgbus/IMsgBus.h>
#include <zarip/msgbus/MessageHandler.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusSignal.h>
#include <zarip/osa/Exception.h>

namespace zarip::interfaces {

namespace internal {

/// Calls a member with the fields of a record.
template <class R, class Parms, class Provider, class Method>
class RecordDelegate final : public core::IDelegate1<R, Parms> {
public:
    RecordDelegate(Provider* provider, Method method) : _provider(provider), _method(method) {}
    R Call(const Parms& parms) override {
        return std::apply([this](const auto&... field) { return (_provider->*_method)(field...); },
                          static_cast<const typename Parms::Tuple&>(parms));
    }

private:
    Provider* _provider;
    Method _method;
};

template <class Parms, class Provider, class Method>
class RecordDelegate<void, Parms, Provider, Method> final : public core::IVoidDelegate1<Parms> {
public:
    RecordDelegate(Provider* provider, Method method) : _provider(provider), _method(method) {}
    void Call(const Parms& parms) override {
        std::apply([this](const auto&... field) { (_provider->*_method)(field...); },
                   static_cast<const typename Parms::Tuple&>(parms));
    }

private:
    Provider* _provider;
    Method _method;
};

template <class T, class = void>
struct CanAppend : std::false_type {};

template <class T>
struct CanAppend<T, std::void_t<decltype(std::declval<msgbus::MsgBusMsg&>() << std::declval<const T&>())>>
    : std::true_type {};

/// Returns the bus's type codes of an argument or result, or "?" for a type that can only be read.
template <class T>
std::string GetSignature() {
    if constexpr (CanAppend<T>::value) {
        msgbus::MsgBusMsg message(msgbus::MsgBusMsg::kMethodCall);
        message << T{};
        return message.GetSignature();
    } else {
        return "?";
    }
}

}  // namespace internal

/// A server adapter. It owns the name of a service on the bus, answers calls with an implementation, sends
/// the implementation's events as signals, and describes the service on the bus.
///
/// A service derives a final class from it, whose constructor calls `Forward` once for each signal and
/// `Serve` or `Add` once for each member, in the order of the interface. `CheckDescription` compares this
/// table with the description of the service.
///
/// It is made and destroyed by *one thread at a time*. The implementation is *called on MsgBusListenThread*,
/// one call at a time, and may fire its events on any thread. An exception becomes the error reply of a call
/// that expects a reply. Make all servers before `IMsgBus::StartServer` is called.
///
/// The destructor detaches from the events, drops the implementation, ends the handlers, and releases the
/// name, in this order. Afterwards the implementation is not called and its events are not sent. If a final
/// class passes delegates of its own members to `Add`, its destructor must call `Close` first, because they
/// may run until then.
template <class Provider>
class ServiceServer : public internal::ServerBase {
protected:
    /// Acquires the name. Throws what `IMsgBus::RegisterDestinationName` throws.
    /// @param bus  *not owned*, must outlive the server.
    /// @param implementation  *not owned*, must outlive the server.
    ServiceServer(msgbus::IMsgBus* bus, const ServiceDescription& service, Provider* implementation)
        : ServerBase(bus, service), _implementation(implementation) {}

    ~ServiceServer() override { Close(); }

    /// Detaches from the events, drops the implementation and ends the handlers. Afterwards no handler runs.
    /// It may be called any number of times.
    void Close() {
        DetachFromEvents();
        _implementation = nullptr;
        EndHandlers();
    }

    /// Serves a member of the implementation, which may have any number of arguments. A member that returns
    /// nothing is one-way: no reply is sent.
    template <class Method>
    void Serve(const char* member, Method method) {
        ServeMethod(member, method);
    }

    /// Serves a member in the same way and checks at compile time that `Parms` is the record of its
    /// arguments.
    template <class Parms, class R, class... A>
    void Serve(const char* member, R (Provider::*method)(A...)) {
        ServeRecord<Parms, R, A...>(member, method);
    }

    template <class Parms, class R, class... A>
    void Serve(const char* member, R (Provider::*method)(A...) const) {
        ServeRecord<Parms, R, A...>(member, method);
    }

    /// Serves a member with a delegate, usually to the adapter itself. The delegate has at most one argument,
    /// which may be a record. *Takes ownership* of the delegate.
    template <class R>
    void Add(const char* member, core::IDelegate0<R>* delegate) {
        AddMember({member, false, &internal::GetSignature<Record<>>, &internal::GetSignature<R>},
                  new msgbus::MessageHandler0<R>(delegate));
    }

    template <class R, class A>
    void Add(const char* member, core::IDelegate1<R, A>* delegate) {
        AddMember({member, false, &internal::GetSignature<A>, &internal::GetSignature<R>},
                  new msgbus::MessageHandler1<R, A>(delegate));
    }

    void Add(const char* member, core::IVoidDelegate0* delegate) {
        AddMember({member, false, &internal::GetSignature<Record<>>, nullptr},
                  new msgbus::VoidMessageHandler0(delegate, msgbus::IMessageHandler::kMethodCalls));
    }

    template <class A>
    void Add(const char* member, core::IVoidDelegate1<A>* delegate) {
        AddMember({member, false, &internal::GetSignature<A>, nullptr},
                  new msgbus::VoidMessageHandler1<A>(delegate, msgbus::IMessageHandler::kMethodCalls));
    }

    /// Sends an event of the implementation as a signal.
    template <class Class, class A>
    void Forward(const char* signal, core::Event1<A> Class::*event) {
        Attach(signal, &internal::GetSignature<A>, _implementation.load()->*event,
               new Emitter1<A>(this, signal));
    }

    template <class Class>
    void Forward(const char* signal, core::Event0 Class::*event) {
        Attach(signal, &internal::GetSignature<Record<>>, _implementation.load()->*event,
               new Emitter0(this, signal));
    }

    /// Returns the implementation, for delegates to the adapter itself. Throws "<name> is shutting down"
    /// after `Close`.
    Provider& GetImplementation() const {
        Provider* const implementation = _implementation;
        if (implementation == nullptr) {
            throw osa::Exception("%s is shutting down", GetDescription().name);
        }
        return *implementation;
    }

private:
    template <class A>
    class Emitter1 final : public core::IVoidDelegate1<A> {
    public:
        Emitter1(ServiceServer* server, const char* signal) : _server(server), _signal(signal) {}
        void Call(const A& value) override { _server->Emit(_signal, value); }
        bool Matches(const void* object) const override { return object == _server; }

    private:
        ServiceServer* _server;
        const char* _signal;
    };

    class Emitter0 final : public core::IVoidDelegate0 {
    public:
        Emitter0(ServiceServer* server, const char* signal) : _server(server), _signal(signal) {}
        void Call() override { _server->Emit(_signal); }
        bool Matches(const void* object) const override { return object == _server; }

    private:
        ServiceServer* _server;
        const char* _signal;
    };

    // The class of a member or an event may be a base of the provider.

    template <class Class, class R, class... A>
    void ServeMethod(const char* member, R (Class::*method)(A...)) {
        ServeArguments<R, A...>(member, static_cast<R (Provider::*)(A...)>(method));
    }

    template <class Class, class R, class... A>
    void ServeMethod(const char* member, R (Class::*method)(A...) const) {
        ServeArguments<R, A...>(member, static_cast<R (Provider::*)(A...) const>(method));
    }

    template <class R, class... A, class Method>
    void ServeArguments(const char* member, Method method) {
        if constexpr (sizeof...(A) < 2) {
            Add(member, core::MakeDelegate(_implementation.load(), method));
        } else {
            ServeRecord<Record<std::decay_t<A>...>, R, A...>(member, method);
        }
    }

    template <class Parms, class R, class... A, class Method>
    void ServeRecord(const char* member, Method method) {
        static_assert(std::is_same_v<Parms, Record<std::decay_t<A>...>>,
                      "the record must have the member's parameters as its fields");
        Add(member, new internal::RecordDelegate<R, Parms, Provider, Method>(_implementation, method));
    }

    template <class Event, class Delegate>
    void Attach(const char* signal, Signature arguments, Event& event, Delegate* delegate) {
        std::unique_ptr<Delegate> owned(delegate);
        AddSignal({signal, true, arguments, nullptr}, [this, &event] { event.RemoveDelegate(this); });
        event.AddDelegate(owned.release());
    }

    template <class... A>
    void Emit(const char* signal, const A&... value) const {
        const ServiceDescription& service = GetDescription();
        msgbus::MsgBusSignal message(service.path, service.name, signal);
        (void)(static_cast<msgbus::MsgBusMsg&>(message) << ... << value);
        GetBus()->SendMsg(message);
    }

    std::atomic<Provider*> _implementation;
};

}  // namespace zarip::interfaces
