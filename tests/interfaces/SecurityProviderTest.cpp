// SPDX-License-Identifier: MIT

#include "interfaces/Services.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MessageHandlerCollection.h"
#include "zarip/msgbus/MsgBus.h"

namespace zarip::interfaces {
namespace {

using test::ErrorOf;

class Refusing : public msgbus::IMsgBus {
public:
    void SendMsg(const msgbus::MsgBusMsg&) override { ++_sent; }
    void SendMsgWaitForReply(const msgbus::MsgBusMsg&, msgbus::MsgBusMsg*&, int) override {}
    void SendReply(const msgbus::MsgBusMsg&) override {}
    void StartServer() override {}
    void StartServer(unsigned int, signed char) override {}
    void StopServer() override {}
    void StopServer(bool) override {}
    bool IsRunning() const override { return false; }
    void RegisterDestinationName(const string&) override { ++_names; }
    void UnregisterDestinationName(const string&) override {
        --_names;
        throw osa::Exception("dropped");
    }
    void RegisterMessageHandler(const string&, const string&, msgbus::IMessageHandler*) override {
        if (++_handlers == 10) {
            --_handlers;
            throw osa::Exception("full");
        }
    }
    void UnregisterMessageHandler(msgbus::IMessageHandler*) override {
        if (_isFailing) {
            ++_failures;
            throw osa::Exception("still registered");
        }
        --_handlers;
    }
    bool _isFailing = false;
    int _failures = 0;
    int _sent = 0;
    int _names = 0;
    int _handlers = 0;
};

TEST(SecurityProviderTest, AServerThatCannotBeMadeLeavesNothingBehind) {
    Refusing bus;
    ISecurityProvider implementation;
    EXPECT_EQ(ErrorOf([&] { delete ISecurityProvider::CreateServer(&bus, &implementation); }), "full");
    implementation.UsersChanged.FireEvent(true);
    EXPECT_EQ(bus._sent, 0);
    EXPECT_EQ(bus._names, 0);
    EXPECT_EQ(bus._handlers, 0);
}

TEST(SecurityProviderTest, DeliberatelyTheFirstFailureToUnregisterEndsIt) {
    struct Handler final : msgbus::IMessageHandler {
        ~Handler() override { ADD_FAILURE() << "a registered handler was deleted"; }
        void HandleMessage(const msgbus::MsgBusMsg&, msgbus::IMsgBus&) override {}
    };
    static Handler* handlers[] = {new Handler,
                                  new Handler};  // referenced, so that they are not reported as leaks
    Refusing bus;
    bus._isFailing = true;
    {
        msgbus::MessageHandlerCollection collection(&bus);
        collection.AddHandler("a.b", "First", handlers[0]);
        collection.AddHandler("a.b", "Second", handlers[1]);
    }
    EXPECT_EQ(bus._failures, 1);
}

TEST(SecurityProviderOnTheBus, AProxyMayBeDeletedInItsEventAndAServerInItsMember) {
    test::PrivateBus::Get();
    struct Leaving : Security::Implementation {
        string GetCredentials(const string& session) const override {
            (*server).reset();
            return session;
        }
        std::unique_ptr<InterfaceServer>* server = nullptr;
    } implementation;
    msgbus::MsgBus serverBus;
    std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&serverBus, &implementation));
    implementation.server = &server;
    serverBus.StartServer();
    msgbus::MsgBus clientBus;
    struct Client {
        void OnUsersChanged(bool) {
            proxy.reset();
            isGone = true;
        }
        std::unique_ptr<ISecurityProvider> proxy;
        std::atomic<bool> isGone{false};
    } client;
    client.proxy.reset(ISecurityProvider::CreateClient(&clientBus));
    client.proxy->UsersChanged.AddDelegate(core::MakeDelegate(&client, &Client::OnUsersChanged));
    clientBus.StartServer();
    implementation.UsersChanged.FireEvent(true);
    EXPECT_TRUE(test::WaitUntil([&] { return client.isGone.load(); }));

    client.proxy.reset(ISecurityProvider::CreateClient(&clientBus));
    EXPECT_EQ(client.proxy->GetCredentials("the last"), "the last");
    EXPECT_EQ(ErrorOf([&] {
                  client.proxy->GetCredentials("");
              }).find("DBUS call com.brelk.system.security::GetCredentials failed: The name "),
              0U);
    EXPECT_FALSE(server);
}

TEST(SecurityProviderOnTheBus, SignalsAreNoCallsAndEndWithTheServer) {
    test::PrivateBus::Get();
    Security::Implementation implementation;
    msgbus::MsgBus serverBus;
    std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&serverBus, &implementation));
    EXPECT_EQ(ErrorOf([&] {
                  msgbus::MsgBus second;
                  delete ISecurityProvider::CreateServer(&second, &implementation);
              }),
              "error requesting name or not primary owner");
    serverBus.StartServer();

    msgbus::MsgBus clientBus;
    Arrivals first;
    Arrivals second;
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&clientBus));
    const std::unique_ptr<ISecurityProvider> other(ISecurityProvider::CreateClient(&clientBus));
    const auto signal = Security::Signals().front();
    signal.listen(*client, first);
    signal.listen(*other, second);
    clientBus.StartServer();

    // Any process may send a signal with a member's name. It must not be treated as a call.
    msgbus::MsgBusSignal forged(Security::kPath, Security::kName, "DeletePassphrase");
    forged << "all of them";
    clientBus.SendMsg(forged);
    signal.fire(implementation);
    const vector<string> once = {"UsersChanged true"};
    EXPECT_TRUE(test::WaitUntil([&] { return first.Get() == once && second.Get() == once; }));
    EXPECT_EQ(client->GetNonce(), "GetNonce");
    EXPECT_EQ(implementation._deletions, 0);

    server.reset();
    client->Invalidate("nobody serves this");
    EXPECT_EQ(
        ErrorOf([&] { client->GetUsers(); }).find("DBUS call com.brelk.system.security::GetUsers failed: "),
        0U);
    signal.fire(implementation);
    // This is sent later on the same connection, so it is received later.
    serverBus.SendMsg(msgbus::MsgBusSignal(Security::kPath, Security::kName, "UsersChanged") << false);
    EXPECT_TRUE(test::WaitUntil([&] { return first.Get().back() == "UsersChanged false"; }));
    EXPECT_EQ(first.Get().size(), 2U);
    clientBus.StopServer();
}

}  // namespace
}  // namespace zarip::interfaces
