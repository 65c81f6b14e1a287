// Looks at the services on the bus and calls them: see kUsage.

#include <cajun/json/elements.h>
#include <cajun/json/writer.h>
#include <dbus/dbus.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/JsonUtils.h>
#include <zarip/msgbus/MessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentDumper.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>
#include <zarip/osa/DateTime.h>
#include <zarip/osa/LockException.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/xml/XmlDocument.h>
#include <zarip/xml/XmlException.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace zarip;
using msgbus::MsgBus;
using msgbus::MsgBusMsg;
using xml::XmlElement;
using Strings = std::vector<std::string>;

constexpr char kUsage[] = R"(usage: zarip-bus [OPTION]... COMMAND [ARGUMENT]...

  list                        the services on the bus; with --all everything that has a name there
  describe SERVICE            its members and signals, with their arguments
  call SERVICE MEMBER ARG...  calls any member and prints what it returns, a line for each value
  monitor [SERVICE]           every message, or those from and to a service, as one line of JSON each
  wait SERVICE                waits until the service is on the bus

SERVICE is a name on the bus, or the end of one: "security" stands for "com.brelk.system.security". An ARG
is a text, a number, true or false, or for a list a JSON array such as '["one", "two"]'.

  -a, --all             list: not only the services of the device
  -j, --json            call: prints one JSON array
  -t, --timeout SECONDS how long to wait; 5 for call and describe, otherwise no limit
  -h, --help            shows this; options stand before the ARGs of a call

A member "without reply" (see describe) is only sent: nobody tells what became of it.

The bus is the system bus, or the one in DBUS_SYSTEM_BUS_ADDRESS. To see what others say, monitor needs to be
root or the user of the bus.

Exit status: 0 done, 1 refused or failed, 2 wrong usage or arguments, 3 no such service or no bus, 4 timed out.

  zarip-bus call security GetUsers
  zarip-bus call networkingV2 Get '{"settings":["[IPv4/Actual]Address"]}'
  zarip-bus wait security && zarip-bus monitor analytics
)";

constexpr char kPrefix[] = "com.brelk.";

constexpr const char* kServices[] = {ZARIP_SERVICES};

constexpr int kBusTimeoutMs = 5'000;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

enum ExitStatus { kDone = 0, kFailed = 1, kUsageError = 2, kNotThere = 3, kTimedOut = 4 };

struct Failure : std::runtime_error {
    Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), exitStatus(status) {}
    ExitStatus exitStatus;
};

struct Options {
    bool help = false;
    bool all = false;
    bool json = false;
    double timeout = -1;  // seconds; negative: not given
    Strings words;

    /// Milliseconds.
    int GetTimeout(int otherwise) const {
        return timeout < 0 ? otherwise : static_cast<int>(std::ceil(timeout * 1000));
    }
};

void Print(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::putchar('\n');
}

/// Throws when something that was printed is lost.
void Flush() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw Failure(kFailed, "the output could not be written");
    }
}

/// @param form  false for an array or an object: in one line.
template <class Element, class... Form>
std::string ToJson(const Element& element, Form... form) {
    std::ostringstream text;
    json::Writer::Write(element, text, form...);
    return text.str();
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The bus -----------------------------------------------------------------------------------------------

using Message = std::unique_ptr<MsgBusMsg>;

Message Send(MsgBus& bus, const MsgBusMsg& message, int timeoutMs) {
    // libdbus counts whole milliseconds and may be one early.
    const auto end = Clock::now() + milliseconds(timeoutMs - 1);
    MsgBusMsg* reply = nullptr;
    try {
        bus.SendMsgWaitForReply(message, reply, timeoutMs);
    } catch (const osa::Exception& e) {
        throw Failure(Clock::now() < end ? kFailed : kTimedOut, e.what());
    }
    return Message(reply);
}

/// Calls the bus itself.
template <class Result, class... Arguments>
Result AskBus(MsgBus& bus, const char* member, const Arguments&... argument) {
    const msgbus::MsgBusObjectSelector daemon(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS);
    msgbus::MsgBusRemoteMethod message(daemon, member);
    (void)(static_cast<MsgBusMsg&>(message) << ... << argument);
    Result result{};
    msgbus::MsgBusMsgArgumentReader(*Send(bus, message, kBusTimeoutMs)) >> result;
    return result;
}

/// The well-known names, sorted.
Strings GetNames(MsgBus& bus) {
    auto names = AskBus<Strings>(bus, "ListNames");
    names.erase(std::remove_if(names.begin(), names.end(), [](auto& name) { return name[0] == ':'; }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

/// What a SERVICE on the command line stands for, on the bus or not; itself when nothing fits.
/// @param names  what is on the bus.
std::string Resolve(const Strings& names, const std::string& service) {
    std::set<std::string> known(std::begin(kServices), std::end(kServices));
    known.insert(names.begin(), names.end());
    Strings fitting;
    for (const std::string& name : known) {
        if (name == service) {
            return service;
        }
        if (name.rfind(kPrefix, 0) == 0 && EndsWith(name, "." + service)) {
            fitting.push_back(name);
        }
    }
    if (fitting.size() > 1) {
        throw Failure(kUsageError, service + " could be " + fitting[0] + " or " + fitting[1]);
    }
    return fitting.empty() ? service : fitting[0];
}

std::string Require(MsgBus& bus, const std::string& service) {
    const std::string name = Resolve(GetNames(bus), service);
    if (!dbus_validate_bus_name(name.c_str(), nullptr) || !AskBus<bool>(bus, "NameHasOwner", name)) {
        throw Failure(kNotThere, service + " is not on the bus");
    }
    return name;
}

// What a service says of itself --------------------------------------------------------------------------

struct Argument {
    std::string name;
    std::string type;
};

struct Member {
    std::string name;
    bool isSignal;
    bool isOneWay;
    std::vector<Argument> in;
    std::vector<Argument> out;
};

Member ReadMember(XmlElement element, bool isSignal) {
    Member member{element.GetAttributeOr("name", ""), isSignal, false, {}, {}};
    for (const XmlElement argument : element.GetChildren("arg")) {
        const bool isOut = isSignal || argument.GetAttributeOr("direction", "") == "out";
        (isOut ? member.out : member.in)
            .push_back({argument.GetAttributeOr("name", ""), argument.GetAttributeOr("type", "")});
    }
    for (const XmlElement annotation : element.GetChildren("annotation")) {
        member.isOneWay |= annotation.GetAttributeOr("name", "") == "org.freedesktop.DBus.Method.NoReply" &&
                           annotation.GetAttributeOr("value", "") == "true";
    }
    return member;
}

/// The members of one interface in the description of a service.
std::vector<Member> ReadInterface(const xml::XmlDocument& description, const std::string& name) {
    std::vector<Member> members;
    for (const XmlElement interface : description.GetRoot().GetChildren("interface")) {
        if (interface.GetAttributeOr("name", "") != name) {
            continue;
        }
        for (const XmlElement method : interface.GetChildren("method")) {
            members.push_back(ReadMember(method, false));
        }
        for (const XmlElement signal : interface.GetChildren("signal")) {
            members.push_back(ReadMember(signal, true));
        }
    }
    return members;
}

msgbus::MsgBusObjectSelector Selector(const std::string& service, const std::string& interface) {
    std::string path = "/" + service;
    std::replace(path.begin(), path.end(), '.', '/');
    return {service, path, interface};
}

std::vector<Member> ReadMembers(MsgBus& bus, const std::string& service, int timeoutMs) {
    const auto object = Selector(service, DBUS_INTERFACE_INTROSPECTABLE);
    if (!dbus_validate_path(object.GetPath().c_str(), nullptr)) {
        throw Failure(kFailed, service + " has no object of its name, so it is no service to call");
    }
    const msgbus::MsgBusRemoteMethod message(object, "Introspect");
    std::string text;
    msgbus::MsgBusMsgArgumentReader(*Send(bus, message, timeoutMs)) >> text;
    try {
        return ReadInterface(xml::XmlDocument::Parse(text), service);
    } catch (const xml::XmlException& e) {
        throw Failure(kFailed, service + " describes itself in what is not XML: " + e.ToString());
    }
}

std::string TypeText(const std::string& type) {
    static const std::map<std::string, const char*> texts = {
        {"b", "bool"},
        {"y", "byte"},
        {"n", "int16"},
        {"q", "uint16"},
        {"i", "int"},
        {"u", "uint"},
        {"x", "int64"},
        {"t", "uint64"},
        {"d", "double"},
        {"s", "string"},
        {"as", "list of strings"},
    };
    const auto text = texts.find(type);
    return text != texts.end() ? text->second : type;
}

std::string Listing(const std::vector<Argument>& arguments) {
    std::string text;
    for (const Argument& argument : arguments) {
        text += text.empty() ? "" : ", ";
        text += argument.name + (argument.name.empty() ? "" : ": ") + TypeText(argument.type);
    }
    return text;
}

std::string Prototype(const Member& member) {
    if (member.isSignal) {
        return "signal " + member.name + "(" + Listing(member.out) + ")";
    }
    const std::string text = member.name + "(" + Listing(member.in) + ")";
    return member.isOneWay ? text + " without reply"
                           : text + (member.out.empty() ? "" : " -> " + Listing(member.out));
}

// Arguments from the command line ------------------------------------------------------------------------

[[noreturn]] void RefuseArgument(const std::string& text, const std::string& type) {
    throw Failure(kUsageError, "'" + text + "' is no " + TypeText(type));
}

template <class Number>
Number ParseNumber(const std::string& text, const std::string& type) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        RefuseArgument(text, type);
    }
    return number;
}

bool ParseBool(const std::string& text, const std::string& type) {
    if (text != "true" && text != "false") {
        RefuseArgument(text, type);
    }
    return text == "true";
}

Strings ParseList(const std::string& text, const std::string& type) {
    try {
        return core::JsonUtils::AsStringVector(core::JsonUtils::ParseArray(text));
    } catch (const json::Exception&) {
        RefuseArgument(text, type);
    }
}

void Append(MsgBusMsg& message, const std::string& type, const std::string& text) {
    if (type == "s") {
        message << text;
    } else if (type == "b") {
        message << ParseBool(text, type);
    } else if (type == "y") {
        message << ParseNumber<unsigned char>(text, type);
    } else if (type == "n") {
        message << ParseNumber<short>(text, type);
    } else if (type == "q") {
        message << ParseNumber<unsigned short>(text, type);
    } else if (type == "i") {
        message << ParseNumber<int>(text, type);
    } else if (type == "u") {
        message << ParseNumber<unsigned int>(text, type);
    } else if (type == "x") {
        message << ParseNumber<long long>(text, type);
    } else if (type == "t") {
        message << ParseNumber<unsigned long long>(text, type);
    } else if (type == "d") {
        message << ParseNumber<double>(text, type);
    } else if (type == "as") {
        message << ParseList(text, type);
    } else {
        throw Failure(kUsageError, "arguments of type " + type + " cannot be given here");
    }
}

// The commands --------------------------------------------------------------------------------------------

int List(MsgBus& bus, const Options& options) {
    for (const std::string& name : GetNames(bus)) {
        if (options.all || name.rfind(kPrefix, 0) == 0) {
            Print(name);
        }
    }
    return kDone;
}

int Describe(MsgBus& bus, const Options& options) {
    const std::string service = Require(bus, options.words[1]);
    const std::vector<Member> members = ReadMembers(bus, service, options.GetTimeout(kBusTimeoutMs));
    Print(service);
    for (const Member& member : members) {
        Print("  " + Prototype(member));
    }
    return kDone;
}

/// A text as it is, anything else as JSON.
struct PlainPrinter final : core::JsonUtils::ConstVisitor {
    void Visit(const json::Array& array) override { Print(ToJson(array, false)); }
    void Visit(const json::Object& object) override { Print(ToJson(object, false)); }
    void Visit(const json::Number& number) override { Print(ToJson(number)); }
    void Visit(const json::String& text) override { Print(text.Value()); }
    void Visit(const json::Boolean& value) override { Print(ToJson(value)); }
    void Visit(const json::Null& null) override { Print(ToJson(null)); }
};

void PrintResults(const std::string& results) {
    PlainPrinter printer;
    const json::Array array = core::JsonUtils::ParseArray(results);
    for (const json::UnknownElement& result : array) {
        result.Accept(printer);
    }
}

void PrintReply(const MsgBusMsg& reply, const Options& options) {
    const std::string results = msgbus::MsgBusMsgArgumentDumper(reply).AsJson(false);
    if (options.json) {
        Print(results);
    } else {
        PrintResults(results);
    }
}

/// Calls a member without arguments that the service does not describe: a reply whose signature varies cannot
/// be described.
int CallUnlisted(MsgBus& bus, const Options& options, const std::string& service, int timeout) {
    const std::string& name = options.words[2];
    const std::string unknown = service + " has no member " + name + "; see zarip-bus describe";
    if (options.words.size() != 3 || !dbus_validate_member(name.c_str(), nullptr)) {
        throw Failure(kUsageError, unknown);
    }
    try {
        PrintReply(*Send(bus, msgbus::MsgBusRemoteMethod(Selector(service, service), name.c_str()), timeout),
                   options);
    } catch (const Failure& e) {
        if (std::string(e.what()).find("Method \"" + name + "\"") != std::string::npos) {
            throw Failure(kUsageError, unknown);
        }
        throw;
    }
    return kDone;
}

int Call(MsgBus& bus, const Options& options) {
    const std::string service = Require(bus, options.words[1]);
    const std::string& name = options.words[2];
    const int timeout = options.GetTimeout(kBusTimeoutMs);
    const std::vector<Member> members = ReadMembers(bus, service, timeout);
    const auto member = std::find_if(members.begin(), members.end(), [&name](const Member& candidate) {
        return candidate.name == name && !candidate.isSignal;
    });
    if (member == members.end()) {
        return CallUnlisted(bus, options, service, timeout);
    }
    if (options.words.size() != 3 + member->in.size()) {
        throw Failure(kUsageError, name + " takes " + std::to_string(member->in.size()) + " arguments, not " +
                                       std::to_string(options.words.size() - 3) + ": " + Prototype(*member));
    }
    msgbus::MsgBusRemoteMethod message(Selector(service, service), name.c_str());
    for (std::size_t i = 0; i < member->in.size(); ++i) {
        try {
            Append(message, member->in[i].type, options.words[3 + i]);
        } catch (const osa::Exception& e) {
            throw Failure(kUsageError, name + ": " + e.what());
        }
    }
    if (member->isOneWay) {
        bus.SendMsg(message);
        AskBus<std::string>(bus, "GetId");  // is answered after the bus has passed the call on
        return kDone;
    }
    PrintReply(*Send(bus, message, timeout), options);
    return kDone;
}

struct Connection {
    Connection() {
        DBusError error = DBUS_ERROR_INIT;
        connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
        Check(error);
        dbus_connection_set_exit_on_disconnect(connection, FALSE);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }

    static void Check(DBusError& error) {
        if (dbus_error_is_set(&error)) {
            const std::string text = error.message;
            dbus_error_free(&error);
            throw Failure(kFailed, text);
        }
    }

    DBusConnection* connection = nullptr;
};

std::string Line(DBusMessage* raw) {
    const MsgBusMsg message(raw);
    json::Object line;
    const auto add = [&line](const char* name, const std::string& value) {
        if (!value.empty()) {
            line[name] = json::String(value);
        }
    };
    add("time", osa::DateTime::Now().ToString());
    add("type", message.GetType());
    add("sender", message.GetSender());
    add("destination", message.GetDestination());
    add("path", message.GetPath());
    add("interface", message.GetInterface());
    add("member", message.GetName());
    const char* const error = dbus_message_get_error_name(raw);
    add("error", error != nullptr ? error : "");
    line["serial"] = json::Number(dbus_message_get_serial(raw));
    if (dbus_message_get_reply_serial(raw) != 0) {
        line["replySerial"] = json::Number(dbus_message_get_reply_serial(raw));
    }
    std::string text = ToJson(line, false);
    text.pop_back();
    return text + ",\"arguments\":" + msgbus::MsgBusMsgArgumentDumper(message).AsJson(false) + "}";
}

/// Makes a connection one that only listens; what it is sent must not be dispatched, since it may not answer.
void BecomeMonitor(DBusConnection* connection, const Strings& rules) {
    MsgBusMsg message(MsgBusMsg::kMethodCall);
    message.SetMsgDestination(DBUS_SERVICE_DBUS);
    message.SetMsgPath(DBUS_PATH_DBUS);
    message.SetMsgInterface(DBUS_INTERFACE_MONITORING);
    message.SetMsgName("BecomeMonitor");
    message << rules << 0U;
    DBusError error = DBUS_ERROR_INIT;
    DBusMessage* const reply =
        dbus_connection_send_with_reply_and_block(connection, message.GetDBusMessage(), 5'000, &error);
    Connection::Check(error);
    dbus_message_unref(reply);
}

void PrintMessages(DBusConnection* connection) {
    const auto unref = [](DBusMessage* message) { dbus_message_unref(message); };
    for (;;) {
        const std::unique_ptr<DBusMessage, decltype(unref)> message(dbus_connection_pop_message(connection),
                                                                    unref);
        if (!message) {
            break;
        }
        if (!dbus_message_is_signal(message.get(), DBUS_INTERFACE_LOCAL, "Disconnected")) {
            Print(Line(message.get()));
        }
    }
    Flush();
}

int Monitor(MsgBus& bus, const Options& options) {
    Strings rules;
    if (options.words.size() > 1) {
        // The service need not be there yet.
        const std::string service = Resolve(GetNames(bus), options.words[1]);
        if (!dbus_validate_bus_name(service.c_str(), nullptr)) {
            throw Failure(kUsageError, "'" + service + "' is no name of a service");
        }
        rules = {"sender='" + service + "'", "destination='" + service + "'"};
        if (dbus_validate_interface(service.c_str(), nullptr)) {
            rules.push_back("interface='" + service + "'");
        }
    }
    const Connection monitor;
    BecomeMonitor(monitor.connection, rules);
    // Reading waits also where something was read before, and the last read may bring messages, too.
    do {
        PrintMessages(monitor.connection);
    } while (dbus_connection_read_write(monitor.connection, -1) != FALSE);
    PrintMessages(monitor.connection);
    throw Failure(kNotThere, "the bus went away");
}

/// Notices that a name on the bus has changed hands.
class OwnerWatch {
public:
    explicit OwnerWatch(MsgBus& bus) : _handlers(&bus) {
        _handlers.AddHandler(
            DBUS_INTERFACE_DBUS, "NameOwnerChanged",
            new msgbus::VoidMessageHandler1<std::string>(core::MakeDelegate(this, &OwnerWatch::OnChange),
                                                         msgbus::IMessageHandler::kSignals));
        bus.StartServer();
    }

    void Wait(milliseconds limit) { _changed.TryLock(static_cast<unsigned int>(limit.count())); }

private:
    void OnChange(const std::string& /*name*/) {
        try {
            _changed.Release();
        } catch (const osa::LockException&) {
            // It was noticed already.
        }
    }

    osa::Semaphore _changed{"OwnerWatch", 1, 0};
    msgbus::MessageHandlerCollection _handlers;
};

int Wait(MsgBus& bus, const Options& options) {
    const auto end = Clock::now() + milliseconds(options.GetTimeout(0));
    if (!dbus_validate_bus_name((kPrefix + options.words[1]).c_str(), nullptr)) {
        throw Failure(kUsageError, "'" + options.words[1] + "' is no name of a service");
    }
    OwnerWatch watch(bus);
    for (;;) {
        const Strings names = GetNames(bus);
        if (std::find(names.begin(), names.end(), Resolve(names, options.words[1])) != names.end()) {
            return kDone;
        }
        // Looks again now and then, so that the end of the bus is noticed, too.
        milliseconds limit(100);
        if (options.timeout >= 0) {
            const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
            if (left.count() <= 0) {
                throw Failure(kTimedOut, options.words[1] + " is not on the bus yet");
            }
            limit = std::min(limit, left);
        }
        watch.Wait(limit);
    }
}

// -----------------------------------------------------------------------------------------------------------

const struct Command {
    const char* name;
    std::size_t minWords;
    std::size_t maxWords;
    int (*run)(MsgBus& bus, const Options& options);
} kCommands[] = {
    {"list", 1, 1, List},
    {"describe", 2, 2, Describe},
    {"call", 3, std::numeric_limits<std::size_t>::max(), Call},
    {"monitor", 1, 2, Monitor},
    {"wait", 2, 2, Wait},
};

double ParseTimeout(const std::string& text) {
    double seconds = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, seconds);
    if (parsed.ec != std::errc() || parsed.ptr != end || !(seconds >= 0 && seconds <= 1e6)) {
        throw Failure(kUsageError, "'" + text + "' is no number of seconds");
    }
    return seconds;
}

constexpr char kTimeoutIs[] = "--timeout=";

/// Options end at the member of a call, so that arguments may begin with a dash, and at "--".
Options ParseOptions(const Strings& given) {
    Options options;
    bool isOver = false;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const std::string& word = given[i];
        isOver = isOver || (options.words.size() == 3 && options.words[0] == "call");
        if (isOver || word.size() < 2 || word[0] != '-') {
            options.words.push_back(word);
        } else if (word == "--") {
            isOver = true;
        } else if (word == "-h" || word == "--help") {
            options.help = true;
        } else if (word == "-a" || word == "--all") {
            options.all = true;
        } else if (word == "-j" || word == "--json") {
            options.json = true;
        } else if (word == "-t" || word == "--timeout") {
            if (i + 1 == given.size()) {
                throw Failure(kUsageError, word + " needs a number of seconds");
            }
            options.timeout = ParseTimeout(given[++i]);
        } else if (word.rfind(kTimeoutIs, 0) == 0) {
            options.timeout = ParseTimeout(word.substr(sizeof kTimeoutIs - 1));
        } else {
            throw Failure(kUsageError, "unknown option " + word);
        }
    }
    return options;
}

/// Tells a service that refuses from a bus that is gone.
int RunOn(MsgBus& bus, int (*run)(MsgBus& bus, const Options& options), const Options& options) {
    try {
        return run(bus, options);
    } catch (const std::exception& e) {
        const auto* const failure = dynamic_cast<const Failure*>(&e);
        if (failure != nullptr && failure->exitStatus != kFailed) {
            throw;
        }
        try {
            AskBus<std::string>(bus, "GetId");
        } catch (const std::exception&) {
            throw Failure(kNotThere, e.what());
        }
        throw;
    }
}

int Run(const Strings& given) {
    const Options options = ParseOptions(given);
    if (options.help) {
        std::fputs(kUsage, stdout);
        return kDone;
    }
    for (const Command& command : kCommands) {
        if (!options.words.empty() && options.words[0] == command.name &&
            options.words.size() >= command.minWords && options.words.size() <= command.maxWords) {
            std::unique_ptr<MsgBus> bus;
            try {
                bus = std::make_unique<MsgBus>();
            } catch (const osa::Exception& e) {
                throw Failure(kNotThere, e.what());
            }
            return RunOn(*bus, command.run, options);
        }
    }
    std::fputs(kUsage, stderr);
    return kUsageError;
}

}  // namespace

int main(int argc, char** argv) {
    // As every other program: who closes the pipe that it prints to ends it.
    dbus_connection_set_change_sigpipe(FALSE);
    try {
        const int status = Run(Strings(argv + 1, argv + argc));
        Flush();
        return status;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "zarip-bus: %s\n", failure.what());
        return failure.exitStatus;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zarip-bus: %s\n", e.what());
        return kFailed;
    }
}
