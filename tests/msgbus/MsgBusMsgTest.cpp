// SPDX-License-Identifier: MIT

#include "zarip/msgbus/MsgBusMsg.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <limits>

#include "zarip/msgbus/MsgBusMsgArgumentDumper.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"
#include "zarip/msgbus/MsgBusSignal.h"
#include "zarip/osa/Exception.h"

#include "support/ErrorOf.h"

namespace zarip::msgbus {
namespace {

using test::ErrorOf;

using std::string;
using std::vector;

MsgBusMsg Call() {
    return MsgBusMsg(MsgBusMsg::kMethodCall);
}

string Signature(const MsgBusMsg& message) {
    return dbus_message_get_signature(message.GetDBusMessage());
}

TEST(MsgBusMsg, IsASignalOrAMethodCall) {
    EXPECT_EQ(MsgBusMsg(MsgBusMsg::kSignal).GetType(), "signal");
    EXPECT_EQ(Call().GetType(), "method_call");
    EXPECT_EQ(MsgBusMsg::kSignal, 1);
    EXPECT_EQ(MsgBusMsg::kMethodCall, 2);
    for (const int type : {0, 3, -1}) {
        EXPECT_EQ(ErrorOf([&] { MsgBusMsg message(static_cast<MsgBusMsg::MsgBusMsgType>(type)); }),
                  "MsgBusMsg: Invalid msg type!");
    }
}

TEST(MsgBusMsg, FieldsAreEmptyUntilSetAndRefuseWhatTheBusDoesNotAllow) {
    MsgBusMsg message = Call();
    EXPECT_EQ(message.GetName() + message.GetInterface() + message.GetDestination() + message.GetPath() +
                  message.GetSender(),
              "");
    message.SetMsgName("Ping");
    message.SetMsgInterface("a.b");
    message.SetMsgDestination("c.d");
    message.SetMsgPath("/e/f");
    for (const string bad : {"", " ", "a..b", "/a/", "a b", "\xff\xfe", "9"}) {
        EXPECT_EQ(ErrorOf([&] { message.SetMsgName(bad); }), "dbus_message_set_member failed") << bad;
        EXPECT_EQ(ErrorOf([&] { message.SetMsgInterface(bad); }), "dbus_message_set_interface failed") << bad;
        EXPECT_EQ(ErrorOf([&] { message.SetMsgDestination(bad); }), "dbus_message_set_destination failed")
            << bad;
        EXPECT_EQ(ErrorOf([&] { message.SetMsgPath(bad); }), "dbus_message_set_path failed") << bad;
    }
    EXPECT_EQ(message.GetName(), "Ping");
    EXPECT_EQ(message.GetInterface(), "a.b");
    EXPECT_EQ(message.GetDestination(), "c.d");
    EXPECT_EQ(message.GetPath(), "/e/f");
    EXPECT_TRUE(message.IsExpectingResponse());
}

TEST(MsgBusMsg, RemoteMethodAndSignalCarryTheirAddress) {
    const MsgBusObjectSelector selector("org.camera", "/org/camera", "org.camera.Control");
    const MsgBusRemoteMethod call(selector, "Zoom");
    EXPECT_EQ(call.GetType() + " " + call.GetDestination() + call.GetPath() + " " + call.GetInterface() +
                  "." + call.GetName(),
              "method_call org.camera/org/camera org.camera.Control.Zoom");
    const MsgBusSignal signal("/org/camera", "org.camera.Control", "Zoomed");
    EXPECT_EQ(
        signal.GetType() + " " + signal.GetPath() + " " + signal.GetInterface() + "." + signal.GetName(),
        "signal /org/camera org.camera.Control.Zoomed");

    EXPECT_EQ(ErrorOf([&] { MsgBusRemoteMethod(selector, "no dots.here"); }),
              "dbus_message_set_member failed");
    EXPECT_EQ(ErrorOf([&] { MsgBusRemoteMethod(selector, nullptr); }), "dbus_message_set_member failed");
    EXPECT_EQ(ErrorOf([&] {
                  MsgBusRemoteMethod({"bad name", "/a", "a.b"}, "M");
              }),
              "dbus_message_set_destination failed");
    EXPECT_EQ(ErrorOf([&] { MsgBusRemoteMethod({"a.b", "a", "a.b"}, "M"); }), "dbus_message_set_path failed");
    EXPECT_EQ(ErrorOf([&] { MsgBusSignal("/a", "noDot", "M"); }), "dbus_message_set_interface failed");
    EXPECT_EQ(ErrorOf([&] { MsgBusSignal(nullptr, "a.b", "M"); }), "dbus_message_set_path failed");
}

template <class T>
void ExpectRoundTrip(const T& value, const string& signature) {
    MsgBusMsg message = Call();
    message << value;
    EXPECT_EQ(Signature(message), signature);
    T read{};
    MsgBusMsgArgumentReader reader(message);
    reader >> read;
    EXPECT_EQ(read, value);
}

TEST(MsgBusMsg, EveryTypeComesBackAsItWasAppended) {
    ExpectRoundTrip(true, "b");
    ExpectRoundTrip(false, "b");
    ExpectRoundTrip<unsigned char>(255, "y");
    ExpectRoundTrip<short>(std::numeric_limits<short>::min(), "n");
    ExpectRoundTrip<unsigned short>(65535, "q");
    ExpectRoundTrip(std::numeric_limits<int>::min(), "i");
    ExpectRoundTrip(4294967295U, "u");
    ExpectRoundTrip(std::numeric_limits<long long>::min(), "x");
    ExpectRoundTrip(std::numeric_limits<unsigned long long>::max(), "t");
    ExpectRoundTrip(-0.1, "d");
    ExpectRoundTrip<string>("caf\xc3\xa9", "s");
    ExpectRoundTrip(std::deque<bool>{true, false, true}, "ab");
    ExpectRoundTrip(vector<unsigned char>{0, 255}, "ay");
    ExpectRoundTrip(vector<int>{-1, 2}, "ai");
    ExpectRoundTrip(vector<unsigned int>{1, 4294967295U}, "au");
    ExpectRoundTrip(vector<double>{1.5, -2}, "ad");
    ExpectRoundTrip(vector<string>{"", "b"}, "as");
    ExpectRoundTrip(std::deque<bool>{}, "ab");
    ExpectRoundTrip(vector<int>{}, "ai");
    ExpectRoundTrip(vector<string>{}, "as");

    MsgBusMsg message = Call();
    message << "plain" << string("cut\0off", 7);
    string first;
    string second;
    message >> first >> second;
    EXPECT_EQ(first + second, "plaincut");
}

TEST(MsgBusMsg, ReadingAMessageStartsAtTheFirstArgumentEachTime) {
    MsgBusMsg message = Call();
    message << 1 << 2;
    int value = 0;
    message >> value;
    EXPECT_EQ(value, 1);
    message >> value;
    EXPECT_EQ(value, 1);
    int next = 0;
    message >> value >> next;
    EXPECT_EQ(next, 2);

    MsgBusMsgArgumentReader reader(message);
    reader >> value;
    MsgBusMsgArgumentReader copy(reader);
    reader >> value;
    copy >> next;
    EXPECT_EQ(value, 2);
    EXPECT_EQ(next, 2);
}

TEST(MsgBusMsg, AReaderOutlivesItsMessage) {
    auto message = std::make_unique<MsgBusMsg>(MsgBusMsg::kSignal);
    *message << "kept";
    MsgBusMsgArgumentReader reader(*message);
    message.reset();
    string text;
    reader >> text;
    EXPECT_EQ(text, "kept");
}

TEST(MsgBusMsg, FailedReadsNameTheTypesAndChangeNothing) {
    MsgBusMsg message = Call();
    int number = 7;
    EXPECT_EQ(ErrorOf([&] { message >> number; }), "MsgBusMsg argument missing (expected type 'i')");
    message << "text" << vector<int>{1};
    MsgBusMsgArgumentReader reader(message);
    EXPECT_EQ(ErrorOf([&] { reader >> number; }),
              "MsgBusMsg argument mismatch (expected type 'i' but found type 's')");
    vector<string> strings;
    EXPECT_EQ(ErrorOf([&] { reader >> strings; }),
              "MsgBusMsg argument mismatch (expected type 'a' but found type 's')");
    string text;
    reader >> text;
    EXPECT_EQ(text, "text");
    EXPECT_EQ(ErrorOf([&] { reader >> strings; }),
              "MsgBusMsg argument mismatch (expected type 's' but found type 'i')");
    vector<int> numbers = {9, 9, 9};
    reader >> numbers;
    EXPECT_EQ(numbers, vector<int>{1});
    EXPECT_EQ(ErrorOf([&] { reader >> numbers; }), "MsgBusMsg argument missing (expected type 'a')");
    EXPECT_EQ(number, 7);
    EXPECT_EQ(numbers, vector<int>{1});
}

TEST(MsgBusMsg, DeliberatelyStringsGatherBehindThoseAlreadyThereWhileOtherArraysReplace) {
    MsgBusMsg message = Call();
    message << vector<string>{"b", "c"} << std::deque<bool>{true};
    vector<string> strings = {"a"};
    std::deque<bool> flags = {false, false};
    MsgBusMsgArgumentReader reader(message);
    reader >> strings >> flags;
    EXPECT_EQ(strings, (vector<string>{"a", "b", "c"}));
    EXPECT_EQ(flags, std::deque<bool>{true});
}

TEST(MsgBusMsg, RefusesTextThatIsNotUtf8AndStaysUsable) {
    MsgBusMsg message = Call();
    message << 1;
    const char* const null = nullptr;
    EXPECT_EQ(ErrorOf([&] { message << null; }), "MsgBusMsg: text is not valid UTF-8!");
    for (const string bad :
         {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\x80", "12345678\x80", "\xf5\x80\x80\x80"}) {
        EXPECT_EQ(ErrorOf([&] { message << bad; }), "MsgBusMsg: text is not valid UTF-8!");
        EXPECT_EQ(ErrorOf([&] {
                      message << vector<string>{"good", bad};
                  }),
                  "MsgBusMsg: text is not valid UTF-8!");
    }
    message << "good";
    EXPECT_EQ(Signature(message), "is");
}

TEST(MsgBusMsg, EndsAtTwoHundredFiftyFiveTypeCodes) {
    MsgBusMsg message = Call();
    for (int i = 0; i < 254; ++i) {
        message << i;
    }
    EXPECT_EQ(ErrorOf([&] { message << vector<string>{}; }), "MsgBusMsg: too many arguments!");
    EXPECT_EQ(ErrorOf([&] { message << vector<int>{}; }), "MsgBusMsg: too many arguments!");
    message << true;
    EXPECT_EQ(ErrorOf([&] { message << true; }), "MsgBusMsg: too many arguments!");
    EXPECT_EQ(ErrorOf([&] { message << "x"; }), "MsgBusMsg: too many arguments!");
    EXPECT_EQ(Signature(message).size(), 255U);
}

TEST(MsgBusMsg, RefusesAnArrayThatTheBusCannotCarry) {
    MsgBusMsg message = Call();
    const vector<unsigned char> tooLong(64 * 1024 * 1024 + 1);
    EXPECT_EQ(ErrorOf([&] { message << tooLong; }), "MsgBusMsg: Out of Memory trying to append to msg!");
    message << 1;
    EXPECT_EQ(Signature(message), "i");
}

TEST(MsgBusMsg, ACopyIsDeep) {
    MsgBusMsg message = Call();
    message << 1;
    MsgBusMsg copy(message);
    copy << 2;
    EXPECT_EQ(Signature(message), "i");
    EXPECT_EQ(Signature(copy), "ii");
    EXPECT_EQ(ErrorOf([] { MsgBusMsg adopted(static_cast<MsgBusMsgImpl*>(nullptr)); }),
              "MsgBusMsg: Trying to create msg from null ptr!");
}

TEST(MsgBusMsg, RepliesAnswerACallThatWasSent) {
    MsgBusMsg call = Call();
    EXPECT_EQ(ErrorOf([&] { delete call.MakeReplyMsg(); }), "MsgBusMsg: Trying to create msg from null ptr!");
    EXPECT_EQ(ErrorOf([&] { delete call.MakeErrorMsg("x"); }),
              "MsgBusMsg: Trying to create msg from null ptr!");
    dbus_message_set_serial(call.GetDBusMessage(), 7);
    const std::unique_ptr<MsgBusMsg> reply(call.MakeReplyMsg());
    EXPECT_EQ(reply->GetType(), "method_return");
    EXPECT_EQ(dbus_message_get_reply_serial(reply->GetDBusMessage()), 7U);
    const std::unique_ptr<MsgBusMsg> error(call.MakeErrorMsg("bad \xff\xc3\xa9\xe2\x82 byte"));
    EXPECT_EQ(error->GetType(), "error");
    EXPECT_STREQ(dbus_message_get_error_name(error->GetDBusMessage()), "org.freedesktop.DBus.Error.Failed");
    string text;
    *error >> text;
    EXPECT_EQ(text, "bad ?\xc3\xa9?? byte");
    const std::unique_ptr<MsgBusMsg> cut(call.MakeErrorMsg(string(65'535, 'x') + "\xc3\xa9"));
    *cut >> text;
    EXPECT_EQ(text, string(65'535, 'x'));
}

TEST(MsgBusMsgArgumentDumper, ShowsArgumentsWithAndWithoutTheirTypes) {
    MsgBusMsg message = Call();
    EXPECT_EQ(MsgBusMsgArgumentDumper(message).AsJson(true), "[]");
    message << 5 << "a" << vector<unsigned char>{1, 2};
    MsgBusMsgArgumentDumper dumper(message);
    EXPECT_EQ(dumper.AsJson(true),
              R"([{"type":"int32","value":5},{"type":"string","value":"a"},{"type":"uint8","value":[1,2]}])");
    EXPECT_EQ(dumper.AsJson(false), R"([5,"a",[1,2]])");

    MsgBusMsg all = Call();
    all << true << static_cast<unsigned char>(1) << static_cast<short>(-2) << static_cast<unsigned short>(3)
        << 4U << -5LL << 6ULL << 0.5 << vector<string>{"x"} << std::deque<bool>{false} << vector<double>{};
    EXPECT_EQ(MsgBusMsgArgumentDumper(all).AsJson(true),
              R"([{"type":"boolean","value":true},{"type":"uint8","value":1},{"type":"int16","value":-2},)"
              R"({"type":"uint16","value":3},{"type":"uint32","value":4},{"type":"int64","value":-5},)"
              R"({"type":"uint64","value":6},{"type":"double","value":0.5},{"type":"string","value":["x"]},)"
              R"({"type":"boolean","value":[false]},{"type":"double","value":[]}])");
}

TEST(MsgBusMsgArgumentDumper, TypesThatMessagesDoNotCarryAreUnknownAndNull) {
    MsgBusMsg message = Call();
    DBusMessageIter end;
    DBusMessageIter inner;
    const char* path = "/a";
    dbus_message_iter_init_append(message.GetDBusMessage(), &end);
    dbus_message_iter_append_basic(&end, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_open_container(&end, DBUS_TYPE_STRUCT, nullptr, &inner);
    dbus_message_iter_append_basic(&inner, DBUS_TYPE_STRING, &path);
    dbus_message_iter_close_container(&end, &inner);
    dbus_message_iter_open_container(&end, DBUS_TYPE_ARRAY, "o", &inner);
    dbus_message_iter_append_basic(&inner, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_close_container(&end, &inner);
    EXPECT_EQ(MsgBusMsgArgumentDumper(message).AsJson(true),
              R"j([{"type":"unknown(111)","value":null},{"type":"unknown(114)","value":null},)j"
              R"j({"type":"unknown(111)","value":[null]}])j");
}

}  // namespace
}  // namespace zarip::msgbus
