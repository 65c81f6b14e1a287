// SPDX-License-Identifier: MIT

#include "zarip/msgbus/FakeBus.h"

#include <csignal>
#include <future>
#include <thread>

#include "msgbus/BusFixture.h"
#include "zarip/msgbus/DescribedObject.h"
#include "zarip/msgbus/StopSignal.h"

namespace zarip::msgbus {
namespace {

/// The results of the calls of a service, and what the service has done.
class Scenario {
public:
    Scenario(IMsgBus& server, IMsgBus& client) : _server(server), _client(client) {}

    std::vector<string> Run() {
        FunctionHandler echo([this](const MsgBusMsg& call, IMsgBus& bus) { Echo(call, bus); },
                             IMessageHandler::kMethodCalls);
        FunctionHandler silent([](const MsgBusMsg&, IMsgBus&) {}, IMessageHandler::kMethodCalls);
        FunctionHandler listener = _heard.Handler();
        _server.RegisterDestinationName(kName);
        const DescribedObject object(&_server, kPath, kInterface, "<interface name=\"org.camera.test\"/>");
        _server.RegisterMessageHandler("Echo", kInterface, &echo);
        _server.RegisterMessageHandler("Silent", kInterface, &silent);
        _client.RegisterMessageHandler("Said", kInterface, &listener);
        _server.StartServer();
        _client.StartServer();
        Ask({kName, kPath, kInterface}, "Echo", "hello");
        Ask({kName, kPath, kInterface}, "Echo", "throw");
        Ask({kName, kPath, kInterface}, "Nothing", "x");
        Ask({kName, "/elsewhere", kInterface}, "Echo", "x");
        Ask({"org.camera.nobody", kPath, kInterface}, "Echo", "x");
        Ask({kName, kPath, "org.freedesktop.DBus.Introspectable"}, "Introspect", "");
        Ask({kName, "/org", "org.freedesktop.DBus.Introspectable"}, "Introspect", "");
        MsgBusMsg bare(MsgBusMsg::kMethodCall);
        bare.SetMsgDestination(kName);
        bare.SetMsgPath(kPath);
        bare.SetMsgName("Echo");
        bare << "without an interface";
        Ask(bare);
        Note(ErrorOf([&] { _client.SendMsg(MsgBusMsg(MsgBusMsg::kMethodCall)); }));
        Note(ErrorOf([&] { _client.RegisterDestinationName("no name"); }));
        MsgBusRemoteMethod oneWay(kService, "Echo");
        oneWay << "one-way";
        _client.SendMsg(oneWay);
        Note(ErrorOf([&] { oneWay.SetMsgName("Sent"); }));
        MsgBusRemoteMethod failing(kService, "Echo");
        failing << "throw";
        _client.SendMsg(failing);
        Ask({kName, kPath, kInterface}, "Echo", "last");
        EXPECT_TRUE(WaitUntil([&] { return _heard.Contains("last"); }));
        _server.UnregisterMessageHandler(&echo);
        Ask({kName, kPath, kInterface}, "Echo", "x");
        _server.UnregisterDestinationName(kName);
        Ask({kName, kPath, kInterface}, "Silent", "x");
        _server.StopServer();
        _client.StopServer();
        _client.UnregisterMessageHandler(&listener);
        _server.UnregisterMessageHandler(&silent);
        for (const string& text : _heard.Get()) {
            Note("heard " + text);
        }
        return _notes;
    }

private:
    void Echo(const MsgBusMsg& call, IMsgBus& bus) {
        string text;
        call >> text;
        if (text == "throw") {
            throw osa::Exception("thrown");
        }
        MsgBusSignal signal(kPath, kInterface, "Said");
        bus.SendMsg(signal << text);
        if (call.IsExpectingResponse()) {
            const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
            bus.SendReply(*reply << text << call.GetDestination() << call.GetSender().substr(0, 1));
        }
    }

    void Note(const string& text) { _notes.push_back(text); }

    void Ask(const MsgBusObjectSelector& object, const char* member, const char* argument) {
        MsgBusRemoteMethod call(object, member);
        Ask(call << argument);
    }
    void Ask(const MsgBusMsg& call) {
        const string error = ErrorOf([&] {
            MsgBusMsg* answer = nullptr;
            _client.SendMsgWaitForReply(call, answer, 5000);
            const std::unique_ptr<MsgBusMsg> reply(answer);
            string text;
            *reply >> text;
            Note(reply->GetType() + " " + reply->GetSignature() + " " + text);
        });
        Note(error);
    }

    IMsgBus& _server;
    IMsgBus& _client;
    Record _heard;
    std::vector<string> _notes;
};

TEST(FakeBusTest, BehavesAsARealBus) {
    PrivateBus::Get();
    MsgBus server;
    MsgBus client;
    const std::vector<string> real = Scenario(server, client).Run();
    FakeBus fake;
    EXPECT_EQ(Scenario(fake, fake).Run(), real);
    EXPECT_EQ(real.back(), "heard last");
}

TEST(FakeBusTest, ACallThatNobodyAnswersFailsAtOnce) {
    FakeBus bus;
    FunctionHandler silent([](const MsgBusMsg&, IMsgBus&) {});
    bus.RegisterDestinationName(kName);
    bus.RegisterMessageHandler("Silent", kInterface, &silent);
    EXPECT_EQ(ErrorOf([&] { test::Ask(bus, kService, "Silent", ""); }),
              "DBUS call org.camera.test::Silent failed: Did not receive a reply");
    EXPECT_FALSE(bus.IsRunning());
    bus.StartServer();
    EXPECT_TRUE(bus.IsRunning());
    EXPECT_EQ(bus.GetNames(), std::vector<string>{kName});
    const auto sent = bus.TakeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0]->GetName(), "Silent");
    EXPECT_EQ(bus.TakeSent().size(), 0U);
    bus.SendMsg(*sent[0]);  // sends it a second time
    EXPECT_EQ(bus.TakeSent().size(), 1U);
}

TEST(FakeBusTest, HandlersRunOneAtATimeAndSendersDoNotWaitForThem) {
    FakeBus bus;
    Record order;
    std::promise<void> isRunning;
    std::promise<void> mayEnd;
    FunctionHandler slow(
        [&](const MsgBusMsg& call, IMsgBus&) {
            isRunning.set_value();
            mayEnd.get_future().wait();
            order.Add("slow");
            const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
            bus.SendReply(*reply << "");
        },
        IMessageHandler::kMethodCalls);
    FunctionHandler listener = order.Handler();
    bus.RegisterDestinationName(kName);
    bus.RegisterMessageHandler("Slow", kInterface, &slow);
    bus.RegisterMessageHandler("Said", kInterface, &listener);
    std::thread caller([&] { test::Ask(bus, kService, "Slow", ""); });
    isRunning.get_future().wait();
    MsgBusSignal signal(kPath, kInterface, "Said");
    bus.SendMsg(signal << "signal");  // returns, because the calling thread delivers it
    mayEnd.set_value();
    caller.join();
    EXPECT_EQ(order.Get(), (std::vector<string>{"slow", "signal"}));
}

TEST(StopSignalTest, EndsAWaitAsTheLossOfTheBusDoes) {
    std::thread([] {
        const StopSignal stop;  // blocks the signals of this thread
        FakeBus bus;
        EXPECT_FALSE(stop.Wait(bus));
        bus.StartServer();
        for (const int signal : {SIGINT, SIGTERM}) {
            ::pthread_kill(::pthread_self(), signal);
            stop.Wait();
            ::pthread_kill(::pthread_self(), signal);
            EXPECT_TRUE(stop.Wait(bus));
        }
    }).join();
}

}  // namespace
}  // namespace zarip::msgbus
