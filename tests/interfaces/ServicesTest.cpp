// SPDX-License-Identifier: MIT

#include "interfaces/Services.h"

#include <dbus/dbus.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "interfaces/Description.h"
#include "support/FakeBus.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/RunToEnd.h"
#include "support/WaitUntil.h"
#include "zarip/interfaces/CheckDescription.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MsgBus.h"

namespace zarip::interfaces {
namespace {

using test::Description;
using test::ErrorOf;
using test::FakeBus;

string Address(const msgbus::MsgBusMsg& message) {
    return message.GetType() + " " + message.GetPath() + " " + message.GetInterface() + "." +
           message.GetName();
}

/// Returns the message of the error of a call, or "no exception".
string ErrorOfCall(msgbus::IMsgBus& bus, const msgbus::MsgBusMsg& call) {
    return ErrorOf([&] {
        msgbus::MsgBusMsg* reply = nullptr;
        bus.SendMsgWaitForReply(call, reply, 30000);
        delete reply;
    });
}

template <class Service>
string Failed(const string& member, const string& reason) {
    return string("DBUS call ") + Service::kName + "::" + member + " failed: " + reason;
}

template <class Service>
class ServiceTest : public testing::Test {
protected:
    using Provider = typename Service::Provider;

    std::unique_ptr<InterfaceServer> Serve(msgbus::IMsgBus& bus) {
        return std::unique_ptr<InterfaceServer>(Provider::CreateServer(&bus, &_implementation));
    }
    static std::unique_ptr<Provider> Connect(msgbus::IMsgBus& bus) {
        return std::unique_ptr<Provider>(Provider::CreateClient(&bus));
    }

    const vector<Member<Provider>> _members = Service::Members();
    const vector<Signal<Provider>> _signals = Service::Signals();
    FakeBus _bus;
    typename Service::Implementation _implementation;
};

TYPED_TEST_SUITE(ServiceTest, AllServices, ServiceNameOf);

TYPED_TEST(ServiceTest, EveryMemberTravelsAsItsTableSays) {
    const auto server = this->Serve(this->_bus);
    const auto client = this->Connect(this->_bus);
    int timeout = 5000;
    if constexpr (!std::is_same_v<TypeParam, AudioLineOut>) {
        EXPECT_EQ(client->_timeout, 5000);
        timeout = client->_timeout = 1234;
    }
    auto& bus = this->_bus;
    for (const auto& member : this->_members) {
        SCOPED_TRACE(member.name);
        bus.TakeSent();
        bus._replySignature = "none";
        bus._timeout = 0;
        EXPECT_EQ(member.call(*client), member.returned);
        EXPECT_EQ(this->_implementation._last,
                  string(member.name) + (member.received != nullptr ? string("|") + member.received : ""));
        const auto sent = bus.TakeSent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0]->GetDestination(), TypeParam::kName);
        EXPECT_EQ(Address(*sent[0]),
                  string("method_call ") + TypeParam::kPath + " " + TypeParam::kName + "." + member.name);
        EXPECT_EQ(sent[0]->GetSignature(), member.arguments);
        EXPECT_EQ(bus._replySignature, member.reply != nullptr ? member.reply : "none");
        EXPECT_EQ(bus._timeout, member.reply != nullptr ? timeout : 0);
        // The adapter's answer does not depend on the proxy.
        EXPECT_EQ(ErrorOfCall(bus, *sent[0]),
                  member.reply != nullptr ? "no exception"
                                          : Failed<TypeParam>(member.name, "Did not receive a reply"));
    }
}

TYPED_TEST(ServiceTest, HandlersStandInTheOrderOfTheInterface) {
    const auto server = this->Serve(this->_bus);
    EXPECT_EQ(this->_bus.GetNames(), vector<string>{TypeParam::kName});
    const auto client = this->Connect(this->_bus);
    vector<string> expected;
    for (const auto& member : this->_members) {
        expected.push_back(string("call ") + TypeParam::kName + "." + member.name);
    }
    for (const auto& signal : this->_signals) {
        expected.push_back(string("signal ") + TypeParam::kName + "." + signal.name);
    }
    vector<string> found;
    for (const auto& entry : this->_bus._handlers) {
        const bool isSignal = entry.kind == msgbus::IMessageHandler::kSignals;
        EXPECT_NE(entry.kind, msgbus::IMessageHandler::kBoth);
        found.push_back((isSignal ? "signal " : "call ") + entry.interface + "." + entry.member);
    }
    EXPECT_EQ(found, expected);
}

TYPED_TEST(ServiceTest, WhatIsNotOverriddenIsUnimplementedHereAndAcrossTheBus) {
    typename TypeParam::Provider bare;
    const std::unique_ptr<InterfaceServer> server(TypeParam::Provider::CreateServer(&this->_bus, &bare));
    const auto client = this->Connect(this->_bus);
    for (const auto& member : this->_members) {
        EXPECT_EQ(ErrorOf([&] { member.call(bare); }), "unimplemented") << member.name;
        if (member.reply != nullptr) {
            EXPECT_EQ(ErrorOf([&] { member.call(*client); }),
                      Failed<TypeParam>(member.name, "unimplemented"));
        }
    }
}

TYPED_TEST(ServiceTest, DestroyingTheServerEndsEventsThenHandlersThenTheName) {
    auto& bus = this->_bus;
    auto server = this->Serve(bus);
    Arrivals arrivals;
    const auto client = this->Connect(bus);
    vector<string> expected;
    for (const auto& signal : this->_signals) {
        signal.listen(*client, arrivals);
        signal.fire(this->_implementation);
        expected.push_back(string(signal.name) + " " + signal.value);
        const auto sent = bus.TakeSent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(Address(*sent[0]),
                  string("signal ") + TypeParam::kPath + " " + TypeParam::kName + "." + signal.name);
        EXPECT_EQ(sent[0]->GetSignature(), signal.signature);
    }
    EXPECT_EQ(arrivals.Get(), expected);

    bus.UnregisterDestinationName(TypeParam::kName);
    bus._trace.clear();
    server.reset();
    ASSERT_EQ(bus._trace.size(), this->_members.size() + 1);
    EXPECT_EQ(bus._trace.back(), string("release ") + TypeParam::kName);
    for (const auto& signal : this->_signals) {
        signal.fire(this->_implementation);
    }
    EXPECT_EQ(bus.TakeSent().size(), 0U);
}

TYPED_TEST(ServiceTest, TheDescriptionIsThatOfTheTable) {
    const auto server = this->Serve(this->_bus);
    vector<string> leftOut;
    for (const auto& member : this->_members) {
        if (member.variesInSignature) {
            leftOut.push_back(member.name);
        }
    }
    EXPECT_EQ(CheckDescription(*server, leftOut), "");
}

vector<string> SplitSignature(const string& signature) {
    vector<string> types;
    for (std::size_t i = 0; i < signature.size(); ++i) {
        types.push_back(signature[i] == 'a' ? signature.substr(i++, 2) : signature.substr(i, 1));
    }
    return types;
}

void AppendSample(msgbus::MsgBusMsg& message, const string& type) {
    if (type == "s") {
        message << "x";
    } else if (type == "as") {
        message << vector<string>(1000000);
    } else if (type == "b") {
        message << true;
    } else if (type == "i") {
        message << 1;
    } else {
        ASSERT_EQ(type, "u");
        message << 1U;
    }
}

/// Calls with the arguments so far and a next one that is missing, wrong and huge. Then appends a right one.
void ExpectCheckedArgument(msgbus::MsgBus& bus, msgbus::MsgBusMsg& call, const string& type,
                           const string& prefix) {
    const string expected = "(expected type '" + type.substr(0, 1) + "'";
    msgbus::MsgBusMsg wrong(call);
    wrong << 0.5;
    msgbus::MsgBusMsg huge(call);
    huge << vector<int>(1000000);
    EXPECT_EQ(ErrorOfCall(bus, msgbus::MsgBusMsg(call)), prefix + "missing " + expected + ")");
    EXPECT_EQ(ErrorOfCall(bus, wrong), prefix + "mismatch " + expected + " but found type 'd')");
    EXPECT_EQ(ErrorOfCall(bus, huge), prefix + "mismatch " +
                                          (type == "as" ? "(expected type 's' but found type 'i')"
                                                        : expected + " but found type 'a')"));
    AppendSample(call, type);
}

TYPED_TEST(ServiceTest, SurvivesOnTheBusWhateverItIsCalledWith) {
    test::PrivateBus::Get();
    msgbus::MsgBus serverBus;
    const auto server = this->Serve(serverBus);
    serverBus.StartServer();
    msgbus::MsgBus clientBus;
    const auto client = this->Connect(clientBus);
    Arrivals arrivals;
    for (const auto& signal : this->_signals) {
        signal.listen(*client, arrivals);
    }
    clientBus.StartServer();

    const msgbus::MsgBusObjectSelector service(TypeParam::kName, TypeParam::kPath, TypeParam::kName);
    for (const auto& member : this->_members) {
        SCOPED_TRACE(member.name);
        const string prefix =
            string("DBUS call ") + TypeParam::kName + "::" + member.name + " failed: MsgBusMsg argument ";
        msgbus::MsgBusRemoteMethod call(service, member.name);
        for (const auto& type : SplitSignature(member.arguments)) {
            ExpectCheckedArgument(clientBus, call, type, prefix);
        }
        call << "more" << vector<int>(1000000);
        if (member.reply != nullptr) {
            EXPECT_EQ(ErrorOfCall(clientBus, call), "no exception");
        } else {
            clientBus.SendMsg(call);
        }
    }
    vector<string> fired;
    for (const auto& signal : this->_signals) {
        signal.fire(this->_implementation);
        fired.push_back(string(signal.name) + " " + signal.value);
    }
    EXPECT_TRUE(test::WaitUntil([&] { return arrivals.Get() == fired; }));
    for (const auto& member : this->_members) {
        EXPECT_EQ(member.call(*client), member.returned) << member.name;
    }
}

/// Returns the output of a shell command.
string OutputOf(const string& command) {
    const osa::Process::Result result = test::RunToEnd("sh", {"-c", command + " 2>&1"});
    EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
    return result.output;
}

bool HasProgram(const string& name) {
    return std::system(("command -v " + name + " >/dev/null").c_str()) == 0;
}

TYPED_TEST(ServiceTest, IsShownByGdbus) {
    if (!HasProgram("gdbus")) {
        GTEST_SKIP() << "there is no gdbus";
    }
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    const auto server = this->Serve(bus);
    bus.StartServer();
    const string shown = OutputOf(string("gdbus introspect --system --dest ") + TypeParam::kName +
                                  " --object-path " + TypeParam::kPath);
    EXPECT_NE(shown.find(string("interface ") + TypeParam::kName + " {"), string::npos) << shown;
    for (const auto& member : this->_members) {
        EXPECT_EQ(shown.find(string("      ") + member.name + "(") == string::npos, member.variesInSignature)
            << member.name;
    }
    for (const auto& signal : this->_signals) {
        EXPECT_NE(shown.find(string("      ") + signal.name + "("), string::npos) << signal.name;
    }
}

/// Reads the element from the file of an interface.
string ElementOf(const string& interface) {
    std::ifstream file(INTERFACES + interface + ".xml");
    std::ostringstream text;
    text << file.rdbuf();
    const string xml = text.str();
    const auto begin = xml.find("  <interface");
    return xml.substr(begin, xml.find("</node>") - begin);
}

string Introspect(msgbus::IMsgBus& bus, const char* name, const char* path) {
    const msgbus::MsgBusRemoteMethod call(
        msgbus::MsgBusObjectSelector(name, path, "org.freedesktop.DBus.Introspectable"), "Introspect");
    msgbus::MsgBusMsg* answer = nullptr;
    bus.SendMsgWaitForReply(call, answer, 30000);
    const std::unique_ptr<msgbus::MsgBusMsg> reply(answer);
    string xml;
    *reply >> xml;
    return xml;
}

/// Two services of one connection, and a client that asks for their descriptions.
class IntrospectionTest : public testing::Test {
protected:
    void SetUp() override { _serverBus.StartServer(); }

    Description Describe(const char* path) {
        return Description(Introspect(_clientBus, Security::kName, path));
    }
    static vector<string> With(const char* name) { return {kOwn[0], kOwn[1], name}; }

    static inline const vector<string> kOwn = {"org.freedesktop.DBus.Introspectable",
                                               "org.freedesktop.DBus.Peer"};
    test::PrivateBus& _privateBus = test::PrivateBus::Get();
    msgbus::MsgBus _serverBus;
    msgbus::MsgBus _clientBus;
    Security::Implementation _security;
    Networking::Implementation _networking;
    std::unique_ptr<InterfaceServer> _first{ISecurityProvider::CreateServer(&_serverBus, &_security)};
    std::unique_ptr<InterfaceServer> _second{INetworkingV2Provider::CreateServer(&_serverBus, &_networking)};
};

TEST_F(IntrospectionTest, ServicesOfOneConnectionDescribeThemselvesAndTheirParents) {
    // This object is of another connection and therefore not in the tree of the first.
    msgbus::MsgBus otherBus;
    IStreamInfoProvider streams;
    const std::unique_ptr<InterfaceServer> other(IStreamInfoProvider::CreateServer(&otherBus, &streams));
    for (const auto& [name, path] :
         {std::pair(Security::kName, Security::kPath), std::pair(Networking::kName, Networking::kPath)}) {
        const Description description = Describe(path);
        EXPECT_EQ(description.GetInterfaces(), With(name));
        EXPECT_EQ(description.GetChildren(), vector<string>());
        EXPECT_NE(Introspect(_clientBus, Security::kName, path).find(ElementOf(name)), string::npos) << name;
    }
    const std::pair<const char*, vector<string>> parents[] = {{"/", {"com"}},
                                                              {"/com", {"brelk"}},
                                                              {"/com/brelk", {"networkingV2", "system"}},
                                                              {"/com/brelk/system", {"security"}}};
    for (const auto& [path, children] : parents) {
        EXPECT_EQ(Describe(path).GetInterfaces(), kOwn) << path;
        EXPECT_EQ(Describe(path).GetChildren(), children) << path;
    }
    for (const char* path : {"/nowhere", "/com/brelk/sys", "/com/brelk/system/security/below"}) {
        EXPECT_EQ(
            ErrorOf([&] { Describe(path); }),
            string("DBUS call org.freedesktop.DBus.Introspectable::Introspect failed: There is no object ") +
                path);
    }
    EXPECT_EQ(
        ErrorOfCall(_clientBus, msgbus::MsgBusRemoteMethod(
                                    {Security::kName, Security::kPath, "org.freedesktop.DBus.Peer"}, "Ping")),
        "no exception");
    if (HasProgram("busctl")) {
        const string tree =
            OutputOf("busctl --address=" + _privateBus.GetAddress() + " --list tree " + Security::kName);
        EXPECT_NE(tree.find(string(Networking::kPath) + "\n"), string::npos) << tree;
        EXPECT_NE(tree.find(string(Security::kPath) + "\n"), string::npos) << tree;
    }
}

// Two servers of one service are one object. A destroyed object is not described any more.
TEST_F(IntrospectionTest, AnObjectIsDescribedUntilItsLastServerEnds) {
    INetworkingV2Provider more;
    std::unique_ptr<InterfaceServer> third(INetworkingV2Provider::CreateServer(&_serverBus, &more));
    EXPECT_EQ(Describe(Networking::kPath).GetInterfaces(), With(Networking::kName));
    _second.reset();
    EXPECT_EQ(Describe(Networking::kPath).GetInterfaces(), With(Networking::kName));
    third.reset();
    EXPECT_EQ(Describe("/com/brelk").GetChildren(), vector<string>{"system"});
}

TEST(Introspection, EveryFileIsThatOfAService) {
    std::set<string> files;
    for (const auto& entry : std::filesystem::directory_iterator(INTERFACES)) {
        files.insert(entry.path().filename().string());
    }
    std::set<string> expected = {"com.brelk.analytics.xml"};
    for (const char* name : {Security::kName, Networking::kName, StreamInfo::kName, PtzSerial::kName,
                             AudioLineOut::kName, SmRegistration::kName, BrelkServices::kName}) {
        expected.insert(string(name) + ".xml");
    }
    EXPECT_EQ(files, expected);
    // The signature of its signal varies, so it is not described.
    EXPECT_EQ(ElementOf("com.brelk.analytics"),
              "  <interface name=\"com.brelk.analytics\">\n  </interface>\n");
}

/// Calls as other libraries do. Returns the name of the error in the answer, or "".
string CallRaw(const string& destination, const string& path, const char* interface, const char* member) {
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    DBusMessage* const call =
        dbus_message_new_method_call(destination.c_str(), path.c_str(), interface, member);
    DBusMessage* const reply = dbus_connection_send_with_reply_and_block(connection, call, 60'000, &error);
    const string name = reply == nullptr ? error.name : "";
    if (reply != nullptr) {
        dbus_message_unref(reply);
    }
    dbus_error_free(&error);
    dbus_message_unref(call);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    return name;
}

TEST(ServicesOnTheBus, ServeTheirOwnPathAlsoToClientsThatNameNoInterface) {
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    PtzSerial::Implementation implementation;
    const std::unique_ptr<InterfaceServer> server(IPtzSerialProvider::CreateServer(&bus, &implementation));
    bus.StartServer();
    const char* const member = "GetPtzPollingState";
    for (const char* interface : {static_cast<const char*>(nullptr), PtzSerial::kName}) {
        EXPECT_EQ(CallRaw(PtzSerial::kName, PtzSerial::kPath, interface, member), "");
        EXPECT_EQ(CallRaw(PtzSerial::kName, "/nowhere", interface, member), DBUS_ERROR_UNKNOWN_OBJECT);
        EXPECT_EQ(CallRaw(PtzSerial::kName, PtzSerial::kPath, interface, "Missing"),
                  DBUS_ERROR_UNKNOWN_METHOD);
    }
    EXPECT_EQ(CallRaw(PtzSerial::kName, PtzSerial::kPath, nullptr, "Introspect"), "");
    // A name with the maximum length of a call. The answer must not repeat all of it, because the bus would
    // close the connection.
    const string path = "/" + string(33'554'432 - 152, 'x');
    EXPECT_EQ(CallRaw(PtzSerial::kName, path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"),
              DBUS_ERROR_UNKNOWN_OBJECT);
    EXPECT_EQ(CallRaw(PtzSerial::kName, PtzSerial::kPath, nullptr, member), "");
}

TEST(ServicesOnTheBus, TextThatIsNotUtf8NeverReachesIt) {
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    const char* const refused = "MsgBusMsg: text is not valid UTF-8!";
    const auto networking = std::unique_ptr<INetworkingV2Provider>(INetworkingV2Provider::CreateClient(&bus));
    const auto registration =
        std::unique_ptr<ISmRegistrationProvider>(ISmRegistrationProvider::CreateClient(&bus));
    const auto security = std::unique_ptr<ISecurityProvider>(ISecurityProvider::CreateClient(&bus));
    EXPECT_EQ(ErrorOf([&] { networking->Set("\xc3"); }), refused);
    EXPECT_EQ(ErrorOf([&] { registration->ForceRegister("\xff"); }), refused);
    EXPECT_EQ(ErrorOf([&] { security->DeleteUsers({"fine", "\xed\xa0\x80"}); }), refused);

    // The message of a service's exception.
    struct Broken : INetworkingV2Provider {
        string Get(const string&) override { return "\xff"; }
        string Set(const string&) override { throw osa::Exception("not \xff"); }
    } broken;
    msgbus::MsgBus serverBus;
    const std::unique_ptr<InterfaceServer> server(INetworkingV2Provider::CreateServer(&serverBus, &broken));
    serverBus.StartServer();
    EXPECT_EQ(ErrorOf([&] { networking->Get(""); }),
              string("DBUS call com.brelk.networkingV2::Get failed: ") + refused);
    EXPECT_EQ(ErrorOf([&] { networking->Set(""); }), "DBUS call com.brelk.networkingV2::Set failed: not ?");
    EXPECT_EQ(ErrorOf([&] { broken.HostnameChange.FireEvent("\xff"); }), refused);
}

TEST(ServicesOnTheBus, ANameThatIsNoneIsRefused) {
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    for (const char* name : {static_cast<const char*>(nullptr), "", "no name"}) {
        EXPECT_EQ(ErrorOf([&] { InterfaceServer(&bus, name); }), string("dbus_bus_request_name failed for ") +
                                                                     (name != nullptr ? name : "") +
                                                                     "Requested bus name is not valid");
    }
}

TEST(ServicesOnTheBus, OneWayMembersReturnAlsoWhereNobodyServes) {
    test::PrivateBus::Get();
    msgbus::MsgBus bus;
    const auto ptz = std::unique_ptr<IPtzSerialProvider>(IPtzSerialProvider::CreateClient(&bus));
    const auto registration =
        std::unique_ptr<ISmRegistrationProvider>(ISmRegistrationProvider::CreateClient(&bus));
    // More calls than the bus has room for replies.
    for (int i = 0; i < 200; ++i) {
        ptz->SetPtzPollingState(true);
        registration->ForceRegister("");
    }
    const string error = ErrorOf([&] { ptz->GetPtzPollingState(); });
    EXPECT_EQ(error.find("DBUS call com.brelk.hardware.ptzSerial::GetPtzPollingState failed: The name "), 0U)
        << error;
}

TEST(AudioLineOutQuery, HoldsWhatAMessageHolds) {
    FakeBus bus;
    AudioLineOut::Implementation implementation;
    const std::unique_ptr<InterfaceServer> server(IAudioLineOutProvider::CreateServer(&bus, &implementation));
    const std::unique_ptr<IAudioLineOutProvider> client(IAudioLineOutProvider::CreateClient(&bus));
    implementation._connections = 2;
    EXPECT_EQ(AudioLineOut::ShowQuery(*client), "who 6;who 6;");
    EXPECT_EQ(bus._replySignature, "isisi");
    implementation._connections = 127;
    EXPECT_EQ(client->Query().size(), 127U);
    implementation._connections = 128;
    EXPECT_EQ(ErrorOf([&] { client->Query(); }),
              Failed<AudioLineOut>("Query", "MsgBusMsg: too many arguments!"));
}

TEST(AudioLineOutQuery, DoesNotTrustTheCount) {
    struct {
        int count;
        const char* result;
    } const cases[] = {
        {0, ""},
        {1, "a 1;"},
        {2, "MsgBusMsg argument missing (expected type 's')"},
        {2147483647, "MsgBusMsg argument missing (expected type 's')"},
        {-1, ""},
        {-2147483647 - 1, ""},
    };
    for (const auto& row : cases) {
        FakeBus bus;
        test::FunctionHandler service([&](const msgbus::MsgBusMsg& call, msgbus::IMsgBus& replies) {
            const std::unique_ptr<msgbus::MsgBusMsg> reply(call.MakeReplyMsg());
            *reply << row.count << "a" << 1;
            replies.SendReply(*reply);
        });
        bus.RegisterDestinationName(AudioLineOut::kName);
        bus.RegisterMessageHandler("Query", AudioLineOut::kName, &service);
        const std::unique_ptr<IAudioLineOutProvider> client(IAudioLineOutProvider::CreateClient(&bus));
        string result;
        const string error = ErrorOf([&] { result = AudioLineOut::ShowQuery(*client); });
        EXPECT_EQ(error == "no exception" ? result : error, row.result) << row.count;
    }
}

}  // namespace
}  // namespace zarip::interfaces
