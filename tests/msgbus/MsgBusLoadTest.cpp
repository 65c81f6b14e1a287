// SPDX-License-Identifier: MIT

// One connection when many threads use it, when the bus stops, and when strangers send.

#include <dbus/dbus.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "msgbus/BusFixture.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/Event.h"
#include "zarip/msgbus/MessageHandler.h"
#include "zarip/msgbus/MessageHandlerCollection.h"

namespace zarip::msgbus {
namespace {

class MsgBusLoadTest : public MsgBusTest {};

constexpr const char* kSendFailed = "dbus_connection_send failed";
constexpr const char* kNoException = "no exception";
constexpr std::size_t kTooLong = 33'600'000;

/// Owns a name and never answers.
struct HungService {
    HungService() {
        bus.RegisterDestinationName("org.camera.hung");
        bus.RegisterMessageHandler("Hang", kInterface, &hang);
        bus.StartServer();
    }
    std::atomic<bool> isCalled{false};
    FunctionHandler hang{[this](const MsgBusMsg&, IMsgBus&) { isCalled = true; }};
    MsgBus bus;
    MsgBusObjectSelector object{"org.camera.hung", kPath, kInterface};
};

std::future<string> AskInBackground(MsgBus& bus, const MsgBusObjectSelector& object, const char* member,
                                    int timeoutMs) {
    return std::async(std::launch::async, [&bus, object, member, timeoutMs] {
        return ErrorOf([&] { Ask(bus, object, member, "", timeoutMs); });
    });
}

bool IsPending(const std::future<string>& call) {
    return call.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
}

string UniqueNameOf(MsgBus& bus) {
    // The daemon addresses its reply to the unique name.
    const MsgBusObjectSelector daemon(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS);
    MsgBusMsg* answer = nullptr;
    bus.SendMsgWaitForReply(MsgBusRemoteMethod(daemon, "GetId"), answer, 30000);
    return std::unique_ptr<MsgBusMsg>(answer)->GetDestination();
}

/// Stops the bus and fills the socket, so that nothing more reaches the bus until it is thawed.
void FreezeWithFullSocket(MsgBus& bus) {
    PrivateBus::Get().Freeze();
    for (int i = 0; i < 2000; ++i) {
        Signal(bus, "Filling", string(200, 'x'));
    }
}

MsgBusSignal SignalTo(const string& destination, std::size_t size) {
    MsgBusSignal signal(kPath, kInterface, "Large");
    signal.SetMsgDestination(destination);
    signal << string(size, 'x');
    return signal;
}

// ------------------------------------------------------------------------------------------------------------
// Many threads

TEST_F(MsgBusLoadTest, HandlersRunAndOthersCallWhileACallWaits) {
    EchoService service;
    HungService hung;
    Record record;
    FunctionHandler changed = record.Handler();
    MsgBus client;
    client.RegisterMessageHandler("Changed", kInterface, &changed);
    client.StartServer();
    auto waiting = AskInBackground(client, hung.object, "Hang", 0x7FFFFFFF);
    EXPECT_TRUE(WaitUntil([&] { return hung.isCalled.load(); }));
    for (int i = 0; i < 20; ++i) {
        Signal(service.bus, "Changed", "s");
        EXPECT_EQ(Ask(client, kService, "Echo", "e"), "e");
    }
    EXPECT_TRUE(WaitUntil([&] { return record.Get().size() == 20; }));
    EXPECT_TRUE(IsPending(waiting));
    // Stopping does not wait for it either, and neither does registering.
    client.StopServer();
    client.RegisterDestinationName("org.camera.client");
    client.UnregisterMessageHandler(&changed);
    EXPECT_TRUE(IsPending(waiting));
    PrivateBus::Get().Kill();
    EXPECT_EQ(
        waiting.get(),
        "DBUS call org.camera.test::Hang failed: Connection was disconnected before a reply was received");
}

TEST_F(MsgBusLoadTest, SomebodyReadsWhileAHandlerTakesLong) {
    EchoService service;
    Gate gate;
    FunctionHandler slow([&](const MsgBusMsg&, IMsgBus&) { gate.Pass(); });
    MsgBus client;
    client.RegisterMessageHandler("Changed", kInterface, &slow);
    client.StartServer();
    const Gate::Opener opener(gate);
    const string address = UniqueNameOf(client);
    Signal(service.bus, "Changed", "");
    gate.WaitForEntry();
    const int before = CountEntries("/proc/self/fd");
    for (int i = 0; i < 40; ++i) {
        const MsgBusRemoteMethod call(MsgBusObjectSelector(address, kPath, kInterface), "Any");
        const int fd = STDERR_FILENO;
        dbus_message_append_args(call.GetDBusMessage(), DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
        service.bus.SendMsg(call);
    }
    // The connection itself answers this as soon as it is read.
    const MsgBusRemoteMethod ping(MsgBusObjectSelector(address, kPath, DBUS_INTERFACE_PEER), "Ping");
    MsgBusMsg* answer = nullptr;
    service.bus.SendMsgWaitForReply(ping, answer, 30000);
    delete answer;
    EXPECT_EQ(CountEntries("/proc/self/fd"), before + 16);  // no more messages with descriptors are kept
}

TEST_F(MsgBusLoadTest, WhatArrivesWhileTheServerStartsIsHandledAtOnce) {
    std::atomic<int> received{0};
    FunctionHandler counting([&](const MsgBusMsg&, IMsgBus&) { ++received; }, IMessageHandler::kSignals);
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &counting);
    MsgBus sender;
    MsgBusSignal signal(kPath, kInterface, "Changed");
    signal << std::vector<string>(9'000);  // takes some time to receive
    for (int round = 1; round <= 30; ++round) {
        sender.SendMsg(signal);
        receiver.StartServer();
        ASSERT_TRUE(WaitUntil([&] { return received == round; })) << round;
        receiver.StopServer();
    }
}

TEST_F(MsgBusLoadTest, ACallMayHoldALockThatAHandlerWants) {
    EchoService service;
    osa::Mutex mutex("of the program");
    Gate gate;
    FunctionHandler wanting([&](const MsgBusMsg&, IMsgBus&) {
        gate.Pass();
        const osa::MutexAutoLock lock(&mutex);
    });
    MsgBus client;
    client.RegisterMessageHandler("Changed", kInterface, &wanting);
    client.StartServer();
    const Gate::Opener opener(gate);
    {
        const osa::MutexAutoLock lock(&mutex);
        Signal(service.bus, "Changed", "");
        gate.WaitForEntry();
        gate.Open();
        EXPECT_EQ(Ask(client, kService, "Echo", "held"), "held");
    }
    client.UnregisterMessageHandler(&wanting);
}

TEST_F(MsgBusLoadTest, UnregisteringWaitsForNoOtherHandler) {
    EchoService service;
    Gate gate;
    FunctionHandler slow([&](const MsgBusMsg&, IMsgBus&) { gate.Pass(); });
    FunctionHandler other([](const MsgBusMsg&, IMsgBus&) {});
    MsgBus client;
    client.RegisterMessageHandler("Changed", kInterface, &slow);
    client.RegisterMessageHandler("Other", kInterface, &other);
    client.StartServer();
    const Gate::Opener opener(gate);
    Signal(service.bus, "Changed", "");
    gate.WaitForEntry();
    client.UnregisterMessageHandler(&other);
    gate.Open();
    client.StopServer();
    client.UnregisterMessageHandler(&slow);
}

TEST_F(MsgBusLoadTest, SendersWithoutAPauseAreNeverRefusedAndStarveNobody) {
    EchoService service;
    std::atomic<long> received{0};
    FunctionHandler counting([&](const MsgBusMsg&, IMsgBus&) { ++received; }, IMessageHandler::kSignals);
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &counting);
    receiver.StartServer();
    MsgBus client;
    std::atomic<bool> done{false};
    std::atomic<long> sent{0};
    std::vector<std::future<string>> senders;
    for (int t = 0; t < 4; ++t) {
        senders.push_back(std::async(std::launch::async, [&] {
            return ErrorOf([&] {
                for (; !done; ++sent) {
                    Signal(client, "Changed", "x");
                }
            });
        }));
    }
    FunctionHandler own([](const MsgBusMsg&, IMsgBus&) {});
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(Ask(client, kService, "Echo", "x"), "x");
        client.RegisterMessageHandler("Own", kInterface, &own);
        client.UnregisterMessageHandler(&own);
        client.StartServer();
        client.StopServer();
    }
    done = true;
    for (auto& sender : senders) {
        EXPECT_EQ(sender.get(), kNoException);
    }
    EXPECT_TRUE(WaitUntil([&] { return received == sent; }, std::chrono::seconds(60)));
}

// ------------------------------------------------------------------------------------------------------------
// A bus that pauses or stops

TEST_F(MsgBusLoadTest, TheFlowRecoversAsSoonAsAPausedBusReads) {
    std::atomic<int> received{0};
    FunctionHandler counting([&](const MsgBusMsg&, IMsgBus&) { ++received; }, IMessageHandler::kSignals);
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &counting);
    receiver.StartServer();
    MsgBus sender;
    PrivateBus::Get().Freeze();
    const string text(10'000, 'x');
    constexpr int kWhileFrozen = 3'000;  // more than a socket takes, less than an outbox
    constexpr int kTotal = 20'000;       // more than an outbox
    int refused = 0;
    for (int i = 0; i < kTotal; ++i) {
        if (i == kWhileFrozen) {
            PrivateBus::Get().Thaw();
        }
        refused += ErrorOf([&] { Signal(sender, "Changed", text); }) == kNoException ? 0 : 1;
    }
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(WaitUntil([&] { return received == kTotal; }, std::chrono::seconds(60)));
}

TEST_F(MsgBusLoadTest, OnAStoppedBusEverythingEndsAndMemoryIsBounded) {
    EchoService service;
    FunctionHandler handler([](const MsgBusMsg&, IMsgBus&) {});
    auto client = std::make_unique<MsgBus>();
    client->RegisterDestinationName("org.camera.client");
    for (const char* member : {"A", "B", "C", "D", "E", "F", "G"}) {
        client->RegisterMessageHandler(member, kInterface, &handler);
    }
    client->StartServer();
    PrivateBus::Get().Freeze();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ErrorOf([&] {
                  Ask(*client, kService, "Echo", "", 50);
              }).find("DBUS call org.camera.test::Echo failed: Did not receive a reply. Possible causes"),
              0U);
    int sent = 0;
    const MsgBusSignal empty(kPath, kInterface, "Changed");
    while (sent < 300'000 && ErrorOf([&] { client->SendMsg(empty); }) == kNoException) {
        ++sent;
    }
    EXPECT_LE(sent, 150'000) << "an empty message takes memory, too";
    EXPECT_EQ(ErrorOf([&] { Ask(*client, kService, "Echo", "", 50); }).find("DBUS call"), 0U);
    client->UnregisterMessageHandler(&handler);
    client->UnregisterDestinationName("org.camera.client");
    client.reset();
    // One time-out of libdbus would be 25 seconds; this is eight names and rules.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    PrivateBus::Get().Thaw();
}

TEST_F(MsgBusLoadTest, ACallThatTimedOutBeforeItWasSentIsNotSentLater) {
    Record record;
    FunctionHandler noting = record.Handler(IMessageHandler::kMethodCalls);
    Service service;
    service.Handle("Note", noting);
    service.bus.StartServer();
    MsgBus client;
    FreezeWithFullSocket(client);
    // All of these together and the marker are more than may wait.
    const string large(15'000'000, 'x');
    for (const string& late : {string("late"), large, large, large, large}) {
        EXPECT_NE(ErrorOf([&] { Ask(client, kService, "Note", late, 1); }), kNoException);
    }
    PrivateBus::Get().Thaw();
    MsgBusRemoteMethod note(kService, "Note");
    note << large + "marker";
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(note); }), kNoException);
    EXPECT_TRUE(WaitUntil([&] { return record.Contains(large + "marker"); }));
    EXPECT_EQ(record.Get().size(), 1U);
    service.bus.StopServer();
}

TEST_F(MsgBusLoadTest, ANameThatIsGivenUpOnAStoppedBusIsFreeAsSoonAsItReads) {
    MsgBus client;
    client.RegisterDestinationName("org.camera.client");
    FreezeWithFullSocket(client);
    test::LogCapture log(core::Logger::kError);
    client.UnregisterDestinationName("org.camera.client");
    EXPECT_TRUE(log.Contains("dbus_bus_release_name(org.camera.client) failed: Did not receive a reply."));
    PrivateBus::Get().Thaw();
    MsgBus other;
    EXPECT_TRUE(WaitUntil([&] {
        return ErrorOf([&] { other.RegisterDestinationName("org.camera.client"); }) == kNoException;
    }));
}

TEST_F(MsgBusLoadTest, TheLastLargeMessagesOfAConnectionArrive) {
    std::atomic<int> received{0};
    FunctionHandler counting([&](const MsgBusMsg&, IMsgBus&) { ++received; }, IMessageHandler::kSignals);
    MsgBus receiver;
    receiver.RegisterMessageHandler("Changed", kInterface, &counting);
    receiver.StartServer();
    const string text(900'000, 'x');
    for (int round = 1; round <= 50; ++round) {
        auto sender = std::make_unique<MsgBus>();
        Signal(*sender, "Changed", text);
        Signal(*sender, "Changed", text);
        sender.reset();
        ASSERT_TRUE(WaitUntil([&] { return received == 2 * round; })) << round;
    }
}

TEST_F(MsgBusLoadTest, ABusThatDiesWhileMuchIsHeldIsNoticed) {
    auto service = std::make_unique<Service>();
    FunctionHandler large = Answering([](const string&) { return string(30'000'000, 'x'); });
    service->Handle("Large", large);
    service->bus.StartServer();
    MsgBus client;
    client.StartServer();
    const auto replies = AskForLarge(client);
    PrivateBus::Get().Kill();
    EXPECT_TRUE(WaitUntil([&] { return !client.IsRunning(); }));
}

// ------------------------------------------------------------------------------------------------------------
// Strangers

TEST_F(MsgBusLoadTest, RepliesGetThroughWhateverStrangersSend) {
    EchoService service;
    test::LogCapture log(core::Logger::kWarning);
    Gate gate;
    FunctionHandler slow([&](const MsgBusMsg&, IMsgBus&) { gate.Pass(); });
    FunctionHandler large([](const MsgBusMsg&, IMsgBus&) {});
    MsgBus client;
    client.RegisterMessageHandler("Changed", kInterface, &slow);
    client.StartServer();
    const Gate::Opener opener(gate);
    MsgBus stranger;
    const string address = UniqueNameOf(client);
    Signal(service.bus, "Changed", "");
    gate.WaitForEntry();
    for (const bool registered : {false, true}) {
        if (registered) {
            client.RegisterMessageHandler("Large", kInterface, &large);
        }
        for (int i = 0; i < 6; ++i) {
            stranger.SendMsg(SignalTo(address, 15'000'000));
            EXPECT_EQ(Ask(client, kService, "Echo", "through"), "through");
        }
    }
    UniqueNameOf(
        stranger);  // answered after its signals were forwarded; the next call is answered after they arrived
    EXPECT_EQ(Ask(client, kService, "Echo", "through"), "through");
    EXPECT_EQ(log.Count("The handlers are too slow: dropping the oldest"), 1);

    // Calls are refused and not dropped.
    HungService hung;
    auto reading = AskInBackground(client, hung.object, "Hang", 0x7FFFFFFF);
    EXPECT_TRUE(WaitUntil([&] { return hung.isCalled.load(); }));
    const MsgBusObjectSelector object(address, kPath, kInterface);
    for (int i = 0; i < 4; ++i) {
        MsgBusRemoteMethod oneWay(object, "Any");
        oneWay << string(15'000'000, 'x');
        stranger.SendMsg(oneWay);
    }
    EXPECT_EQ(ErrorOf([&] { Ask(stranger, object, "Any", string(15'000'000, 'x')); }),
              "DBUS call org.camera.test::Any failed: Too many messages wait to be handled");
    gate.Open();
    EXPECT_EQ(ErrorOf([&] { Ask(stranger, object, "Any", ""); })
                  .find("DBUS call org.camera.test::Any failed: "
                        "Method \"Any\""),
              0U);
    client.StopServer();
    PrivateBus::Get().Kill();
    reading.get();
}

TEST_F(MsgBusLoadTest, NoCallEndsAService) {
    FunctionHandler throwing = Answering([](const string&) -> string {
        throw osa::Exception("%s", ("\xc3\xa4" + string(40'000'000, '\x7f')).c_str());
    });
    Service service;
    service.Handle("Throw", throwing);
    service.bus.StartServer();
    MsgBus client;
    const string error = ErrorOf([&] { Ask(client, kService, "Throw", ""); });
    EXPECT_EQ(error.substr(0, 45), "DBUS call org.camera.test::Throw failed: \xc3\xa4\x7f\x7f");
    EXPECT_LT(error.size(), 70'000U);
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Throw", ""); }), error);
}

/// A message, and the results of the ways to send it that keep the connection.
struct Hostile {
    string name;
    std::function<DBusMessage*()> make;
};

DBusMessage* Fill(DBusMessage* message, std::size_t size) {
    const string text(size, 'x');
    const char* const value = text.c_str();
    dbus_message_append_args(message, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    return message;
}

DBusMessage* Nest(DBusMessage* message, int depth) {
    std::vector<DBusMessageIter> levels(static_cast<std::size_t>(depth) + 1);
    dbus_message_iter_init_append(message, &levels[0]);
    for (std::size_t i = 1; i < levels.size(); ++i) {
        const char* const signature = i + 1 == levels.size() ? "i" : "v";
        dbus_message_iter_open_container(&levels[i - 1], DBUS_TYPE_VARIANT, signature, &levels[i]);
    }
    const int value = 1;
    dbus_message_iter_append_basic(&levels.back(), DBUS_TYPE_INT32, &value);
    for (std::size_t i = levels.size() - 1; i > 0; --i) {
        dbus_message_iter_close_container(&levels[i - 1], &levels[i]);
    }
    return message;
}

std::vector<Hostile> HostileMessages() {
    std::vector<Hostile> messages;
    for (const int type : {DBUS_MESSAGE_TYPE_METHOD_CALL, DBUS_MESSAGE_TYPE_METHOD_RETURN,
                           DBUS_MESSAGE_TYPE_ERROR, DBUS_MESSAGE_TYPE_SIGNAL, 7}) {
        const auto whole = [type] {
            DBusMessage* const message = dbus_message_new(type);
            dbus_message_set_path(message, kPath);
            dbus_message_set_interface(message, kInterface);
            dbus_message_set_member(message, "Member");
            dbus_message_set_destination(message, "org.camera.nobody");
            if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
                dbus_message_set_reply_serial(message, 4711);
                dbus_message_set_error_name(message, type == DBUS_MESSAGE_TYPE_ERROR ? "a.b" : nullptr);
            }
            return message;
        };
        const auto add = [&](const char* what, std::function<void(DBusMessage*)> change) {
            messages.push_back({string(what) + " of type " + std::to_string(type), [whole, change] {
                                    DBusMessage* const message = whole();
                                    change(message);
                                    return message;
                                }});
        };
        add("a bare message", [](DBusMessage*) {});
        add("no path", [](DBusMessage* m) { dbus_message_set_path(m, nullptr); });
        add("no interface", [](DBusMessage* m) { dbus_message_set_interface(m, nullptr); });
        add("no member", [](DBusMessage* m) { dbus_message_set_member(m, nullptr); });
        add("the local path", [](DBusMessage* m) { dbus_message_set_path(m, DBUS_PATH_LOCAL); });
        add("the local interface",
            [](DBusMessage* m) { dbus_message_set_interface(m, DBUS_INTERFACE_LOCAL); });
        add("a body that is too long", [](DBusMessage* m) { Fill(m, kTooLong); });
        add("a path that is too long",
            [](DBusMessage* m) { dbus_message_set_path(m, ("/" + string(kTooLong, 'x')).c_str()); });
        add("variants that are too deep", [](DBusMessage* m) { Nest(m, 70); });
        add("no destination", [](DBusMessage* m) { dbus_message_set_destination(m, nullptr); });
        add("the bus as destination",
            [](DBusMessage* m) { dbus_message_set_destination(m, DBUS_SERVICE_DBUS); });
        add("somebody else as sender", [](DBusMessage* m) { dbus_message_set_sender(m, ":1.0"); });
        add("no error name", [](DBusMessage* m) { dbus_message_set_error_name(m, nullptr); });
        add("the serial number of a reply", [](DBusMessage* m) { dbus_message_set_reply_serial(m, 1); });
        add("its own serial number", [](DBusMessage* m) { dbus_message_set_serial(m, 1); });
        add("a descriptor", [](DBusMessage* m) {
            const int fd = STDERR_FILENO;
            dbus_message_append_args(m, DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
        });
    }
    return messages;
}

/// Sends the message in several ways and returns whether the connection survives each of them. Failures are
/// written to standard error.
bool Survives(const Hostile& hostile) {
    MsgBus bus;
    const auto send = [&](const char* way, auto action) {
        const string error = ErrorOf(action);
        const bool isFine = error == kNoException || error == kSendFailed || error.find("DBUS call ") == 0;
        if (!isFine) {
            fprintf(stderr, "%s, %s: %s\n", hostile.name.c_str(), way, error.c_str());
        }
        // This is only answered if the daemon has kept the connection.
        return isFine && !UniqueNameOf(bus).empty();
    };
    const std::unique_ptr<DBusMessage, void (*)(DBusMessage*)> raw(hostile.make(), &dbus_message_unref);
    const MsgBusMsg wrapped(raw.get());
    const MsgBusMsg copy(wrapped);
    MsgBusMsg* reply = nullptr;
    bool survives = true;
    for (const MsgBusMsg* message : {&wrapped, &copy}) {
        survives = send("SendMsgWaitForReply",
                        [&] {
                            bus.SendMsgWaitForReply(*message, reply, 1000);
                            delete reply;
                        }) &&
                   send("SendMsg", [&] { bus.SendMsg(*message); }) &&
                   send("SendReply", [&] { bus.SendReply(*message); }) && survives;
    }
    return survives;
}

TEST_F(MsgBusLoadTest, NoMessageThatAProgramSendsLosesItsConnection) {
    for (const Hostile& hostile : HostileMessages()) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(ErrorOf([&] { EXPECT_TRUE(Survives(hostile)); }) == kNoException &&
                            !testing::Test::HasFailure()
                        ? 0
                        : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << hostile.name;
    }
}

TEST_F(MsgBusLoadTest, WhatIsAppendedBehindTheLibrarysBackCountsAsWell) {
    EchoService service;
    MsgBus client;
    MsgBusRemoteMethod call(kService, "Echo");
    call << "x";
    Fill(call.GetDBusMessage(), kTooLong);
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(call); }), kSendFailed);
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(MsgBusMsg(call)); }), kSendFailed);
    FunctionHandler handler([](const MsgBusMsg&, IMsgBus&) {});
    client.RegisterMessageHandler("Any", string(kTooLong, 'x'), &handler);
    client.UnregisterMessageHandler(&handler);

    // A received reply is not sent again, and other calls are not affected.
    MsgBusRemoteMethod good(kService, "Echo");
    good << "good";
    MsgBusMsg* answer = nullptr;
    client.SendMsgWaitForReply(good, answer, 30000);
    const std::unique_ptr<MsgBusMsg> reply(answer);
    EXPECT_EQ(ErrorOf([&] { client.SendMsg(*reply); }), kSendFailed);
    EXPECT_EQ(ErrorOf([&] { client.SendReply(*reply); }), kSendFailed);
    EXPECT_EQ(ErrorOf([&] { client.SendReply(MsgBusRemoteMethod(kService, "Echo")); }), kSendFailed);
    EXPECT_EQ(Ask(client, kService, "Echo", "alive"), "alive");
}

TEST_F(MsgBusLoadTest, ACallWithoutAnInterfaceReachesTheOneHandlerOfItsMember) {
    EchoService service;
    FunctionHandler other = Answering([](const string&) { return string("other"); });
    MsgBus client;
    const auto ask = [&] {
        MsgBusMsg call(MsgBusMsg::kMethodCall);
        call.SetMsgDestination(kName);
        call.SetMsgPath(kPath);
        call.SetMsgName("Echo");
        call << "x";
        MsgBusMsg* answer = nullptr;
        client.SendMsgWaitForReply(call, answer, 30000);
        string text;
        *std::unique_ptr<MsgBusMsg>(answer) >> text;
        return text;
    };
    EXPECT_EQ(ask(), "x");
    service.bus.RegisterMessageHandler("Echo", "org.camera.other", &other);
    EXPECT_EQ(ErrorOf(ask),
              "DBUS call ::Echo failed: Method \"Echo\" with signature \"s\" on interface \"\" "
              "doesn't exist\n");
    service.bus.UnregisterMessageHandler(&other);
}

// ------------------------------------------------------------------------------------------------------------
// Objects that are deleted by what they call

TEST_F(MsgBusLoadTest, AHandlerMayDeleteItself) {
    struct Once final : IMessageHandler {
        explicit Once(std::atomic<int>& deletions) : _deletions(deletions) {}
        ~Once() override { ++_deletions; }
        void HandleMessage(const MsgBusMsg&, IMsgBus& bus) override {
            bus.UnregisterMessageHandler(this);
            delete this;
            throw osa::Exception("from one that is gone");
        }
        std::atomic<int>& _deletions;
    };
    std::atomic<int> deletions{0};
    EchoService service;
    service.bus.RegisterMessageHandler("Once", kInterface, new Once(deletions));
    MsgBus client;
    EXPECT_EQ(ErrorOf([&] { Ask(client, kService, "Once", ""); }),
              "DBUS call org.camera.test::Once failed: from one that is gone");
    EXPECT_EQ(deletions, 1);
}

TEST_F(MsgBusLoadTest, AHandlerMayEndItsThreadAndTheConnectionLives) {
    EchoService service;
    FunctionHandler ending([](const MsgBusMsg&, IMsgBus&) { ::pthread_exit(nullptr); });
    service.Handle("End", ending);
    MsgBus client;
    client.SendMsg(MsgBusRemoteMethod(kService, "End"));
    EXPECT_TRUE(WaitUntil([&] { return !service.bus.IsRunning(); }));
    service.bus.StartServer();
    EXPECT_EQ(Ask(client, kService, "Echo", "again"), "again");
    service.bus.UnregisterMessageHandler(&ending);
}

TEST_F(MsgBusLoadTest, ACollectionOfHandlersMayBeDeletedByOneOfThem) {
    struct Owner {
        string Leave(const string& text) {
            handlers.reset();
            return text;
        }
        void OnSignal(const string&) { handlers.reset(); }
        std::unique_ptr<MessageHandlerCollection> handlers;
    } owner;
    EchoService service;
    MsgBus client;
    for (const bool isSignal : {false, true}) {
        owner.handlers = std::make_unique<MessageHandlerCollection>(&service.bus);
        owner.handlers->AddHandler(
            kInterface, "Leave",
            new MessageHandler1<string, string>(core::MakeDelegate(&owner, &Owner::Leave)));
        owner.handlers->AddHandler(
            kInterface, "Changed",
            new VoidMessageHandler1<string>(core::MakeDelegate(&owner, &Owner::OnSignal)));
        if (isSignal) {
            Signal(client, "Changed", "");
        } else {
            EXPECT_EQ(Ask(client, kService, "Leave", "gone"), "gone");
        }
        EXPECT_TRUE(WaitUntil([&] {
            return ErrorOf([&] { Ask(client, kService, "Missing", ""); }).find("Missing") != string::npos &&
                   !owner.handlers;
        }));
    }
}

TEST_F(MsgBusLoadTest, ProxiesComeAndGoUnderSignalsAndWaitingCalls) {
    EchoService service;
    MsgBus client;
    client.StartServer();
    std::atomic<bool> done{false};
    std::vector<std::future<string>> others;
    others.push_back(std::async(std::launch::async, [&] {
        return ErrorOf([&] {
            while (!done) {
                Signal(service.bus, "Changed", "x");
            }
        });
    }));
    for (int t = 0; t < 2; ++t) {
        others.push_back(std::async(std::launch::async, [&] {
            return ErrorOf([&] {
                while (!done) {
                    Ask(client, kService, "Echo", "x");
                }
            });
        }));
    }
    struct Proxy {
        explicit Proxy(MsgBus* bus) : handlers(bus) {
            handlers.AddHandler(kInterface, "Changed",
                                new VoidMessageHandler1<string>(
                                    core::MakeDelegate(&changed, &core::Event1<string>::FireEvent)));
        }
        core::Event1<string> changed;
        MessageHandlerCollection handlers;
    };
    for (int i = 0; i < 300; ++i) {
        Proxy proxy(&client);
    }
    done = true;
    for (auto& other : others) {
        EXPECT_EQ(other.get(), kNoException);
    }
    client.StopServer();
}

}  // namespace
}  // namespace zarip::msgbus
