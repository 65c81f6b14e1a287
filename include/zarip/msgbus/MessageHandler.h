// SPDX-License-Identifier: MIT

#pragma once

#include <memory>

#include <zarip/core/Delegate.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/IMsgBus.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>

namespace zarip::msgbus {

/// Handlers that read at most one argument, call a delegate, and send its result, if it has one, as the
/// reply. An argument or result may be a record, which is a type with `operator>>` for a reader and
/// `operator<<` for a message.
///
/// They *take ownership* of the delegate, which is *called on MsgBusListenThread* and may delete the handler.
/// Additional arguments are ignored. A missing or wrong argument throws the reader's exception, which becomes
/// the error reply.

namespace internal {

template <class R>
void Reply(const MsgBusMsg& call, IMsgBus& bus, const R& result) {
    if (call.IsExpectingResponse()) {
        const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
        *reply << result;
        bus.SendReply(*reply);
    }
}

template <class A>
A ReadArgument(const MsgBusMsg& message) {
    A argument{};
    MsgBusMsgArgumentReader reader(message);
    reader >> argument;
    return argument;
}

}  // namespace internal

template <class R>
class MessageHandler0 final : public IMessageHandler {
public:
    explicit MessageHandler0(core::IDelegate0<R>* delegate) : _delegate(delegate) {}
    void HandleMessage(const MsgBusMsg& message, IMsgBus& bus) override {
        const auto delegate = _delegate;  // which may delete this handler
        internal::Reply<R>(message, bus, delegate->Call());
    }
    Kind GetKind() const override { return kMethodCalls; }

private:
    std::shared_ptr<core::IDelegate0<R>> _delegate;
};

template <class R, class A>
class MessageHandler1 final : public IMessageHandler {
public:
    explicit MessageHandler1(core::IDelegate1<R, A>* delegate) : _delegate(delegate) {}
    void HandleMessage(const MsgBusMsg& message, IMsgBus& bus) override {
        const auto delegate = _delegate;  // which may delete this handler
        internal::Reply<R>(message, bus, delegate->Call(internal::ReadArgument<A>(message)));
    }
    Kind GetKind() const override { return kMethodCalls; }

private:
    std::shared_ptr<core::IDelegate1<R, A>> _delegate;
};

/// The handler of a one-way member. It never replies, even if the caller expects a reply.
class VoidMessageHandler0 final : public IMessageHandler {
public:
    explicit VoidMessageHandler0(core::IVoidDelegate0* delegate, Kind kind = kBoth)
        : _delegate(delegate), _kind(kind) {}
    void HandleMessage(const MsgBusMsg& /*message*/, IMsgBus& /*bus*/) override {
        const auto delegate = _delegate;  // which may delete this handler
        delegate->Call();
    }
    Kind GetKind() const override { return _kind; }

private:
    std::shared_ptr<core::IVoidDelegate0> _delegate;
    Kind _kind;
};

template <class A>
class VoidMessageHandler1 final : public IMessageHandler {
public:
    explicit VoidMessageHandler1(core::IVoidDelegate1<A>* delegate, Kind kind = kBoth)
        : _delegate(delegate), _kind(kind) {}
    void HandleMessage(const MsgBusMsg& message, IMsgBus& /*bus*/) override {
        const auto delegate = _delegate;  // which may delete this handler
        delegate->Call(internal::ReadArgument<A>(message));
    }
    Kind GetKind() const override { return _kind; }

private:
    std::shared_ptr<core::IVoidDelegate1<A>> _delegate;
    Kind _kind;
};

}  // namespace zarip::msgbus
