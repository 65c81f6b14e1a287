// SPDX-License-Identifier: MIT

// Runs the program zarip-bus as a shell does, with services in this process.

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <dbus/dbus.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "interfaces/Services.h"
#include "support/Messages.h"
#include "support/PrivateBus.h"
#include "support/Program.h"
#include "support/RunToEnd.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "zarip/interfaces/AnalyticsInterface.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/msgbus/MsgBusObjectSelector.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"

namespace zarip::interfaces {
namespace {

using Strings = vector<string>;
using test::Program;

/// "<exit status>|<output>|<errors>". The status is the negative number of the signal that has ended the
/// tool.
string Outcome(const Strings& arguments) {
    const osa::Process::Result result = test::RunToEnd(ZARIP_BUS, arguments);
    return std::to_string(result.signal != 0 ? -result.signal : result.status) + "|" + result.output + "|" +
           result.error;
}

template <class Implementation>
class Served {
public:
    Served() : _server(Implementation::CreateServer(&_bus, &_implementation)) { _bus.StartServer(); }

    Implementation _implementation;
    msgbus::MsgBus _bus;

private:
    std::unique_ptr<InterfaceServer> _server;
};

class ZaripBusTest : public testing::Test {
protected:
    ZaripBusTest() { test::PrivateBus::Get(); }
};

TEST_F(ZaripBusTest, HelpIsThereAndWrongUsageHasAStatusOfItsOwn) {
    const string help = Outcome({"call", "--help"});
    for (const char* answer : {"0|usage: zarip-bus [OPTION]... COMMAND", "call SERVICE MEMBER ARG...",
                               "Exit status: 0 done, 1 refused", "wait SERVICE"}) {
        EXPECT_NE(help.find(answer), string::npos) << answer;
    }
    EXPECT_EQ(Outcome({"--version"}), "0|zarip-bus " ZARIP_VERSION "\n|");
    EXPECT_EQ(Outcome({}).substr(0, 9), "2||usage:");
    const struct {
        Strings words;
        string error;
    } cases[] = {
        {{"lisst"}, "unknown command lisst; see zarip-bus --help"},
        {{"\x1b[31m"}, "unknown command \\u001b[31m; see zarip-bus --help"},
        {{"list", "more"}, "use it as: zarip-bus list"},
        {{"describe"}, "use it as: zarip-bus describe SERVICE"},
        {{"call", "security"}, "use it as: zarip-bus call SERVICE MEMBER ARG..."},
        {{"monitor", "a", "b"}, "use it as: zarip-bus monitor [SERVICE]"},
        {{"wait"}, "use it as: zarip-bus wait SERVICE"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(Outcome(row.words), "2||zarip-bus: " + row.error + "\n");
    }
    EXPECT_EQ(Outcome({"--jason", "list"}), "2||zarip-bus: unknown option --jason\n");
    EXPECT_EQ(Outcome({"wait", "x", "-t"}), "2||zarip-bus: -t needs a number of seconds\n");
    for (const char* text : {"soon", "-1", "1s", "", "nan", "1e9"}) {
        const string error = string("2||zarip-bus: '") + text + "' is not a number of seconds\n";
        EXPECT_EQ(Outcome({"-t", text, "wait", "x"}), error);
        EXPECT_EQ(Outcome({string("--timeout=") + text, "wait", "x"}), error);
    }
}

TEST_F(ZaripBusTest, ListsAndDescribesServices) {
    EXPECT_EQ(Outcome({"list"}), "0||");
    const Served<PtzSerial::Implementation> ptz;
    const Served<BrelkServices::Implementation> directory;
    EXPECT_EQ(Outcome({"list"}), "0|com.brelk.brelkServices\ncom.brelk.hardware.ptzSerial\n|");
    EXPECT_EQ(Outcome({"--all", "list"}),
              "0|com.brelk.brelkServices\ncom.brelk.hardware.ptzSerial\norg.freedesktop.DBus\n|");
    EXPECT_EQ(
        Outcome({"describe", "ptzSerial"}),
        "0|com.brelk.hardware.ptzSerial\n"
        "  SetPtzSerialSettingsAndInitialize(speed: uint, framing: int, address: uint, flag: bool) "
        "without reply\n"
        "  GetPtzSerialSettingsAndInitialize() -> speed: uint, framing: int, address: uint, flag: bool\n"
        "  SetPtzPollingState(on: bool) without reply\n"
        "  GetPtzPollingState() -> on: bool\n|");
    EXPECT_EQ(Outcome({"describe", "com.brelk.brelkServices"}),
              "0|com.brelk.brelkServices\n"
              "  GetAllServices() -> services: string\n"
              "  GetServicesByDeviceType(deviceType: string) -> services: string\n"
              "  GetCameraDeviceNames() -> names: list of strings\n"
              "  signal StateChange()\n|");
    EXPECT_EQ(Outcome({"describe", "security"}), "3||zarip-bus: security is not on the bus\n");
    EXPECT_EQ(Outcome({"describe", "no 'name'\n"}), "3||zarip-bus: no 'name'\\n is not on the bus\n");
    EXPECT_EQ(Outcome({"list", "--json"}),
              "0|[\"com.brelk.brelkServices\",\"com.brelk.hardware.ptzSerial\"]\n|");
    EXPECT_EQ(
        Outcome({"describe", "-j", "brelkServices"}),
        R"(0|{"name":"com.brelk.brelkServices","methods":[)"
        R"({"name":"GetAllServices","arguments":[],"results":[{"name":"services","type":"s"}],"hasReply":true},)"
        R"({"name":"GetServicesByDeviceType","arguments":[{"name":"deviceType","type":"s"}],)"
        R"("results":[{"name":"services","type":"s"}],"hasReply":true},)"
        R"({"name":"GetCameraDeviceNames","arguments":[],"results":[{"name":"names","type":"as"}],)"
        R"("hasReply":true}],"signals":[{"name":"StateChange","arguments":[]}]})"
        "\n|");
    // Every name on the bus can be given by its last part.
    EXPECT_EQ(Outcome({"call", "-j", "DBus", "NameHasOwner", "com.brelk.brelkServices"}), "0|[true]\n|");
}

TEST_F(ZaripBusTest, PrintsWhatACallReturns) {
    const Served<Security::Implementation> security;
    const struct {
        Strings words;
        const char* result;
    } cases[] = {
        {{"call", "security", "Authenticate", "true", "u", "p"}, "0|Authenticate|true|u|p\n|"},
        {{"call", "com.brelk.system.security", "GetUsers"}, "0|GetUsers\n|"},
        {{"call", "system.security", "AllowHttpDigest"}, "0|true\n|"},
        {{"call", "security", "GetExpiration", "x"}, "0|-42\nfilled\n|"},
        {{"--json", "call", "security", "GetExpiration", "x"}, "0|[-42,\"filled\"]\n|"},
        {{"call", "-j", "security", "GetAllowedPermissions", "x"}, "0|[[]]\n|"},
        {{"call", "security", "GetAllowedPaths", "a\"b"}, "0|[\"GetAllowedPaths|a\\\"b\",\"/\"]\n|"},
        {{"call", "security", "DeleteUsers", "[\"a\", \"b\\u00e4\"]"}, "0|2\n|"},
        // Everything after the member is an unchanged argument.
        {{"call", "security", "GetCredentials", "--help"}, "0|GetCredentials|--help\n|"},
        {{"call", "security", "GetCredentials", ""}, "0|GetCredentials|\n|"},
        {{"call", "security", "GetCredentials", "\xc3\xa4 $(id) \\ '"},
         "0|GetCredentials|\xc3\xa4 $(id) \\ '\n|"},
        {{"call", "--", "security", "ValidatePassword", "--", "-t", "-1"}, "0|2147483647\n|"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(Outcome(row.words), row.result);
    }
}

/// Appends one value of a container, such as a variant.
void AppendContainer(msgbus::MsgBusMsg& message, int type, const char* content,
                     const std::function<void(DBusMessageIter&)>& fill) {
    DBusMessageIter position;
    DBusMessageIter inner;
    dbus_message_iter_init_append(message.GetDBusMessage(), &position);
    dbus_message_iter_open_container(&position, type, content, &inner);
    fill(inner);
    dbus_message_iter_close_container(&position, &inner);
}

TEST_F(ZaripBusTest, PrintsEveryTypeExactlyAndNoControlCharacter) {
    const dbus_int32_t seven = 7;
    const auto appendSeven = [&](DBusMessageIter& inner) {
        dbus_message_iter_append_basic(&inner, DBUS_TYPE_INT32, &seven);
    };
    test::FunctionHandler odd([&](const msgbus::MsgBusMsg& call, msgbus::IMsgBus& bus) {
        const std::unique_ptr<msgbus::MsgBusMsg> reply(call.MakeReplyMsg());
        *reply << 0.1 << 1e300 / 3 << -9007199254740993LL << 18446744073709551615ULL
               << vector<double>{0.5, HUGE_VAL} << "\x1b[31m\xc2\x9b\t\x7f\xc2\xa0\\";
        AppendContainer(*reply, DBUS_TYPE_VARIANT, "i", appendSeven);
        AppendContainer(*reply, DBUS_TYPE_STRUCT, nullptr, appendSeven);
        AppendContainer(*reply, DBUS_TYPE_ARRAY, "{ii}", [&](DBusMessageIter& inner) {
            DBusMessageIter entry;
            dbus_message_iter_open_container(&inner, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
            appendSeven(entry);
            appendSeven(entry);
            dbus_message_iter_close_container(&inner, &entry);
        });
        bus.SendReply(*reply);
    });
    test::FunctionHandler failing(
        [](const msgbus::MsgBusMsg&, msgbus::IMsgBus&) { throw osa::Exception("\x1b[31mtwo\nlines"); });
    msgbus::MsgBus bus;
    bus.RegisterDestinationName("com.example.Odd");
    bus.RegisterMessageHandler("Get", "com.example.Odd", &odd);
    bus.RegisterMessageHandler("Fail", "com.example.Odd", &failing);
    bus.StartServer();
    const string numbers[] = {"0.1", "3.3333333333333335e+299", "-9007199254740993", "18446744073709551615",
                              "[0.5,\"inf\"]"};
    const string text = "\\u001b[31m\\u009b\\t\\u007f\xc2\xa0\\";
    const string containers[] = {"7", "[7]", "{\"7\":7}"};
    string lines;
    string array;
    for (const string& number : numbers) {
        lines += number + "\n";
        array += number + ",";
    }
    lines += text + "\n";
    array += "\"" + text + "\\\"";
    for (const string& container : containers) {
        lines += container + "\n";
        array += "," + container;
    }
    EXPECT_EQ(Outcome({"call", "Odd", "Get"}), "0|" + lines + "|");
    EXPECT_EQ(Outcome({"call", "-j", "Odd", "Get"}), "0|[" + array + "]\n|");
    EXPECT_EQ(Outcome({"call", "Odd", "Fail"}),
              "1||zarip-bus: DBUS call com.example.Odd::Fail failed: \\u001b[31mtwo\\nlines\n");
    bus.StopServer();
}

TEST_F(ZaripBusTest, ChecksArgumentsBeforeItCalls) {
    const Served<Security::Implementation> security;
    const Served<PtzSerial::Implementation> ptz;
    const string prefix = "2||zarip-bus: ";
    const struct {
        Strings words;
        string error;
    } cases[] = {
        {{"security", "Login"}, "com.brelk.system.security has no member Login; see zarip-bus describe"},
        {{"security", ""}, "com.brelk.system.security has no member ; see zarip-bus describe"},
        {{"security", "UsersChanged", "true"},
         "com.brelk.system.security has no member UsersChanged; see zarip-bus describe"},
        {{"security", "Logout"}, "Logout takes 1 arguments, not 0: Logout(session: string) -> result: bool"},
        {{"security", "GetUsers", ""}, "GetUsers takes 0 arguments, not 1: GetUsers() -> users: string"},
        {{"security", "Authenticate", "1", "u", "p"}, "'1' is not a value of type bool"},
        {{"security", "GetUsers\xff"},
         "com.brelk.system.security has no member GetUsers\\xff; see zarip-bus describe"},
        {{"security", "Logout", "\xff"}, "Logout: MsgBusMsg: text is not valid UTF-8!"},
        {{"security", "DeleteUsers", "a"}, "'a' is not a value of type list of strings"},
        {{"security", "DeleteUsers", "[1]"}, "'[1]' is not a value of type list of strings"},
        {{"security", "DeleteUsers", "[\"a\""}, "'[\"a\"' is not a value of type list of strings"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "-1", "0", "0", "true"},
         "'-1' is not a value of type uint"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "4294967296", "0", "0", "true"},
         "'4294967296' is not a value of type uint"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", "1.5", "0", "true"},
         "'1.5' is not a value of type int"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", " 1", "0", "true"},
         "' 1' is not a value of type int"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", "", "0", "true"},
         "'' is not a value of type int"},
    };
    for (auto row : cases) {
        row.words.insert(row.words.begin(), "call");
        EXPECT_EQ(Outcome(row.words), prefix + row.error + "\n");
    }
}

TEST_F(ZaripBusTest, TellsFailuresApart) {
    class Networking final : public INetworkingV2Provider {
        string Get(const string&) override {
            _over.get_future().wait();
            return "late";
        }

    public:
        std::promise<void> _over;
    };
    EXPECT_EQ(Outcome({"call", "networkingV2", "Get", ""}), "3||zarip-bus: networkingV2 is not on the bus\n");
    Served<Networking> networking;
    EXPECT_EQ(Outcome({"call", "networkingV2", "Set", ""}),
              "1||zarip-bus: DBUS call com.brelk.networkingV2::Set failed: unimplemented\n");
    EXPECT_EQ(Outcome({"-t", "0.1", "call", "networkingV2", "Get", ""}),
              "4||zarip-bus: com.brelk.networkingV2::Get has not answered within 0.1 s\n");
    EXPECT_EQ(
        Outcome({"--timeout=0.1", "describe", "networkingV2"}),
        "4||zarip-bus: org.freedesktop.DBus.Introspectable::Introspect has not answered within 0.1 s\n");
    networking._implementation._over.set_value();

    msgbus::MsgBus other;
    for (const char* name : {"com.brelk.nothing", "com.brelk.two-words", "com.brelk.other.networkingV2",
                             "org.camera.networkingV2"}) {
        other.RegisterDestinationName(name);
    }
    other.StartServer();
    EXPECT_EQ(Outcome({"call", "nothing", "Get"}),
              "2||zarip-bus: com.brelk.nothing has no member Get; see zarip-bus describe\n");
    EXPECT_EQ(
        Outcome({"call", "two-words", "Get"}),
        "1||zarip-bus: com.brelk.two-words has no object of its name, so it is not a service to call\n");
    EXPECT_EQ(
        Outcome({"call", "networkingV2", "Get", ""}),
        "2||zarip-bus: 'networkingV2' could be each of com.brelk.networkingV2, com.brelk.other.networkingV2, "
        "org.camera.networkingV2\n");

    Program noBus("env", {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere", ZARIP_BUS, "list"});
    EXPECT_EQ(noBus.Wait(), 3);
    EXPECT_EQ(noBus.GetErrors().substr(0, 40), "zarip-bus: dbus_bus_get_private failed: ");
}

TEST_F(ZaripBusTest, OutputThatIsLostIsNoSuccess) {
    Program full(ZARIP_BUS, {"--all", "list"}, "/dev/full");
    EXPECT_EQ(full.Wait(), 1);
    EXPECT_EQ(full.GetErrors(), "zarip-bus: the output could not be written\n");

    const test::TempDir folder;
    const string pipe = folder.File("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Program monitor(ZARIP_BUS, {"monitor"}, pipe);
    char byte = 0;
    EXPECT_TRUE(test::WaitUntil([&] {
        Outcome({"list"});
        return ::read(reader, &byte, 1) == 1;
    }));
    EXPECT_EQ(byte, '{');
    ::close(reader);
    EXPECT_TRUE(test::WaitUntil([&] {
        Outcome({"list"});
        return monitor.HasEnded();
    }));
    EXPECT_EQ(monitor.Wait(), -SIGPIPE);
}

json::Array Lines(const string& output) {
    json::Array lines;
    std::istringstream stream(output.substr(0, output.rfind('\n') + 1));
    for (string line; std::getline(stream, line);) {
        std::istringstream text(line);
        json::UnknownElement element;
        json::Reader::Read(element, text);
        lines.Insert(element);
    }
    return lines;
}

/// Returns the first line of a monitor with these members, or an empty string.
string Find(const Program& monitor, const std::vector<std::pair<string, json::UnknownElement>>& members) {
    for (const json::UnknownElement& element : Lines(monitor.GetOutput())) {
        const json::Object& line = element;
        bool fits = true;
        for (const auto& [name, value] : members) {
            const auto member = line.Find(name);
            fits = fits && member != line.End() && member->element == value;
        }
        if (fits) {
            return static_cast<const json::String&>(line["sender"]).Value();
        }
    }
    return "";
}

json::Array Arguments(const vector<json::UnknownElement>& elements) {
    json::Array array;
    for (const auto& element : elements) {
        array.Insert(element);
    }
    return array;
}

TEST_F(ZaripBusTest, MonitorsCallsAndSignalsAsLinesOfJson) {
    // The service is not on the bus yet.
    Program monitor(ZARIP_BUS, {"monitor", "security"});
    Program everything(ZARIP_BUS, {"monitor"});
    Program alerts(ZARIP_BUS, {"monitor", "analytics"});  // this name has no owner
    Served<Security::Implementation> security;
    Served<PtzSerial::Implementation> ptz;
    AnalyticsInterface analytics(&ptz._bus);
    const std::vector<std::pair<string, json::UnknownElement>> signal = {
        {"type", json::String("signal")},
        {"path", json::String(Security::kPath)},
        {"interface", json::String(Security::kName)},
        {"member", json::String("UsersChanged")},
        {"arguments", Arguments({json::Boolean(true)})}};
    const auto alert = {std::pair<string, json::UnknownElement>("member", json::String("AnalyticsAlert"))};
    EXPECT_TRUE(test::WaitUntil([&] {
        security._implementation.UsersChanged.FireEvent(true);
        analytics.BroadcastAnalyticsAlert({});
        return !Find(monitor, signal).empty() && !Find(everything, signal).empty() &&
               !Find(alerts, alert).empty();
    }));
    EXPECT_EQ(Find(monitor, alert), "");
    EXPECT_EQ(Find(alerts, signal), "");

    EXPECT_EQ(Outcome({"call", "ptzSerial", "GetPtzPollingState"}).substr(0, 2), "0|");
    EXPECT_EQ(Outcome({"call", "security", "GetCredentials", "\xc3\xa4\n\""}),
              "0|GetCredentials|\xc3\xa4\\n\"\n|");
    const auto of = [](const char* type, const char* argument) {
        return std::vector<std::pair<string, json::UnknownElement>>{
            {"type", json::String(type)}, {"arguments", Arguments({json::String(argument)})}};
    };
    for (const Program* child : {&monitor, &everything}) {
        EXPECT_TRUE(test::WaitUntil(
            [&] { return !Find(*child, of("method_return", "GetCredentials|\xc3\xa4\n\"")).empty(); }));
        EXPECT_NE(Find(*child, of("method_call", "\xc3\xa4\n\"")), "");
        EXPECT_EQ(Find(*child, {{"member", json::String("GetPtzPollingState")}}).empty(), child == &monitor);
    }
    EXPECT_EQ(Outcome({"monitor", "nobody"}), "2||zarip-bus: 'nobody' is not the name of a service\n");
}

TEST_F(ZaripBusTest, MonitorsSignalsOfABusThatRefusesToBeWatched) {
    auto& bus = test::PrivateBus::Get();
    bus.Kill();
    const string usual = test::PrivateBus::SetPolicy(
        "<policy context=\"default\"><allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
        "<allow own=\"*\"/><deny send_interface=\"org.freedesktop.DBus.Monitoring\"/></policy>\n");
    bus.Start();
    {
        Program everything(ZARIP_BUS, {"monitor"});
        Program monitor(ZARIP_BUS, {"monitor", "security"});
        Served<Security::Implementation> security;
        msgbus::MsgBus other;
        AnalyticsInterface analytics(&other);
        const auto alert = {
            std::pair<string, json::UnknownElement>("member", json::String("AnalyticsAlert"))};
        const auto users = {std::pair<string, json::UnknownElement>("member", json::String("UsersChanged"))};
        EXPECT_TRUE(test::WaitUntil([&] {
            analytics.BroadcastAnalyticsAlert({});
            security._implementation.UsersChanged.FireEvent(true);
            return !Find(everything, alert).empty() && !Find(everything, users).empty() &&
                   !Find(monitor, users).empty();
        }));
        EXPECT_EQ(Find(monitor, alert), "");
        EXPECT_EQ(Find(everything, {{"type", json::String("method_call")}}), "");
        EXPECT_EQ(monitor.GetErrors(),
                  "zarip-bus: the bus does not let this user watch it, so only signals are shown\n");
    }
    bus.Kill();
    test::PrivateBus::SetPolicy(usual);
    bus.Start();
}

TEST_F(ZaripBusTest, WaitsUntilTheServiceIsThere) {
    EXPECT_EQ(Outcome({"-t", "0", "wait", "security"}), "4||zarip-bus: security is not on the bus yet\n");
    EXPECT_EQ(Outcome({"-t", "0.1", "wait", "com.brelk.any"}),
              "4||zarip-bus: com.brelk.any is not on the bus yet\n");
    EXPECT_EQ(Outcome({"wait", "no name"}), "2||zarip-bus: 'no name' is not the name of a service\n");
    Program before(ZARIP_BUS, {"wait", "security"});
    Program unknown(ZARIP_BUS, {"wait", "later"});
    EXPECT_EQ(Outcome({"-t", "0", "wait", "security"}).substr(0, 2), "4|");
    const Served<Security::Implementation> security;
    EXPECT_EQ(before.Wait(), 0);
    EXPECT_EQ(Outcome({"wait", "security"}), "0||");
    msgbus::MsgBus bus;
    bus.RegisterDestinationName("org.camera.later");
    EXPECT_EQ(unknown.Wait(), 0);
}

TEST_F(ZaripBusTest, NoticesThatTheBusIsGone) {
    auto& bus = test::PrivateBus::Get();
    Program monitor(ZARIP_BUS, {"monitor"});
    Program wait(ZARIP_BUS, {"wait", "security"});
    EXPECT_TRUE(test::WaitUntil([&] {
        Outcome({"list"});
        return !monitor.GetOutput().empty();
    }));
    bus.Kill();
    EXPECT_EQ(monitor.Wait(), 3);
    EXPECT_EQ(monitor.GetErrors(), "zarip-bus: the bus went away\n");
    EXPECT_FALSE(Lines(monitor.GetOutput()).Empty());
    EXPECT_EQ(wait.Wait(), 3);
    EXPECT_NE(wait.GetErrors(), "");
    bus.Start();
}

TEST_F(ZaripBusTest, BashCompletesCommandsServicesAndMembers) {
    const Served<PtzSerial::Implementation> ptz;
    const auto complete = [](Strings words) {
        words.insert(words.begin(),
                     {"-c",
                      ". \"$0\"; program=$1; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1));"
                      " _zarip_bus \"$program\"; echo \"${COMPREPLY[*]}\"; complete -p zarip-bus >/dev/null",
                      ZARIP_COMPLETIONS "zarip-bus.bash", ZARIP_BUS, "zarip-bus"});
        const osa::Process::Result bash = test::RunToEnd("bash", words);
        EXPECT_EQ(bash.error, "");
        return std::to_string(bash.status) + "|" + bash.output;
    };
    const string members =
        "SetPtzSerialSettingsAndInitialize GetPtzSerialSettingsAndInitialize SetPtzPollingState "
        "GetPtzPollingState\n";
    const struct {
        Strings words;
        string completions;
    } cases[] = {
        {{""}, "list describe call monitor wait\n"},
        {{"m"}, "monitor\n"},
        {{"--"}, "--all --json --timeout --help --version\n"},
        {{"-t", ""}, "\n"},
        {{"-t", "5", "w"}, "wait\n"},
        {{"--timeout", "=", "5", "w"}, "wait\n"},
        {{"call", ""}, "ptzSerial DBus\n"},
        {{"monitor", "p"}, "ptzSerial\n"},
        {{"list", ""}, "\n"},
        {{"call", "ptzSerial", ""}, members},
        {{"--json", "call", "com.brelk.hardware.ptzSerial", "Get"},
         "GetPtzSerialSettingsAndInitialize GetPtzPollingState\n"},
        {{"call", "nobody", ""}, "\n"},
        {{"call", "$(touch /tmp/never)", ""}, "\n"},
        {{"call", "ptzSerial", "SetPtzPollingState", "-"}, "\n"},
        {{"describe", "ptzSerial", ""}, "\n"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(complete(row.words), "0|" + row.completions) << testing::PrintToString(row.words);
    }
}

TEST_F(ZaripBusTest, ZshCompletesCommandsServicesAndMembers) {
    if (std::system("command -v zsh >/dev/null") != 0) {
        GTEST_SKIP() << "there is no zsh";
    }
    const Served<PtzSerial::Implementation> ptz;
    const std::pair<const char*, const char*> cases[] = {
        {"", "list describe call monitor wait"},
        {"-j call ", "ptzSerial DBus"},
        {"call com.brelk.hardware.ptzSerial Get", "GetPtzSerialSettingsAndInitialize GetPtzPollingState"},
        {"describe ptzSerial ", ""},
        {"call $(touch\\ /tmp/never) ", ""},
    };
    osa::Process::RunOptions options;
    options.environment["PATH"] =
        std::filesystem::path(ZARIP_BUS).parent_path().string() + ":" + std::getenv("PATH");
    for (const auto& [line, completions] : cases) {
        const osa::Process::Result zsh = test::RunToEnd(
            "zsh", {"-f", ZARIP_COMPLETE_ZSH, ZARIP_COMPLETIONS, string("zarip-bus ") + line}, options);
        EXPECT_EQ(zsh.status, 0);
        EXPECT_EQ(zsh.output, string(completions) + "\n") << line << zsh.error;
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/never"));
}

template <class Service>
class ZaripBusServiceTest : public testing::Test {};

TYPED_TEST_SUITE(ZaripBusServiceTest, AllServices, ServiceNameOf);

TYPED_TEST(ZaripBusServiceTest, EveryMemberCanBeCalled) {
    test::PrivateBus::Get();
    Served<typename TypeParam::Implementation> service;
    msgbus::MsgBus client;
    for (const auto& member : TypeParam::Members()) {
        Strings words = {"call", TypeParam::kName, member.name};
        const string received = member.received != nullptr ? member.received : "";
        if (string(member.arguments) == "as") {
            words.push_back("[\"x\",\"y\"]");
        } else {
            std::istringstream stream(received);
            for (const char* type = member.arguments; *type != '\0'; ++type) {
                std::getline(stream, words.emplace_back(), '|');
            }
        }
        const osa::Process::Result tool = test::RunToEnd(ZARIP_BUS, words);
        EXPECT_EQ(tool.status, 0) << member.name << tool.error;
        EXPECT_EQ(tool.output.empty(), member.reply == nullptr) << member.name;
        // The listen thread answers this after the call. Then it has ended, so this thread may read the
        // variable.
        msgbus::MsgBusMsg* reply = nullptr;
        client.SendMsgWaitForReply(
            msgbus::MsgBusRemoteMethod(
                {TypeParam::kName, TypeParam::kPath, "org.freedesktop.DBus.Introspectable"}, "Introspect"),
            reply, 30'000);
        delete reply;
        service._bus.StopServer();
        EXPECT_EQ(service._implementation._last,
                  member.name + (member.received != nullptr ? "|" + received : ""));
        service._bus.StartServer();
    }
}

}  // namespace
}  // namespace zarip::interfaces
