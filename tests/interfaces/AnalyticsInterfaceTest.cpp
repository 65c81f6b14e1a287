// SPDX-License-Identifier: MIT

#include "zarip/interfaces/AnalyticsInterface.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <future>

#include "support/LogCapture.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "zarip/msgbus/MsgBus.h"

namespace zarip::interfaces {
namespace {

using Alert = AnalyticsInterface::AnalyticsAlert;
using std::string;
using test::ErrorOf;

Alert MakeAlert() {
    Alert alert;
    alert.alertId = "1";
    alert.deviceId = "2";
    alert.ruleName = "7";
    alert.description = "10";
    alert.severity = -8;
    alert.state = "9";
    alert.ruleId = "3";
    alert.objectClass = "4";
    alert.zone = {{0.5, -1e300}, {5, 6}};
    alert.track = {{7, 8}};
    alert.startTime = "11";
    alert.endTime = "12";
    return alert;
}

/// Prints all fields in the order of their declaration.
string Show(const Alert& alert) {
    const auto& [alertId, deviceId, ruleName, description, severity, state, ruleId, objectClass, zone, track,
                 startTime, endTime] = alert;
    std::ostringstream text;
    text << alertId << '|' << deviceId << '|' << ruleName << '|' << description << '|' << severity << '|'
         << state << '|' << ruleId << '|' << objectClass;
    for (const auto* points : {&zone, &track}) {
        text << '|';
        for (const auto& point : *points) {
            text << point.x << ',' << point.y << ';';
        }
    }
    text << '|' << startTime << '|' << endTime;
    return text.str();
}

TEST(AnalyticsAlertTest, FieldsHaveAnOrderOfTheirOwnOnTheBus) {
    const Alert alert = MakeAlert();
    msgbus::MsgBusMsg message(msgbus::MsgBusMsg::kSignal);
    alert.Serialize(message);
    EXPECT_EQ(message.GetSignature(), "ssssiddddiddsissss");
    msgbus::MsgBusMsgArgumentReader reader(message);
    for (const char* place : {"1", "2", "3", "4"}) {
        string text;
        reader >> text;
        EXPECT_EQ(text, place);
    }
    int count = 0;
    double number = 0;
    reader >> count;
    EXPECT_EQ(count, 2);
    for (const double expected : {0.5, -1e300, 5.0, 6.0}) {
        reader >> number;
        EXPECT_EQ(number, expected);
    }
    reader >> count >> number >> number;
    EXPECT_EQ(count, 1);
    for (const char* place : {"7", "-8", "9", "10", "11", "12"}) {
        string text;
        if (string(place) == "-8") {
            reader >> count;
            text = std::to_string(count);
        } else {
            reader >> text;
        }
        EXPECT_EQ(text, place);
    }
    EXPECT_EQ(Show(Alert(message)), "1|2|7|10|-8|9|3|4|0.5,-1e+300;5,6;|7,8;|11|12");

    msgbus::MsgBusMsg empty(msgbus::MsgBusMsg::kSignal);
    Alert().Serialize(empty);
    EXPECT_EQ(empty.GetSignature(), "ssssiisissss");
    EXPECT_EQ(Show(Alert(empty)), "||||0|||||||");
}

TEST(AnalyticsAlertTest, AMessageHolds121PointsAndLengthsAreNotTrusted) {
    Alert alert;
    alert.zone.resize(60);
    alert.track.resize(61);
    msgbus::MsgBusMsg full(msgbus::MsgBusMsg::kSignal);
    alert.Serialize(full);
    EXPECT_EQ(Alert(full).track.size(), 61U);
    alert.zone.resize(61);
    msgbus::MsgBusMsg over(msgbus::MsgBusMsg::kSignal);
    EXPECT_EQ(ErrorOf([&] { alert.Serialize(over); }), "MsgBusMsg: too many arguments!");

    struct {
        int zone;
        const char* error;
    } const cases[] = {
        {1, "no exception"},
        {-1, "MsgBusMsg argument mismatch (expected type 'i' but found type 'd')"},
        {2, "MsgBusMsg argument mismatch (expected type 'd' but found type 'i')"},
        {2147483647, "MsgBusMsg argument mismatch (expected type 'd' but found type 'i')"},
    };
    for (const auto& row : cases) {
        msgbus::MsgBusMsg message(msgbus::MsgBusMsg::kSignal);
        message << "1"
                << "2"
                << "3"
                << "4" << row.zone << 1.0 << 2.0 << -5 << "7" << 8 << "9"
                << "10"
                << "11"
                << "12";
        EXPECT_EQ(ErrorOf([&] { EXPECT_TRUE(Alert(message).track.empty()); }), row.error);
    }
    msgbus::MsgBusMsg few(msgbus::MsgBusMsg::kSignal);
    few << "1"
        << "2";
    EXPECT_EQ(ErrorOf([&] { Alert{few}; }), "MsgBusMsg argument missing (expected type 's')");
}

TEST(AnalyticsInterfaceTest, AlertsReachWhoListens) {
    test::PrivateBus::Get();
    const test::LogCapture log(core::Logger::kDebug);
    msgbus::MsgBus receiverBus;
    std::promise<std::pair<string, string>> received[2];
    int count = 0;
    test::FunctionHandler handler(
        [&](const msgbus::MsgBusMsg& message, msgbus::IMsgBus&) {
            received[count++].set_value({message.GetType() + " " + message.GetPath() + " " +
                                             message.GetInterface() + "." + message.GetName() + "(" +
                                             message.GetSignature() + ")",
                                         Show(Alert(message))});
        },
        msgbus::IMessageHandler::kSignals);
    receiverBus.RegisterMessageHandler("AnalyticsAlert", "com.brelk.analytics", &handler);
    receiverBus.StartServer();

    msgbus::MsgBus bus;
    AnalyticsInterface usual(&bus);
    AnalyticsInterface other("/elsewhere", &bus);
    // An alert that cannot be sent is not sent partly either.
    Alert broken = MakeAlert();
    broken.endTime = "\xff";
    EXPECT_EQ(ErrorOf([&] { usual.BroadcastAnalyticsAlert(broken); }), "MsgBusMsg: text is not valid UTF-8!");
    for (const char* path : {"no path", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(ErrorOf([&] { AnalyticsInterface(path, &bus).BroadcastAnalyticsAlert(Alert()); }),
                  "dbus_message_set_path failed");
    }
    usual.BroadcastAnalyticsAlert(Alert());
    EXPECT_TRUE(log.Contains("BroadcastAnalyticsAlert Dbus signal msg sent."));
    other.BroadcastAnalyticsAlert(MakeAlert());
    const auto first = received[0].get_future().get();
    const auto second = received[1].get_future().get();
    const string place = "/com/brelk/analytics com.brelk.analytics.AnalyticsAlert";
    EXPECT_EQ(first, std::pair("signal " + place + "(ssssiisissss)", Show(Alert())));
    EXPECT_EQ(second,
              std::pair(string("signal /elsewhere com.brelk.analytics.AnalyticsAlert(ssssiddddiddsissss)"),
                        Show(MakeAlert())));
    receiverBus.StopServer();
    receiverBus.UnregisterMessageHandler(&handler);
    EXPECT_EQ(log.Count("send BroadcastAnalyticsAlert Dbus signal..."), 2);
}

}  // namespace
}  // namespace zarip::interfaces
