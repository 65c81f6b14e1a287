// SPDX-License-Identifier: MIT

// This library, as services and their clients use it.

#include <memory>

#include <unistd.h>

#include <zarip/core/Delegate.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusSignal.h>

#include "Peer.h"

namespace peer {
namespace {

using zarip::interfaces::InterfaceServer;
using zarip::interfaces::ISecurityProvider;
using zarip::msgbus::MsgBus;

class EchoProvider final : public ISecurityProvider {
public:
    std::string GetCredentials(const std::string& session) const override { return session; }
    std::string AuthenticateHttp(bool /*digest*/, const std::string& /*user*/, const std::string& /*realm*/,
                                 const std::string& /*nonce*/, bool /*hasQop*/,
                                 const std::string& /*nonceCount*/, const std::string& /*clientNonce*/,
                                 const std::string& /*uri*/, const std::string& response) override {
        return response;
    }
};

struct Service {
    MsgBus bus;
    EchoProvider implementation;
    std::unique_ptr<InterfaceServer> server{ISecurityProvider::CreateServer(&bus, &implementation)};
};

struct Client {
    MsgBus bus;
    std::unique_ptr<ISecurityProvider> provider{ISecurityProvider::CreateClient(&bus)};
};

class Receiver {
public:
    explicit Receiver(const std::function<void(bool)>& receive) : _receive(receive) {}
    void Receive(const bool& value) { _receive(value); }

private:
    const std::function<void(bool)>& _receive;
};

[[noreturn]] void SleepForEver() {
    for (;;) {
        pause();
    }
}

}  // namespace

void Serve(const std::function<void()>& ready) {
    Service service;
    service.bus.StartServer();
    ready();
    SleepForEver();
}

Caller MakeCaller() {
    const auto client = std::make_shared<Client>();
    client->bus.StartServer();
    return {[client](const std::string& text) { return client->provider->GetCredentials(text); },
            [client](const std::string& text) {
                return client->provider->AuthenticateHttp(true, kTexts[0], kTexts[1], kTexts[2], true,
                                                          kTexts[3], kTexts[4], kTexts[5], text);
            }};
}

Emitter MakeEmitter() {
    // As the other libraries do it: a connection that owns the name, and nothing that the daemon has to look
    // at.
    auto bus = std::make_shared<zarip::msgbus::MsgBus>();
    bus->RegisterDestinationName(kService);
    return {[bus](bool value) {
                zarip::msgbus::MsgBusSignal signal(kPath, kService, kSignal);
                signal << value;
                bus->SendMsg(signal);
            },
            [] {}};  // what the bus has not taken yet, the connection's own thread sends
}

void Listen(const std::function<void()>& ready, const std::function<void(bool)>& receive) {
    Client client;
    Receiver receiver(receive);
    client.provider->UsersChanged.AddDelegate(zarip::core::MakeDelegate(&receiver, &Receiver::Receive));
    client.bus.StartServer();
    ready();
    SleepForEver();
}

}  // namespace peer
