#pragma once

// What the services share. A service is two lists in the order of its interface: the calls of its proxy, a
// class that derives from the provider interface and holds a `RemoteService`, and the table of its server
// adapter, a final class that derives from `ServiceServer` and calls `Forward` for each event and `Serve` or
// `Add` for each member.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "interfaces/Descriptions.h"
#include "msgbus/DescribedObject.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/Event.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/IMsgBus.h"
#include "zarip/msgbus/MessageHandler.h"
#include "zarip/msgbus/MessageHandlerCollection.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"
#include "zarip/msgbus/MsgBusSignal.h"
#include "zarip/osa/Exception.h"

namespace zarip::interfaces {

/// How a service is addressed; its interface is called like its bus name.
struct ServiceNames {
    const char* name;
    const char* path;
};

/// Several arguments or results that travel as one value, a bus argument for each field.
template <class... Fields>
struct Record : std::tuple<Fields...> {
    using Tuple = std::tuple<Fields...>;
    using Tuple::Tuple;
};

template <class... Fields>
msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader,
                                            Record<Fields...>& record) {
    std::apply([&reader](Fields&... field) { (void)(reader >> ... >> field); },
               static_cast<std::tuple<Fields...>&>(record));
    return reader;
}

template <class... Fields>
msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const Record<Fields...>& record) {
    std::apply([&message](const Fields&... field) { (void)(message << ... << field); },
               static_cast<const std::tuple<Fields...>&>(record));
    return message;
}

/// How long a proxy waits for a reply unless told otherwise, in milliseconds.
constexpr int kDefaultTimeout = 5000;

/// The body of a member that an implementation does not override.
[[noreturn]] inline void Unimplemented() {
    throw osa::Exception(osa::Exception::kUnimplemented);
}

/// A proxy's side of a service: calls it and receives its signals. As thread-safe as the bus.
class RemoteService {
public:
    /// @param bus, timeout  *not owned*; the time-out in milliseconds is looked up at every call.
    RemoteService(msgbus::IMsgBus* bus, const ServiceNames& service, const int& timeout)
        : _bus(bus), _selector(service.name, service.path, service.name), _timeout(timeout), _handlers(bus) {}

    /// Calls a member and waits for its result, a value or a record.
    template <class R, class... A>
    R Call(const char* member, const A&... argument) const {
        msgbus::MsgBusMsg* answer = nullptr;
        _bus->SendMsgWaitForReply(Message(member, argument...), answer, _timeout);
        const std::unique_ptr<msgbus::MsgBusMsg> reply(answer);
        return msgbus::internal::ReadArgument<R>(*reply);
    }

    /// Calls a one-way member.
    template <class... A>
    void Send(const char* member, const A&... argument) const {
        _bus->SendMsg(Message(member, argument...));
    }

    /// Fires an event of the proxy for every signal of this name.
    template <class A>
    void Subscribe(const char* signal, core::Event1<A>& event) {
        _handlers.AddHandler(
            _selector.GetInterface(), signal,
            new msgbus::VoidMessageHandler1<A>(core::MakeDelegate(&event, &core::Event1<A>::FireEvent),
                                               msgbus::IMessageHandler::kSignals));
    }

    void Subscribe(const char* signal, core::Event0& event) {
        _handlers.AddHandler(
            _selector.GetInterface(), signal,
            new msgbus::VoidMessageHandler0(core::MakeDelegate(&event, &core::Event0::FireEvent),
                                            msgbus::IMessageHandler::kSignals));
    }

private:
    template <class... A>
    msgbus::MsgBusRemoteMethod Message(const char* member, const A&... argument) const {
        msgbus::MsgBusRemoteMethod message(_selector, member);
        (void)(static_cast<msgbus::MsgBusMsg&>(message) << ... << argument);
        return message;
    }

    msgbus::IMsgBus* _bus;
    msgbus::MsgBusObjectSelector _selector;
    const int& _timeout;
    msgbus::MessageHandlerCollection _handlers;
};

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

template <class R>
msgbus::IMessageHandler* MakeHandler(core::IDelegate0<R>* delegate) {
    return new msgbus::MessageHandler0<R>(delegate);
}

template <class R, class A>
msgbus::IMessageHandler* MakeHandler(core::IDelegate1<R, A>* delegate) {
    return new msgbus::MessageHandler1<R, A>(delegate);
}

inline msgbus::IMessageHandler* MakeHandler(core::IVoidDelegate0* delegate) {
    return new msgbus::VoidMessageHandler0(delegate, msgbus::IMessageHandler::kMethodCalls);
}

template <class A>
msgbus::IMessageHandler* MakeHandler(core::IVoidDelegate1<A>* delegate) {
    return new msgbus::VoidMessageHandler1<A>(delegate, msgbus::IMessageHandler::kMethodCalls);
}

}  // namespace internal

/// A server adapter: owns the bus name, answers calls with the implementation, sends its events as signals,
/// describes itself to who asks.
///
/// A final class with handlers of its own calls `Close` first in its destructor, since they may run until
/// then.
template <class Provider>
class ServiceServer : public InterfaceServer {
protected:
    /// @param implementation  *not owned*, must outlive the server.
    ServiceServer(msgbus::IMsgBus* bus, const ServiceNames& service, Provider* implementation)
        : InterfaceServer(bus, service.name),
          _service(service),
          _implementation(implementation),
          _handlers(bus),
          _description(bus, service.path, service.name, DescriptionOf(service.name)) {}

    ~ServiceServer() override { Close(); }

    /// Detaches from the events, forgets the implementation and ends the handlers; afterwards none of them
    /// runs.
    void Close() {
        for (const auto& detach : _detachers) {
            detach();
        }
        _detachers.clear();
        _implementation = nullptr;
        _handlers.reset();
    }

    /// Serves a member without or with one argument.
    template <class Method>
    void Serve(const char* member, Method method) {
        Add(member, core::MakeDelegate(_implementation.load(), method));
    }

    /// Serves a member whose arguments come as the fields of a record.
    template <class Parms, class R, class... A>
    void Serve(const char* member, R (Provider::*method)(A...)) {
        ServeRecord<Parms, R, A...>(member, method);
    }

    template <class Parms, class R, class... A>
    void Serve(const char* member, R (Provider::*method)(A...) const) {
        ServeRecord<Parms, R, A...>(member, method);
    }

    /// Serves a member with a delegate of the adapter's own; *takes ownership*.
    template <class Delegate>
    void Add(const char* member, Delegate* delegate) {
        _handlers->AddHandler(_service.name, member, internal::MakeHandler(delegate));
    }

    /// Sends an event of the implementation as a signal.
    template <class A>
    void Forward(const char* signal, core::Event1<A> Provider::*event) {
        Attach(_implementation.load()->*event, new Emitter1<A>(this, signal));
    }

    void Forward(const char* signal, core::Event0 Provider::*event) {
        Attach(_implementation.load()->*event, new Emitter0(this, signal));
    }

    /// For handlers of the adapter's own: throws once the adapter is closing.
    Provider& GetImplementation() const {
        Provider* const implementation = _implementation;
        if (implementation == nullptr) {
            throw osa::Exception("%s is shutting down", _service.name);
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

    template <class Parms, class R, class... A, class Method>
    void ServeRecord(const char* member, Method method) {
        static_assert(std::is_same_v<Parms, Record<std::decay_t<A>...>>,
                      "the record must have the member's parameters as its fields");
        Add(member, new internal::RecordDelegate<R, Parms, Provider, Method>(_implementation, method));
    }

    template <class Event, class Delegate>
    void Attach(Event& event, Delegate* delegate) {
        std::unique_ptr<Delegate> owned(delegate);
        _detachers.push_back([this, &event] { event.RemoveDelegate(this); });
        event.AddDelegate(owned.release());
    }

    template <class... A>
    void Emit(const char* signal, const A&... value) const {
        msgbus::MsgBusSignal message(_service.path, _service.name, signal);
        (void)(static_cast<msgbus::MsgBusMsg&>(message) << ... << value);
        GetBus()->SendMsg(message);
    }

    ServiceNames _service;
    std::atomic<Provider*> _implementation;
    std::vector<std::function<void()>> _detachers;
    std::optional<msgbus::MessageHandlerCollection> _handlers;
    msgbus::DescribedObject _description;
};

}  // namespace zarip::interfaces
