// SPDX-License-Identifier: MIT

#include "support/InThreads.h"
#include "zarip/msgbus/MsgBus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "msgbus/BusFixture.h"
#include "zarip/core/Delegate.h"
#include "zarip/msgbus/MessageHandler.h"
#include "zarip/msgbus/MessageHandlerCollection.h"
#include "zarip/osa/Thread.h"

namespace zarip::msgbus {
namespace {

TEST_F(MsgBusTest, CarriesACallAndItsReplyBetweenConnections) {
    FunctionHandler echo = Answering([](const string& text) { return "<" + text + ">"; });
    Service service;
    service.Handle("Echo", echo);
    EXPECT_FALSE(service.bus.IsRunning());
    service.bus.StartServer();
    EXPECT_TRUE(service.bus.IsRunning());

    MsgBus client;
    EXPECT_EQ(Ask(client, kService, "Echo", "hello"), "<hello>");
    EXPECT_EQ(Ask(client, kService, "Echo", string(1'000'000, 'x')).size(), 1'000'002U);

    service.bus.StopServer();
    EXPECT_FALSE(service.bus.IsRunning());
    service.bus.StartServer(100'000, 5);
    EXPECT_EQ(Ask(client, kService, "Echo", "again"), "<again>");
}

TEST_F(MsgBusTest, WhatAServiceDoesNotTakeComesBackAsAnErrorAtOnce) {
    test::LogCapture log(core::Logger::kError);
    FunctionHandler echo = Answering([](const string& text) { return text; });
    FunctionHandler failing =
        Answering([](const string&) -> string { throw std::runtime_error("100%s broken"); });
    FunctionHandler odd = Answering([](const string&) -> string { throw 7; });
    FunctionHandler foul = Answering([](const string&) -> string { throw osa::Exception("%s", "\xff"); });
    Service service;
    service.Handle("Echo", echo);
    service.Handle("Failing", failing);
    service.Handle("Odd", odd);
    service.Handle("Foul", foul);
    service.bus.StartServer();
    MsgBus client;

    const string prefix = "DBUS call org.camera.test::";
    // These calls have no time limit, so only an answer ends them.
    EXPECT_EQ(ErrorOf([&] {
                  Ask(client, kService, "Missing", "", 0x7FFFFFFF);
              }).find(prefix + "Missing failed: Method \"Missing\""),
              0U);
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Failing", ""); }),
              prefix + "Failing failed: 100%s broken");
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Odd", ""); }), prefix + "Odd failed: unknown");
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Foul", ""); }), prefix + "Foul failed: ?");
    EXPECT_EQ(log.Count("MessageHandler threw exception: 100%s broken"), 1);
    EXPECT_EQ(log.Count("MessageHandler threw exception: unknown"), 1);

    MsgBusMsg* reply = nullptr;
    MsgBusRemoteMethod wrong(kService, "Echo");
    EXPECT_EQ(ErrorOf([&] { client.SendMsgWaitForReply(wrong, reply, -7); }),
              prefix + "Echo failed: MsgBusMsg argument missing (expected type 's')");
    MsgBusRemoteMethod worse(kService, "Echo");
    worse << 1;
    EXPECT_EQ(ErrorOf([&] { client.SendMsgWaitForReply(worse, reply, -1); }),
              prefix + "Echo failed: MsgBusMsg argument mismatch (expected type 's' but found type 'i')");
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(Ask(client, kService, "Echo", "alive"), "alive");
}

TEST_F(MsgBusTest, ACallWithoutServiceAndACallWithoutAnswerFail) {
    MsgBus client;
    const string error = ErrorOf([&] { Ask(client, kService, "Echo", ""); });
    EXPECT_EQ(error.find("DBUS call org.camera.test::Echo failed: The name org.camera.test"), 0U) << error;

    // The handler is made first, because a call may arrive after it has timed out, at the end of the test.
    FunctionHandler silent([](const MsgBusMsg&, IMsgBus&) {}, IMessageHandler::kMethodCalls);
    Service mute;
    mute.Handle("Echo", silent);
    mute.bus.StartServer();
    for (const int timeoutMs : {1, 0}) {
        auto call = std::async(std::launch::async, [&] {
            return ErrorOf([&] { Ask(client, kService, "Echo", "", timeoutMs); });
        });
        EXPECT_EQ(call.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        const string timeout = call.get();
        EXPECT_EQ(timeout.find("DBUS call org.camera.test::Echo failed: Did not receive a reply."), 0U)
            << timeout;
    }
}

TEST_F(MsgBusTest, OneConnectionOwnsANameAtATime) {
    auto first = std::make_unique<MsgBus>();
    MsgBus second;
    first->RegisterDestinationName(kName);
    first->RegisterDestinationName(kName);
    EXPECT_EQ(ErrorOf([&] { second.RegisterDestinationName(kName); }),
              "error requesting name or not primary owner");
    first->UnregisterDestinationName(kName);
    second.RegisterDestinationName(kName);
    second.UnregisterDestinationName(kName);
    first->RegisterDestinationName(kName);
    first.reset();
    second.RegisterDestinationName(kName);

    for (const string bad : {"", "no-dots", "a..b", "\xff.a", ":1.5"}) {
        EXPECT_EQ(ErrorOf([&] {
                      second.RegisterDestinationName(bad);
                  }).find("dbus_bus_request_name failed for " + bad),
                  0U);
    }
    test::LogCapture log(core::Logger::kError);
    second.UnregisterDestinationName("not a name");
    EXPECT_TRUE(log.Contains("dbus_bus_release_name(not a name) failed: "));
}

TEST_F(MsgBusTest, ASignalReachesEveryHandlerOfEveryConnectionAndNoHandlerOfCalls) {
    Record record;
    FunctionHandler first = record.Handler();
    FunctionHandler throwing([](const MsgBusMsg&, IMsgBus&) { throw "anything"; });
    FunctionHandler last = record.Handler(IMessageHandler::kBoth);
    FunctionHandler answering = Answering([&](const string& text) {
        record.Add("call");
        return text;
    });
    MsgBus receiver;
    MsgBus otherReceiver;
    for (IMessageHandler* handler :
         {static_cast<IMessageHandler*>(&first), static_cast<IMessageHandler*>(&throwing),
          static_cast<IMessageHandler*>(&last), static_cast<IMessageHandler*>(&answering)}) {
        receiver.RegisterMessageHandler("Changed", kInterface, handler);
    }
    otherReceiver.RegisterMessageHandler("Changed", kInterface, &first);
    receiver.StartServer();
    otherReceiver.StartServer();

    MsgBus sender;
    Signal(sender, "Changed", "a");
    Signal(sender, "Changed", "b");
    ASSERT_TRUE(WaitUntil([&] { return record.Get().size() == 6; }));
    auto texts = record.Get();
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<string>{"a", "a", "a", "b", "b", "b"}));
    receiver.StopServer();
    otherReceiver.StopServer();
}

TEST_F(MsgBusTest, AHandlerMayCallOnItsOwnConnection) {
    FunctionHandler echo = Answering([](const string& text) { return text; });
    Service service;
    service.Handle("Echo", echo);
    service.bus.StartServer();

    Record record;
    MsgBus client;
    FunctionHandler asking([&](const MsgBusMsg& message, IMsgBus& bus) {
        string text;
        message >> text;
        record.Add(Ask(bus, kService, "Echo", text));
    });
    client.RegisterMessageHandler("Changed", kInterface, &asking);
    client.StartServer();
    MsgBus sender;
    for (int i = 0; i < 100; ++i) {
        Signal(sender, "Changed", std::to_string(i));
    }
    ASSERT_TRUE(WaitUntil([&] { return record.Get().size() == 100; }));
    EXPECT_EQ(record.Get().back(), "99");
    client.StopServer();
}

TEST_F(MsgBusTest, TenThousandWaitingCallsWorkWithoutAListenThread) {
    Service service;
    FunctionHandler echo = Answering([&](const string& text) {
        Signal(service.bus, "Noise", text);
        return text;
    });
    service.Handle("Echo", echo);
    service.bus.StartServer();
    MsgBus client;
    FunctionHandler unheard([](const MsgBusMsg&, IMsgBus&) {});
    client.RegisterMessageHandler("Noise", kInterface, &unheard);
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_EQ(Ask(client, kService, "Echo", "x"), "x") << i;
    }
}

TEST_F(MsgBusTest, WhatArrivesBeforeStartServerIsHandledThenAndOnce) {
    Record record;
    FunctionHandler handler = record.Handler();
    FunctionHandler echo = Answering([](const string& text) { return "late " + text; });
    Service service;
    service.Handle("Changed", handler);
    service.Handle("Echo", echo);
    MsgBus client;
    Signal(client, "Changed", "early");
    auto answer = std::async(std::launch::async, [&] { return Ask(client, kService, "Echo", "call"); });
    auto refusal = std::async(std::launch::async, [] {
        MsgBus other;
        return ErrorOf([&] { Ask(other, kService, "Missing", ""); });
    });
    service.bus.StartServer();
    EXPECT_EQ(answer.get(), "late call");
    EXPECT_EQ(refusal.get().find("DBUS call org.camera.test::Missing failed: Method \"Missing\""), 0U);

    service.bus.StopServer();
    Signal(client, "Changed", "while stopped");
    service.bus.StartServer();
    Signal(client, "Changed", "marker");
    ASSERT_TRUE(WaitUntil([&] { return record.Contains("marker"); }));
    EXPECT_EQ(record.Get(), (std::vector<string>{"early", "while stopped", "marker"}));
    service.bus.StopServer();
}

TEST_F(MsgBusTest, KeepsTheThousandNewestMessagesWhileNobodyListens) {
    test::LogCapture log(core::Logger::kWarning);
    Record record;
    FunctionHandler handler = record.Handler();
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &handler);
    MsgBus sender;
    for (int i = 0; i < 1500; ++i) {
        Signal(sender, "Changed", std::to_string(i));
    }
    // The sender's call is answered after its signals were forwarded, and the receiver's after they arrived.
    sender.RegisterDestinationName("org.camera.marker");
    receiver.RegisterDestinationName("org.camera.other");
    receiver.StartServer();
    Signal(sender, "Changed", "marker");
    ASSERT_TRUE(WaitUntil([&] { return record.Contains("marker"); }));
    const auto texts = record.Get();
    EXPECT_GE(texts.size(), 999U);
    EXPECT_LE(texts.size(), 1001U);
    EXPECT_EQ(texts[texts.size() - 2], "1499");
    EXPECT_EQ(log.Count("Nobody listens"), 1);
    receiver.StopServer();
}

TEST_F(MsgBusTest, LargeMessagesThatNobodyTakesDoNotKeepRepliesAway) {
    FunctionHandler handler([](const MsgBusMsg&, IMsgBus&) {});
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &handler);
    MsgBus sender;
    for (const char* name : {"org.camera.a", "org.camera.b", "org.camera.c", "org.camera.d"}) {
        for (int i = 0; i < 25; ++i) {
            Signal(sender, "Changed", string(1024 * 1024, 'x'));
        }
        // One call is answered after the signals were forwarded, the other after they arrived.
        sender.RegisterDestinationName(kName);
        EXPECT_EQ(ErrorOf([&] { receiver.RegisterDestinationName(name); }), "no exception");
    }
}

TEST_F(MsgBusTest, ReadingGoesOnOnceLargeRepliesAreGone) {
    Record record;
    FunctionHandler large = Answering([](const string&) { return string(30 * 1024 * 1024, 'x'); });
    FunctionHandler handler = record.Handler();
    Service service;
    service.Handle("Large", large);
    service.bus.StartServer();
    for (const bool listens : {false, true}) {
        MsgBus client;
        client.RegisterMessageHandler("Changed", kInterface, &handler);
        if (listens) {
            client.StartServer();
        }
        auto replies = AskForLarge(client);
        replies.clear();
        Signal(service.bus, "Changed", listens ? "to the listener" : "to be kept");
        if (!listens) {
            // The listen thread gets the messages that the watcher has read, although it starts reading
            // later.
            client.StartServer();
        }
        EXPECT_TRUE(WaitUntil([&] { return record.Get().size() == (listens ? 2U : 1U); }));
    }
}

TEST_F(MsgBusTest, OneWayCallsAreNotAnsweredAndNeverFillTheBusWithPendingReplies) {
    std::atomic<int> calls{0};
    std::atomic<bool> expecting{false};
    FunctionHandler count([&](const MsgBusMsg& message, IMsgBus&) {
        expecting = expecting || message.IsExpectingResponse();
        ++calls;
        throw osa::Exception("nobody wants to know");
    });
    FunctionHandler echo = Answering([](const string& text) { return text; });
    Service service;
    service.Handle("Count", count);
    service.Handle("Echo", echo);
    service.bus.StartServer();
    MsgBus client;
    MsgBusRemoteMethod call(kService, "Count");
    for (int i = 0; i < 1000; ++i) {
        client.SendMsg(call);
    }
    EXPECT_EQ(Ask(client, kService, "Echo", "still there"), "still there");
    EXPECT_EQ(calls, 1000);
    EXPECT_FALSE(expecting);
    EXPECT_EQ(ErrorOf([&] { call << 1; }), "MsgBusMsg: trying to append to a sent msg!");
    EXPECT_EQ(ErrorOf([&] { call.SetMsgName("Other"); }), "dbus_message_set_member failed");
    MsgBusMsg* reply = nullptr;
    MsgBusMsg copy(call);
    for (const MsgBusMsg* waiting : {&static_cast<const MsgBusMsg&>(call), &std::as_const(copy)}) {
        EXPECT_EQ(ErrorOf([&] { client.SendMsgWaitForReply(*waiting, reply, 30000); }),
                  "DBUS call org.camera.test::Count failed: nobody wants to know");
    }
}

TEST_F(MsgBusTest, AHandlerMayPassItsCallOnAndStillAnswers) {
    std::atomic<int> passedOn{0};
    FunctionHandler relay = FunctionHandler([&](const MsgBusMsg& call, IMsgBus& bus) {
        if (!call.IsExpectingResponse()) {
            ++passedOn;
            return;
        }
        bus.SendMsg(call);
        EXPECT_TRUE(call.IsExpectingResponse());
        const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
        *reply << "done";
        bus.SendReply(*reply);
    });
    Service service;
    service.Handle("Relay", relay);
    service.bus.StartServer();
    MsgBus client;
    EXPECT_EQ(Ask(client, kService, "Relay", ""), "done");
    EXPECT_TRUE(WaitUntil([&] { return passedOn == 1; }));
}

TEST_F(MsgBusTest, OneWayMessagesDoNotWaitForACallOfAnotherThread) {
    Record record;
    osa::Semaphore entered("entered", 1, 0);
    osa::Semaphore release("release", 1, 0);
    FunctionHandler slow = Answering([&](const string& text) {
        entered.Release();
        release.Lock();
        return text;
    });
    FunctionHandler changed = record.Handler();
    Service service;
    service.Handle("Slow", slow);
    service.bus.StartServer();
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &changed);
    receiver.StartServer();

    MsgBus client;
    auto call = std::async(std::launch::async, [&] { return Ask(client, kService, "Slow", "done"); });
    entered.Lock();
    for (int i = 0; i < 100; ++i) {
        Signal(client, "Changed", std::to_string(i));
    }
    EXPECT_EQ(call.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    release.Release();
    EXPECT_EQ(call.get(), "done");
    ASSERT_TRUE(WaitUntil([&] { return record.Get().size() == 100; }));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(record.Get()[static_cast<std::size_t>(i)], std::to_string(i));
    }
    receiver.StopServer();
}

TEST_F(MsgBusTest, RefusesWhatWouldCostTheConnection) {
    FunctionHandler echo = Answering([](const string& text) { return text; });
    FunctionHandler huge = Answering([](const string&) { return string(40 * 1024 * 1024, 'x'); });
    Service service;
    service.Handle("Echo", echo);
    service.Handle("Huge", huge);
    service.bus.StartServer();
    MsgBus client;
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Echo", string(40 * 1024 * 1024, 'x')); }),
              "dbus_connection_send failed");
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Huge", ""); }),
              "DBUS call org.camera.test::Huge failed: dbus_connection_send failed");
    MsgBusMsg bare(MsgBusMsg::kMethodCall);
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(bare); }), "dbus_connection_send failed");
    bare.SetMsgName("NoPath");
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(bare); }), "dbus_connection_send failed");
    MsgBusMsg signal(MsgBusMsg::kSignal);
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(signal); }), "dbus_connection_send failed");
    EXPECT_EQ(Ask(client, kService, "Echo", "alive"), "alive");
}

TEST_F(MsgBusTest, AFrozenBusNeitherHangsNorFillsASender) {
    MsgBus sender;
    MsgBusRemoteMethod call(kService, "Echo");
    sender.SendMsg(call);
    const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
    PrivateBus::Get().Freeze();
    const string text(1024 * 1024, 'x');
    int sent = 0;
    string error;
    while (error.empty() && sent < 100) {
        error = ErrorOf([&] { Signal(sender, "Changed", text); });
        if (error == "no exception") {
            error.clear();
            ++sent;
        }
    }
    test::LogCapture log(core::Logger::kError);
    *reply << text;
    sender.SendReply(*reply);
    EXPECT_TRUE(log.Contains("dbus_connection_send() error: Out of Memory!"));
    PrivateBus::Get().Thaw();
    EXPECT_EQ(error, "dbus_connection_send failed");
    EXPECT_GE(sent, 60);
    EXPECT_LE(sent, 70);
    sender.RegisterDestinationName("org.camera.thawed");
}

TEST_F(MsgBusTest, UnregisteringWaitsForARunningCallOfTheHandler) {
    osa::Semaphore entered("entered", 1, 0);
    osa::Semaphore release("release", 1, 0);
    std::atomic<bool> running{false};
    FunctionHandler slow = Answering([&](const string& text) {
        running = true;
        entered.Release();
        release.Lock();
        running = false;
        return text;
    });
    Service service;
    service.Handle("Slow", slow);
    service.bus.StartServer();
    MsgBus client;
    auto call = std::async(std::launch::async, [&] { return Ask(client, kService, "Slow", "done"); });
    entered.Lock();
    auto unregister = std::async(std::launch::async, [&] {
        service.bus.UnregisterMessageHandler(&slow);
        return running.load();
    });
    EXPECT_EQ(unregister.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
    release.Release();
    EXPECT_FALSE(unregister.get());
    EXPECT_EQ(call.get(), "done");
    EXPECT_NE(ErrorOf([&] { Ask(client, kService, "Slow", ""); }).find("Method \"Slow\""), string::npos);

    test::LogCapture log(core::Logger::kError);
    service.bus.UnregisterMessageHandler(&slow);
    EXPECT_EQ(log.Count("Failed to unregister message handler: "), 1);
}

TEST_F(MsgBusTest, AHandlerMayUnregisterItselfAndStopItsConnection) {
    Record record;
    MsgBus receiver;
    FunctionHandler once([&](const MsgBusMsg&, IMsgBus& bus) {
        record.Add("once");
        bus.UnregisterMessageHandler(&once);
    });
    FunctionHandler stopping([&](const MsgBusMsg&, IMsgBus& bus) { bus.StopServer(); });
    receiver.RegisterMessageHandler("Changed", kInterface, &once);
    receiver.RegisterMessageHandler("Stop", kInterface, &stopping);
    receiver.StartServer();
    MsgBus sender;
    Signal(sender, "Changed", "");
    Signal(sender, "Changed", "");
    Signal(sender, "Stop", "");
    ASSERT_TRUE(WaitUntil([&] { return !receiver.IsRunning(); }));
    EXPECT_EQ(record.Get(), std::vector<string>{"once"});
    receiver.StartServer();
    EXPECT_TRUE(receiver.IsRunning());
}

TEST_F(MsgBusTest, AHandlerTakesItsOwnStopBackButNotOneThatSomebodyWaitsFor) {
    osa::Semaphore entered("entered", 1, 0);
    osa::Semaphore release("release", 1, 0);
    std::atomic<int> runs{0};
    FunctionHandler restarting([&](const MsgBusMsg&, IMsgBus& bus) {
        bus.StopServer();
        if (++runs == 2) {
            entered.Release();
            release.Lock();
        }
        bus.StartServer();
    });
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &restarting);
    receiver.StartServer();
    MsgBus sender;
    Signal(sender, "Changed", "");
    Signal(sender, "Changed", "");
    entered.Lock();
    test::LogCapture log;
    auto stop = std::async(std::launch::async, [&] { receiver.StopServer(); });
    EXPECT_TRUE(WaitUntil([&] { return log.Contains("joining the listen thread..."); }));
    release.Release();
    stop.get();
    EXPECT_FALSE(receiver.IsRunning());
}

TEST_F(MsgBusTest, RulesThatTheBusRefusesAreLogged) {
    test::LogCapture log(core::Logger::kTrace);
    FunctionHandler handler([](const MsgBusMsg&, IMsgBus&) {});
    MsgBus bus;
    bus.RegisterMessageHandler("Member", "org.camera", &handler);
    EXPECT_TRUE(log.Contains("Registering interface org.camera and name Member for callback"));
    EXPECT_TRUE(log.Contains("Match rule applied: interface='org.camera',member='Member'"));
    bus.RegisterMessageHandler("it's", "org.camera", &handler);
    EXPECT_TRUE(log.Contains("dbus_bus_add_match(interface='org.camera',member='it's') failed: "));
    bus.RegisterMessageHandler("\xff", "org.camera", &handler);
    EXPECT_EQ(log.Count("failed: Match rule is not valid UTF-8"), 1);
    bus.UnregisterMessageHandler(&handler);
    EXPECT_TRUE(log.Contains("Calling dbus_bus_remove_match(interface='org.camera',member='Member')"));
    EXPECT_TRUE(log.Contains("Match rule removed: interface='org.camera',member='Member'"));
}

TEST_F(MsgBusTest, ManyThreadsShareAConnection) {
    std::atomic<int> signals{0};
    FunctionHandler echo = Answering([](const string& text) { return text; });
    FunctionHandler changed([&](const MsgBusMsg&, IMsgBus&) { ++signals; });
    Service service;
    service.Handle("Echo", echo);
    service.Handle("Changed", changed);
    service.bus.StartServer();
    MsgBus client;
    client.StartServer();
    std::vector<std::future<int>> threads;
    for (int t = 0; t < 8; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            int good = 0;
            FunctionHandler own([](const MsgBusMsg&, IMsgBus&) {});
            for (int i = 0; i < 50; ++i) {
                const string text = std::to_string(t) + "/" + std::to_string(i);
                good += Ask(client, kService, "Echo", text) == text ? 1 : 0;
                Signal(client, "Changed", text);
                client.RegisterMessageHandler("Own" + std::to_string(t), kInterface, &own);
                client.UnregisterMessageHandler(&own);
            }
            return good;
        }));
    }
    for (auto& thread : threads) {
        EXPECT_EQ(thread.get(), 50);
    }
    EXPECT_TRUE(WaitUntil([&] { return signals == 400; }));
    service.bus.StopServer();
}

TEST_F(MsgBusTest, ConnectionsMadeAndDestroyedInALoopLeaveNothingBehind) {
    { MsgBus warmUp; }
    const int descriptors = CountEntries("/proc/self/fd");
    const int threads = CountEntries("/proc/self/task");
    test::InThreads(4, [](int) {
        for (int i = 0; i < 25; ++i) {
            MsgBus bus;
            if (i % 2 == 0) {
                bus.StartServer();
            }
            Signal(bus, "Changed", "x");
        }
    });
    EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    EXPECT_TRUE(WaitUntil([&] { return CountEntries("/proc/self/task") == threads; }));
}

TEST_F(MsgBusTest, TheLastOneWayMessagesOfAConnectionArrive) {
    Record record;
    FunctionHandler handler = record.Handler();
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &handler);
    receiver.StartServer();
    {
        MsgBus sender;
        for (int i = 0; i < 2000; ++i) {
            Signal(sender, "Changed", std::to_string(i) + string(1000, '.'));
        }
    }
    EXPECT_TRUE(WaitUntil([&] { return record.Get().size() == 2000; }));
    receiver.StopServer();
}

class LostBusTest : public MsgBusTest {
protected:
    void Kill() { PrivateBus::Get().Kill(); }

    void ExpectLost(MsgBus& bus) {
        EXPECT_TRUE(WaitUntil([&] { return !bus.IsRunning(); }));
        EXPECT_EQ(ErrorOf([&] { Ask(bus, kService, "Echo", "", 0x7FFFFFFF); }),
                  "DBUS call org.camera.test::Echo failed: Connection is closed");
        EXPECT_EQ(ErrorOf([&] { Signal(bus, "Changed", ""); }), "dbus_connection_send failed");
        EXPECT_EQ(
            ErrorOf([&] { bus.RegisterDestinationName("a.b"); }).find("dbus_bus_request_name failed for a.b"),
            0U);
        bus.UnregisterDestinationName("a.b");
        bus.StopServer();
    }
};

TEST_F(LostBusTest, IsNoticedWhileIdleWithOneErrorLine) {
    test::LogCapture log(core::Logger::kError);
    FunctionHandler handler([](const MsgBusMsg&, IMsgBus&) {});
    MsgBus listening;
    MsgBus silent;
    listening.RegisterMessageHandler("Changed", kInterface, &handler);
    listening.StartServer();
    Kill();
    EXPECT_TRUE(WaitUntil([&] { return log.Count("The connection to the bus is lost") == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return !listening.IsRunning(); }));
    listening.UnregisterMessageHandler(&handler);
    EXPECT_EQ(log.Messages().size(), 2U);
    ExpectLost(listening);
    ExpectLost(silent);
    silent.StartServer();
    EXPECT_TRUE(WaitUntil([&] { return !silent.IsRunning(); }));
    const string error = ErrorOf([] { MsgBus(); });
    EXPECT_EQ(error.find("dbus_bus_get_private failed: "), 0U) << error;
}

TEST_F(LostBusTest, EndsAWaitingCallAndAHandlerThatRuns) {
    auto service = std::make_unique<Service>();
    osa::Semaphore entered("entered", 1, 0);
    osa::Semaphore release("release", 1, 0);
    FunctionHandler slow = Answering([&](const string& text) {
        entered.Release();
        release.Lock();
        return text;
    });
    service->Handle("Echo", slow);
    service->bus.StartServer();
    MsgBus client;
    client.StartServer();
    auto call = std::async(std::launch::async,
                           [&] { return ErrorOf([&] { Ask(client, kService, "Echo", "", 0x7FFFFFFF); }); });
    entered.Lock();
    // Messages without arguments also fill the outbox.
    PrivateBus::Get().Freeze();
    const MsgBusSignal signal(kPath, kInterface, "Changed");
    string refused = "no exception";
    for (int i = 0; i < 200'000 && refused == "no exception"; ++i) {
        refused = ErrorOf([&] { client.SendMsg(signal); });
    }
    EXPECT_EQ(refused, "dbus_connection_send failed");
    test::LogCapture log(core::Logger::kError);
    Kill();
    EXPECT_EQ(call.get().find("DBUS call org.camera.test::Echo failed: "), 0U);
    release.Release();
    EXPECT_EQ(log.Count("queued messages are lost"), 1);
    ExpectLost(client);
    ExpectLost(service->bus);
    service.reset();

    PrivateBus::Get().Start();
    MsgBus fresh;
    fresh.RegisterDestinationName(kName);
}

TEST_F(LostBusTest, ThreadsThatSendAndCallMeanwhileAllReturn) {
    MsgBus client;
    client.StartServer();
    std::atomic<int> started{0};
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            ++started;
            for (string error = "no exception"; error == "no exception";) {
                error = ErrorOf([&] {
                    if (t % 2 == 0) {
                        Signal(client, "Changed", "x");
                    } else {
                        client.RegisterDestinationName(kName);
                    }
                });
            }
        }));
    }
    WaitUntil([&] { return started == 4; });
    Kill();
    for (auto& thread : threads) {
        thread.get();
    }
    ExpectLost(client);
}

TEST_F(LostBusTest, IsNoticedAlsoWhereOnlyASenderMeetsIt) {
    for (int round = 0; round < 10; ++round) {
        PrivateBus::Get();
        MsgBus client;
        client.StartServer();
        std::atomic<bool> started{false};
        auto sender = std::async(std::launch::async, [&] {
            while (ErrorOf([&] { Signal(client, "Changed", "x"); }) == "no exception") {
                started = true;
            }
        });
        WaitUntil([&] { return started.load(); });
        Kill();
        sender.get();
        EXPECT_TRUE(WaitUntil([&] { return !client.IsRunning(); }));
    }
}

struct Pair {
    int number = 0;
    string text;
};

MsgBusMsgArgumentReader& operator>>(MsgBusMsgArgumentReader& reader, Pair& pair) {
    return reader >> pair.number >> pair.text;
}

MsgBusMsg& operator<<(MsgBusMsg& message, const Pair& pair) {
    return message << pair.number << pair.text;
}

class Counter {
public:
    int Get() { return _value; }
    void Reset() { _value = 0; }
    void Add(const int& amount) { _value += amount; }
    Pair Swap(Pair pair) { return {static_cast<int>(pair.text.size()), std::to_string(pair.number)}; }

private:
    std::atomic<int> _value{0};
};

TEST_F(MsgBusTest, HandlerTemplatesReadArgumentsCallAndReply) {
    Service service;
    Counter counter;
    service.bus.StartServer();
    MsgBus client;
    {
        MessageHandlerCollection handlers(&service.bus);
        handlers.AddHandler(kInterface, "Get",
                            new MessageHandler0<int>(core::MakeDelegate(&counter, &Counter::Get)));
        handlers.AddHandler(kInterface, "Reset",
                            new VoidMessageHandler0(core::MakeDelegate(&counter, &Counter::Reset)));
        handlers.AddHandler(kInterface, "Add",
                            new VoidMessageHandler1<int>(core::MakeDelegate(&counter, &Counter::Add)));
        handlers.AddHandler(kInterface, "Swap",
                            new MessageHandler1<Pair, Pair>(core::MakeDelegate(&counter, &Counter::Swap)));
        MsgBusRemoteMethod add(kService, "Add");
        add << 5 << "superfluous";
        client.SendMsg(add);
        MsgBusMsg* answer = nullptr;
        client.SendMsgWaitForReply(MsgBusRemoteMethod(kService, "Get"), answer, 30000);
        std::unique_ptr<MsgBusMsg> reply(answer);
        int value = 0;
        *reply >> value;
        EXPECT_EQ(value, 5);

        MsgBusRemoteMethod swap(kService, "Swap");
        swap << Pair{42, "four"};
        client.SendMsgWaitForReply(swap, answer, 30000);
        reply.reset(answer);
        Pair pair;
        MsgBusMsgArgumentReader reader(*reply);
        reader >> pair;
        EXPECT_EQ(pair.number, 4);
        EXPECT_EQ(pair.text, "42");
    }
    EXPECT_NE(ErrorOf([&] { Ask(client, kService, "Get", ""); }).find("Method \"Get\""), string::npos);
}

}  // namespace
}  // namespace zarip::msgbus
