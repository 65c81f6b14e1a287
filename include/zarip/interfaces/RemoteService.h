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

/// The default time for which a proxy waits for a reply, in milliseconds.
inline constexpr int kDefaultTimeout = 5000;

/// Calls the members of a service and receives its signals. A proxy derives from the interface of its
/// service, holds a `RemoteService` and forwards each member to it.
///
/// *Thread-safe*, except `Subscribe`, which the proxy's constructor calls once for each signal. Signals
/// arrive *on MsgBusListenThread*. The destructor ends the subscriptions and waits for an event that is being
/// fired, unless it is called from that event.
class RemoteService {
public:
    /// @param bus  *not owned*, must outlive this object.
    /// @param timeout  in milliseconds, *not owned*. It is read at every call, so a proxy can pass its
    ///     member, which its user can change.
    RemoteService(msgbus::IMsgBus* bus, const ServiceDescription& service,
                  const int& timeout = kDefaultTimeout)
        : _bus(bus), _selector(service.name, service.path, service.name), _timeout(timeout), _handlers(bus) {}
    RemoteService(msgbus::IMsgBus*, const ServiceDescription&, const int&& timeout) = delete;

    /// Calls a member and waits for its result, which is a value or a record. Throws what
    /// `IMsgBus::SendMsgWaitForReply` throws, and what reading throws if the reply has other types.
    template <class R, class... A>
    R Call(const char* member, const A&... argument) const {
        msgbus::MsgBusMsg* answer = nullptr;
        _bus->SendMsgWaitForReply(MakeMessage(member, argument...), answer, _timeout);
        const std::unique_ptr<msgbus::MsgBusMsg> reply(answer);
        return msgbus::internal::ReadArgument<R>(*reply);
    }

    /// Calls a one-way member, which has no reply. It returns normally even if the service is not running.
    /// Throws what `IMsgBus::SendMsg` throws.
    template <class... A>
    void Send(const char* member, const A&... argument) const {
        _bus->SendMsg(MakeMessage(member, argument...));
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
    msgbus::MsgBusRemoteMethod MakeMessage(const char* member, const A&... argument) const {
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
