// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/Delegate.h>
#include <zarip/core/Event.h>
#include <zarip/interfaces/Record.h>
#include <zarip/interfaces/ServiceDescription.h>
#include <zarip/msgbus/IMsgBus.h>
#include <zarip/msgbus/MessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>

namespace zarip::interfaces {

/// How long a proxy waits for a reply unless it is told otherwise, in milliseconds.
inline constexpr int kDefaultTimeout = 5000;

/// What a proxy needs of a service: calls its members and receives its signals. A proxy derives from the
/// interface of its service, holds a `RemoteService` and forwards each member to it.
///
/// *Thread-safe* like the bus, except `Subscribe`, which belongs into the proxy's constructor. Signals arrive
/// *on MsgBusListenThread*. The destructor ends the subscriptions and waits for an event that is being fired,
/// unless it is called from that event.
class RemoteService {
public:
    /// @param bus  *not owned*, must outlive this object.
    /// @param timeout  in milliseconds, *not owned*: it is read at every call, so that a proxy can hand over
    ///     its member and its user can change that.
    RemoteService(msgbus::IMsgBus* bus, const ServiceDescription& service,
                  const int& timeout = kDefaultTimeout)
        : _bus(bus), _selector(service.name, service.path, service.name), _timeout(timeout), _handlers(bus) {}
    RemoteService(msgbus::IMsgBus*, const ServiceDescription&, const int&& timeout) = delete;

    /// Calls a member and waits for its result, a value or a record; throws what
    /// `IMsgBus::SendMsgWaitForReply` throws, and what reading throws if the reply holds something else.
    template <class R, class... A>
    R Call(const char* member, const A&... argument) const {
        msgbus::MsgBusMsg* answer = nullptr;
        _bus->SendMsgWaitForReply(Message(member, argument...), answer, _timeout);
        const std::unique_ptr<msgbus::MsgBusMsg> reply(answer);
        return msgbus::internal::ReadArgument<R>(*reply);
    }

    /// Calls a one-way member, which nobody answers: it also returns if no service runs. Throws what
    /// `IMsgBus::SendMsg` throws.
    template <class... A>
    void Send(const char* member, const A&... argument) const {
        _bus->SendMsg(Message(member, argument...));
    }

    /// Fires an event for every signal of this name. Throws what `IMsgBus::RegisterMessageHandler` throws.
    /// @param event  *not owned*, must outlive this object.
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

}  // namespace zarip::interfaces
