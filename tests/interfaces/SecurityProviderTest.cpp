#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "support/FakeBus.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"
#include "zarip/core/Delegate.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MsgBus.h"

namespace zarip::interfaces {
namespace {

using std::string;
using std::vector;
using test::ErrorOf;
using test::FakeBus;

constexpr const char* kName = "com.brelk.system.security";

/// Keeps the arguments of the last call as one text and answers with values that tell the members apart.
class Recorder : public ISecurityProvider {
public:
    string Authenticate(bool a, const string& b, const string& c) override {
        return Keep("Authenticate", a, b, c);
    }
    string AuthenticateHttp(bool a, const string& b, const string& c, const string& d, bool e,
                            const string& f, const string& g, const string& h, const string& i) override {
        return Keep("AuthenticateHttp", a, b, c, d, e, f, g, h, i);
    }
    string AuthenticateWsse(bool a, const string& b, const string& c, const string& d,
                            const string& e) override {
        return Keep("AuthenticateWsse", a, b, c, d, e);
    }
    bool TestLdap(const string& a, const string& b, const string& c, int d, const string& e, const string& f,
                  const string& g, const string& h, const string& i, const string& j,
                  const string& k) const override {
        Keep("TestLdap", a, b, c, d, e, f, g, h, i, j, k);
        return true;
    }
    void Invalidate(const string& a) override { Keep("Invalidate", a); }
    bool IsAuthenticated(const string& a) override { return !Keep("IsAuthenticated", a).empty(); }
    bool IsProtected(const string& a) const override { return Keep("IsProtected", a).empty(); }
    vector<string> GetAllowedPaths(const string& a) const override {
        return {Keep("GetAllowedPaths", a), "/"};
    }
    vector<string> GetAllowedPermissions(const string& a) const override {
        Keep("GetAllowedPermissions", a);
        return {};
    }
    string GetCredentials(const string& a) const override { return Keep("GetCredentials", a); }
    int GetExpiration(const string& a, string& b) const override {
        Keep("GetExpiration", a, b);
        b = "filled";
        return -42;
    }
    bool Authorize(const string& a, const string& b) override { return Keep("Authorize", a, b).empty(); }
    bool Logout(const string& a) override { return !Keep("Logout", a).empty(); }
    bool AllowHttpDigest() const override { return !Keep("AllowHttpDigest").empty(); }
    string GetNonce() override { return Keep("GetNonce"); }
    string GetUsers() const override { return Keep("GetUsers"); }
    int AddUsers(const string& a) override { return static_cast<int>(Keep("AddUsers", a).size()); }
    int ModifyUsers(const string& a) override { return -static_cast<int>(Keep("ModifyUsers", a).size()); }
    int DeleteUsers(const vector<string>& a) override {
        _last = "DeleteUsers";
        for (const auto& name : a) {
            _last += "|" + name;
        }
        return static_cast<int>(a.size());
    }
    int ValidatePassword(const string& a, const string& b, const string& c) const override {
        Keep("ValidatePassword", a, b, c);
        return 2147483647;
    }
    string AddPassphrase(const string& a, const string& b) override { return Keep("AddPassphrase", a, b); }
    string GetPassphrases() const override { return Keep("GetPassphrases"); }
    string GetPassphrase(const string& a) const override { return Keep("GetPassphrase", a); }
    bool DeletePassphrase(const string& a) override {
        ++_deletions;
        return !Keep("DeletePassphrase", a).empty();
    }

    mutable string _last;
    std::atomic<int> _deletions{0};

private:
    static string Text(const string& value) { return value; }
    static string Text(bool value) { return value ? "true" : "false"; }
    static string Text(int value) { return std::to_string(value); }

    template <class... A>
    string Keep(const char* member, const A&... argument) const {
        _last = member;
        ((_last += "|" + Text(argument)), ...);
        return _last;
    }
};

template <class T>
string Show(const T& value) {
    return testing::PrintToString(value);
}

struct Member {
    const char* name;
    const char* arguments;  // the signature of the call
    const char* reply;      // the signature of the reply; null for a one-way member
    const char* received;   // what the implementation gets
    const char* returned;   // what the caller gets
    std::function<string(ISecurityProvider&)> call;
};

const Member kMembers[] = {
    {"Authenticate", "bss", "s", "true|u|p", "\"Authenticate|true|u|p\"",
     [](auto& p) { return Show(p.Authenticate(true, "u", "p")); }},
    {"AuthenticateHttp", "bsssbssss", "s", "false|1|2|3|true|4|5|6|7",
     "\"AuthenticateHttp|false|1|2|3|true|4|5|6|7\"",
     [](auto& p) { return Show(p.AuthenticateHttp(false, "1", "2", "3", true, "4", "5", "6", "7")); }},
    {"AuthenticateWsse", "bssss", "s", "true|1|2|3|4", "\"AuthenticateWsse|true|1|2|3|4\"",
     [](auto& p) { return Show(p.AuthenticateWsse(true, "1", "2", "3", "4")); }},
    {"TestLdap", "sssisssssss", "b", "1|2|3|-636|4|5|6|7|8|9|10", "true",
     [](auto& p) { return Show(p.TestLdap("1", "2", "3", -636, "4", "5", "6", "7", "8", "9", "10")); }},
    {"Invalidate", "s", nullptr, "x", "", [](auto& p) { return p.Invalidate("x"), string(); }},
    {"IsAuthenticated", "s", "b", "x", "true", [](auto& p) { return Show(p.IsAuthenticated("x")); }},
    {"IsProtected", "s", "b", "/x", "false", [](auto& p) { return Show(p.IsProtected("/x")); }},
    {"GetAllowedPaths", "s", "as", "x", "{ \"GetAllowedPaths|x\", \"/\" }",
     [](auto& p) { return Show(p.GetAllowedPaths("x")); }},
    {"GetAllowedPermissions", "s", "as", "x", "{}",
     [](auto& p) { return Show(p.GetAllowedPermissions("x")); }},
    {"GetCredentials", "s", "s", "", "\"GetCredentials|\"",
     [](auto& p) { return Show(p.GetCredentials("")); }},
    {"GetExpiration", "s", "is", "x|", "-42 filled",
     [](auto& p) {
         string result = "never sent";
         const int expiration = p.GetExpiration("x", result);
         return Show(expiration) + " " + result;
     }},
    {"Authorize", "ss", "b", "x|/y", "false", [](auto& p) { return Show(p.Authorize("x", "/y")); }},
    {"Logout", "s", "b", "x", "true", [](auto& p) { return Show(p.Logout("x")); }},
    {"AllowHttpDigest", "", "b", nullptr, "true", [](auto& p) { return Show(p.AllowHttpDigest()); }},
    {"GetNonce", "", "s", nullptr, "\"GetNonce\"", [](auto& p) { return Show(p.GetNonce()); }},
    {"GetUsers", "", "s", nullptr, "\"GetUsers\"", [](auto& p) { return Show(p.GetUsers()); }},
    {"AddUsers", "s", "i", "xy", "11", [](auto& p) { return Show(p.AddUsers("xy")); }},
    {"ModifyUsers", "s", "i", "xy", "-14", [](auto& p) { return Show(p.ModifyUsers("xy")); }},
    {"DeleteUsers", "as", "i", "x|y", "2",
     [](auto& p) {
         return Show(p.DeleteUsers({"x", "y"}));
     }},
    {"ValidatePassword", "sss", "i", "1|2|3", "2147483647",
     [](auto& p) { return Show(p.ValidatePassword("1", "2", "3")); }},
    {"AddPassphrase", "ss", "s", "1|2", "\"AddPassphrase|1|2\"",
     [](auto& p) { return Show(p.AddPassphrase("1", "2")); }},
    {"GetPassphrases", "", "s", nullptr, "\"GetPassphrases\"",
     [](auto& p) { return Show(p.GetPassphrases()); }},
    {"GetPassphrase", "s", "s", "x", "\"GetPassphrase|x\"",
     [](auto& p) { return Show(p.GetPassphrase("x")); }},
    {"DeletePassphrase", "s", "b", "x", "true", [](auto& p) { return Show(p.DeletePassphrase("x")); }},
};

string Signature(const msgbus::MsgBusMsg& message) {
    return dbus_message_get_signature(message.GetDBusMessage());
}

class SecurityProviderTest : public testing::Test {
protected:
    FakeBus _bus;
    Recorder _implementation;
};

TEST_F(SecurityProviderTest, EveryMemberTravelsAsItsTableSays) {
    const std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&_bus, &_implementation));
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&_bus));
    EXPECT_EQ(client->_timeout, 5000);
    client->_timeout = 1234;
    for (const auto& member : kMembers) {
        SCOPED_TRACE(member.name);
        _bus._sent.clear();
        _bus._replySignature = "none";
        EXPECT_EQ(member.call(*client), member.returned);
        EXPECT_EQ(_implementation._last, member.received != nullptr
                                             ? string(member.name) + "|" + member.received
                                             : string(member.name));
        ASSERT_EQ(_bus._sent.size(), 1U);
        const auto& sent = *_bus._sent[0];
        EXPECT_EQ(
            sent.GetDestination() + " " + sent.GetPath() + " " + sent.GetInterface() + "." + sent.GetName(),
            string("com.brelk.system.security /com/brelk/system/security com.brelk.system.security.") +
                member.name);
        EXPECT_EQ(Signature(sent), member.arguments);
        EXPECT_EQ(_bus._replySignature, member.reply != nullptr ? member.reply : "none");
        if (member.reply != nullptr) {
            EXPECT_EQ(_bus._timeout, 1234);
        }
    }
    client->DeleteUsers({});
    EXPECT_EQ(_implementation._last, "DeleteUsers");
    EXPECT_EQ(Signature(*_bus._sent.back()), "as");
}

TEST_F(SecurityProviderTest, HandlersStandInTheOrderOfTheInterface) {
    const std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&_bus, &_implementation));
    EXPECT_EQ(_bus._names, vector<string>{kName});
    ASSERT_EQ(_bus._handlers.size(), std::size(kMembers));
    for (std::size_t i = 0; i < std::size(kMembers); ++i) {
        EXPECT_EQ(_bus._handlers[i].interface, kName);
        EXPECT_EQ(_bus._handlers[i].member, kMembers[i].name);
        EXPECT_EQ(_bus._handlers[i].handler->GetKind(), msgbus::IMessageHandler::kMethodCalls);
    }
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&_bus));
    EXPECT_EQ(_bus._handlers.back().member, "UsersChanged");
    EXPECT_EQ(_bus._handlers.back().handler->GetKind(), msgbus::IMessageHandler::kSignals);
}

TEST_F(SecurityProviderTest, WhatIsNotOverriddenIsUnimplementedHereAndAcrossTheBus) {
    ISecurityProvider bare;
    const std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&_bus, &bare));
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&_bus));
    for (const auto& member : kMembers) {
        EXPECT_EQ(ErrorOf([&] { member.call(bare); }), "unimplemented") << member.name;
        if (member.reply != nullptr) {
            EXPECT_EQ(ErrorOf([&] { member.call(*client); }), "DBUS call failed: unimplemented")
                << member.name;
        }
    }
}

class Subscriber {
public:
    explicit Subscriber(ISecurityProvider& provider) : _provider(provider) {
        _provider.UsersChanged.AddDelegate(core::MakeDelegate(this, &Subscriber::OnChange));
    }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    ~Subscriber() { _provider.UsersChanged.RemoveDelegate(this); }

    void OnChange(bool value) {
        _value = value;
        ++_count;
    }

    std::atomic<bool> _value{false};
    std::atomic<int> _count{0};

private:
    ISecurityProvider& _provider;
};

TEST_F(SecurityProviderTest, DestroyingTheServerEndsEventsThenHandlersThenTheName) {
    std::unique_ptr<InterfaceServer> server(ISecurityProvider::CreateServer(&_bus, &_implementation));
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&_bus));
    const Subscriber subscriber(*client);
    _implementation.UsersChanged.FireEvent(true);
    EXPECT_EQ(subscriber._count, 1);
    ASSERT_EQ(_bus._sent.size(), 1U);
    const auto& signal = *_bus._sent[0];
    EXPECT_EQ(
        signal.GetType() + " " + signal.GetPath() + " " + signal.GetInterface() + "." + signal.GetName(),
        "signal /com/brelk/system/security com.brelk.system.security.UsersChanged");
    EXPECT_EQ(Signature(signal), "b");

    _bus.UnregisterDestinationName(kName);
    _bus._trace.clear();
    server.reset();
    ASSERT_EQ(_bus._trace.size(), std::size(kMembers) + 1);
    EXPECT_EQ(_bus._trace.back(), string("release ") + kName);
    _implementation.UsersChanged.FireEvent(true);
    EXPECT_EQ(_bus._sent.size(), 1U);
    EXPECT_EQ(subscriber._count, 1);
}

TEST_F(SecurityProviderTest, AServerThatCannotBeMadeLeavesNothingBehind) {
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
        void UnregisterMessageHandler(msgbus::IMessageHandler*) override { --_handlers; }
        int _sent = 0;
        int _names = 0;
        int _handlers = 0;
    };
    Refusing bus;
    EXPECT_EQ(ErrorOf([&] { delete ISecurityProvider::CreateServer(&bus, &_implementation); }), "full");
    _implementation.UsersChanged.FireEvent(true);
    EXPECT_EQ(bus._sent, 0);
    EXPECT_EQ(bus._names, 0);
    EXPECT_EQ(bus._handlers, 0);
}

TEST(SecurityProviderOnTheBus, CallsErrorsAndSignalsCrossIt) {
    test::PrivateBus::Get();
    Recorder implementation;
    msgbus::MsgBus serverBus;
    auto server =
        std::unique_ptr<InterfaceServer>(ISecurityProvider::CreateServer(&serverBus, &implementation));
    EXPECT_EQ(ErrorOf([&] {
                  msgbus::MsgBus second;
                  delete ISecurityProvider::CreateServer(&second, &implementation);
              }),
              "error requesting name or not primary owner");
    serverBus.StartServer();

    msgbus::MsgBus clientBus;
    const std::unique_ptr<ISecurityProvider> client(ISecurityProvider::CreateClient(&clientBus));
    const std::unique_ptr<ISecurityProvider> other(ISecurityProvider::CreateClient(&clientBus));
    const Subscriber first(*client);
    const Subscriber second(*other);
    clientBus.StartServer();
    for (const auto& member : kMembers) {
        EXPECT_EQ(member.call(*client), member.returned) << member.name;
    }
    EXPECT_EQ(implementation._deletions, 1);
    EXPECT_EQ(ErrorOf([&] { client->GetCredentials("\xff"); }), "MsgBusMsg: text is not valid UTF-8!");

    // Anybody may send a signal with a member's name; it must not be taken for the call.
    msgbus::MsgBusSignal forged("/com/brelk/system/security", kName, "DeletePassphrase");
    forged << "all of them";
    clientBus.SendMsg(forged);
    implementation.UsersChanged.FireEvent(true);
    EXPECT_TRUE(test::WaitUntil([&] { return first._count == 1 && second._count == 1; }));
    EXPECT_TRUE(first._value);
    EXPECT_EQ(client->GetNonce(), "GetNonce");
    EXPECT_EQ(implementation._deletions, 1);

    server.reset();
    client->Invalidate("nobody serves this");
    EXPECT_EQ(
        ErrorOf([&] { client->GetUsers(); }).find("DBUS call com.brelk.system.security::GetUsers failed: "),
        0U);
    implementation.UsersChanged.FireEvent(false);
    EXPECT_EQ(first._count, 1);
    clientBus.StopServer();
}

}  // namespace
}  // namespace zarip::interfaces
