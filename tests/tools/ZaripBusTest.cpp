// The program zarip-bus, run as a shell does it, with services in this process.

#include <cajun/json/elements.h>
#include <cajun/json/reader.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "interfaces/Services.h"
#include "support/PrivateBus.h"
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

/// A child process with its output.
class Child {
public:
    /// @param output  where standard output goes, a file of the child's own if empty.
    explicit Child(Strings command, const string& output = "") {
        vector<char*> argv;
        for (string& word : command) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t files;
        ::posix_spawn_file_actions_init(&files);
        const string out = output.empty() ? _folder.File("out") : output;
        ::posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
        ::posix_spawn_file_actions_addopen(&files, 2, _folder.File("err").c_str(), O_WRONLY | O_CREAT, 0600);
        // As from a shell: libdbus ignores SIGPIPE in this process.
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        sigset_t pipe;
        ::sigemptyset(&pipe);
        ::sigaddset(&pipe, SIGPIPE);
        ::posix_spawnattr_setsigdefault(&attributes, &pipe);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        EXPECT_EQ(::posix_spawnp(&_pid, argv[0], &files, &attributes, argv.data(), environ), 0);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&files);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (_pid > 0) {
            ::kill(_pid, SIGTERM);
            Wait();
        }
    }

    /// The exit status, or the negative number of the signal that ended it.
    int Wait() {
        int status = 0;
        EXPECT_EQ(::waitpid(_pid, &status, 0), _pid);
        _pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool HasEnded() const {
        siginfo_t state{};
        ::waitid(P_PID, static_cast<id_t>(_pid), &state, WEXITED | WNOHANG | WNOWAIT);
        return state.si_pid != 0;
    }
    string GetOutput() const { return _folder.Read("out"); }
    string GetErrors() const { return _folder.Read("err"); }

private:
    test::TempDir _folder;
    pid_t _pid = -1;
};

Strings Tool(Strings arguments) {
    arguments.insert(arguments.begin(), ZARIP_BUS);
    return arguments;
}

/// "<exit status>|<output>|<errors>"; of the usage only the first word.
string Outcome(const Strings& arguments) {
    Child child(Tool(arguments));
    const string status = std::to_string(child.Wait());
    string errors = child.GetErrors();
    errors = errors.substr(0, errors.rfind("usage: ", 0) == 0 ? 5 : string::npos);
    return status + "|" + child.GetOutput() + "|" + errors;
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
    for (const Strings& arguments :
         vector<Strings>{{}, {"lisst"}, {"list", "more"}, {"describe"}, {"call", "security"}, {"wait"}}) {
        EXPECT_EQ(Outcome(arguments), "2||usage");
    }
    EXPECT_EQ(Outcome({"--jason", "list"}), "2||zarip-bus: unknown option --jason\n");
    EXPECT_EQ(Outcome({"wait", "x", "-t"}), "2||zarip-bus: -t needs a number of seconds\n");
    for (const char* text : {"soon", "-1", "1s", "", "nan", "1e9"}) {
        const string error = string("2||zarip-bus: '") + text + "' is no number of seconds\n";
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
    EXPECT_EQ(Outcome({"describe", "no 'name'\n"}), "3||zarip-bus: no 'name'\n is not on the bus\n");
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
        // Behind the member everything is an argument, as it is.
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
        {{"security", "Authenticate", "1", "u", "p"}, "'1' is no bool"},
        {{"security", "GetUsers\xff"},
         "com.brelk.system.security has no member GetUsers\xff; see zarip-bus describe"},
        {{"security", "Logout", "\xff"}, "Logout: MsgBusMsg: text is not valid UTF-8!"},
        {{"security", "DeleteUsers", "a"}, "'a' is no list of strings"},
        {{"security", "DeleteUsers", "[1]"}, "'[1]' is no list of strings"},
        {{"security", "DeleteUsers", "[\"a\""}, "'[\"a\"' is no list of strings"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "-1", "0", "0", "true"}, "'-1' is no uint"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "4294967296", "0", "0", "true"},
         "'4294967296' is no uint"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", "1.5", "0", "true"}, "'1.5' is no int"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", " 1", "0", "true"}, "' 1' is no int"},
        {{"ptzSerial", "SetPtzSerialSettingsAndInitialize", "0", "", "0", "true"}, "'' is no int"},
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
    for (const Strings& words : {Strings{"-t", "0.1", "call", "networkingV2", "Get", ""},
                                 Strings{"--timeout=0.1", "describe", "networkingV2"}}) {
        EXPECT_EQ(Outcome(words).substr(0, 24), "4||zarip-bus: DBUS call ");
    }
    networking._implementation._over.set_value();

    msgbus::MsgBus other;
    for (const char* name : {"com.brelk.nothing", "com.brelk.two-words", "com.brelk.other.networkingV2"}) {
        other.RegisterDestinationName(name);
    }
    other.StartServer();
    EXPECT_EQ(Outcome({"call", "nothing", "Get"}),
              "2||zarip-bus: com.brelk.nothing has no member Get; see zarip-bus describe\n");
    EXPECT_EQ(Outcome({"call", "two-words", "Get"}),
              "1||zarip-bus: com.brelk.two-words has no object of its name, so it is no service to call\n");
    EXPECT_EQ(Outcome({"call", "networkingV2", "Get", ""}),
              "2||zarip-bus: networkingV2 could be com.brelk.networkingV2 or com.brelk.other.networkingV2\n");

    Child noBus({"env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere", ZARIP_BUS, "list"});
    EXPECT_EQ(noBus.Wait(), 3);
    EXPECT_EQ(noBus.GetErrors().substr(0, 40), "zarip-bus: dbus_bus_get_private failed: ");
}

TEST_F(ZaripBusTest, OutputThatIsLostIsNoSuccess) {
    Child full(Tool({"--all", "list"}), "/dev/full");
    EXPECT_EQ(full.Wait(), 1);
    EXPECT_EQ(full.GetErrors(), "zarip-bus: the output could not be written\n");

    const test::TempDir folder;
    const string pipe = folder.File("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Child monitor(Tool({"monitor"}), pipe);
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

/// The first line of a monitor with these members, as text, or nothing.
string Find(const Child& monitor, const std::vector<std::pair<string, json::UnknownElement>>& members) {
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
    // Before the service is there.
    Child monitor(Tool({"monitor", "security"}));
    Child everything(Tool({"monitor"}));
    Child alerts(Tool({"monitor", "analytics"}));  // nobody owns this name
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
              "0|GetCredentials|\xc3\xa4\n\"\n|");
    const auto of = [](const char* type, const char* argument) {
        return std::vector<std::pair<string, json::UnknownElement>>{
            {"type", json::String(type)}, {"arguments", Arguments({json::String(argument)})}};
    };
    for (const Child* child : {&monitor, &everything}) {
        EXPECT_TRUE(test::WaitUntil(
            [&] { return !Find(*child, of("method_return", "GetCredentials|\xc3\xa4\n\"")).empty(); }));
        EXPECT_NE(Find(*child, of("method_call", "\xc3\xa4\n\"")), "");
        EXPECT_EQ(Find(*child, {{"member", json::String("GetPtzPollingState")}}).empty(), child == &monitor);
    }
    EXPECT_EQ(Outcome({"monitor", "nobody"}), "2||zarip-bus: 'nobody' is no name of a service\n");
}

TEST_F(ZaripBusTest, WaitsUntilTheServiceIsThere) {
    EXPECT_EQ(Outcome({"-t", "0", "wait", "security"}), "4||zarip-bus: security is not on the bus yet\n");
    EXPECT_EQ(Outcome({"-t", "0.1", "wait", "com.brelk.any"}),
              "4||zarip-bus: com.brelk.any is not on the bus yet\n");
    EXPECT_EQ(Outcome({"wait", "no name"}), "2||zarip-bus: 'no name' is no name of a service\n");
    Child before(Tool({"wait", "security"}));
    Child unknown(Tool({"wait", "later"}));
    EXPECT_EQ(Outcome({"-t", "0", "wait", "security"}).substr(0, 2), "4|");
    const Served<Security::Implementation> security;
    EXPECT_EQ(before.Wait(), 0);
    EXPECT_EQ(Outcome({"wait", "security"}), "0||");
    msgbus::MsgBus bus;
    bus.RegisterDestinationName("com.brelk.later");
    EXPECT_EQ(unknown.Wait(), 0);
}

TEST_F(ZaripBusTest, NoticesThatTheBusIsGone) {
    auto& bus = test::PrivateBus::Get();
    Child monitor(Tool({"monitor"}));
    Child wait(Tool({"wait", "security"}));
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
                     {"bash", "-c",
                      ". \"$0\"; program=$1; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1));"
                      " _zarip_bus \"$program\"; echo \"${COMPREPLY[*]}\"; complete -p zarip-bus >/dev/null",
                      ZARIP_BUS_COMPLETION, ZARIP_BUS, "zarip-bus"});
        Child bash(words);
        EXPECT_EQ(bash.Wait(), 0);
        EXPECT_EQ(bash.GetErrors(), "");
        return bash.GetOutput();
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
        {{"--"}, "--all --json --timeout --help\n"},
        {{"-t", ""}, "\n"},
        {{"-t", "5", "w"}, "wait\n"},
        {{"--timeout", "=", "5", "w"}, "wait\n"},
        {{"call", ""}, "ptzSerial\n"},
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
        EXPECT_EQ(complete(row.words), row.completions) << testing::PrintToString(row.words);
    }
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
        Child tool(Tool(words));
        EXPECT_EQ(tool.Wait(), 0) << member.name << tool.GetErrors();
        EXPECT_EQ(tool.GetOutput().empty(), member.reply == nullptr) << member.name;
        // Answered behind the call; then the listen thread has ended, so that this one may look.
        msgbus::MsgBusMsg* reply = nullptr;
        client.SendMsgWaitForReply(
            msgbus::MsgBusRemoteMethod({TypeParam::kName, TypeParam::kPath, "org.freedesktop.DBus.Peer"},
                                       "Ping"),
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
