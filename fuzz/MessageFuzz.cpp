// SPDX-License-Identifier: MIT

// Messages of the bus: as bytes, and made value by value, since few bytes make a valid one.

#include <dbus/dbus.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Targets.h"
#include "zarip/interfaces/AnalyticsInterface.h"
#include "zarip/interfaces/IAudioLineOutProvider.h"
#include "zarip/interfaces/IBrelkServicesProvider.h"
#include "zarip/interfaces/INetworkingV2Provider.h"
#include "zarip/interfaces/IPtzSerialProvider.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/ISmRegistrationProvider.h"
#include "zarip/interfaces/IStreamInfoProvider.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/FakeBus.h"
#include "zarip/msgbus/IMessageHandler.h"
#include "zarip/msgbus/MsgBusMsgArgumentDumper.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"
#include "zarip/msgbus/MsgBusRemoteMethod.h"
#include "zarip/msgbus/MsgBusSignal.h"
#include "zarip/osa/Exception.h"

namespace fuzz {

namespace {

using namespace zarip;
using msgbus::MsgBusMsg;
using msgbus::MsgBusMsgArgumentReader;
using Bytes = std::string_view;

unsigned char TakeByte(Bytes& bytes) {
    const auto byte = static_cast<unsigned char>(bytes.empty() ? 0 : bytes[0]);
    bytes.remove_prefix(bytes.empty() ? 0 : 1);
    return byte;
}

template <class T>
T TakeNumber(Bytes& bytes) {
    T value{};
    const std::size_t size = std::min(sizeof(T), bytes.size());
    std::memcpy(&value, bytes.data(), size);
    bytes.remove_prefix(size);
    return value;
}

std::string TakeText(Bytes& bytes) {
    const std::size_t wanted = TakeByte(bytes);
    const std::size_t size = std::min(wanted, bytes.size());
    const std::string text(bytes.substr(0, size));
    bytes.remove_prefix(size);
    return text;
}

template <class T>
std::vector<T> TakeList(Bytes& bytes) {
    std::vector<T> list;
    for (int count = TakeByte(bytes) % 16; count > 0; --count) {
        if constexpr (std::is_same_v<T, std::string>) {
            list.push_back(TakeText(bytes));
        } else {
            list.push_back(TakeNumber<T>(bytes));
        }
    }
    return list;
}

template <class T>
T Take(Bytes& bytes) {
    if constexpr (std::is_same_v<T, bool>) {
        return TakeByte(bytes) != 0;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return TakeText(bytes);
    } else if constexpr (std::is_same_v<T, std::deque<bool>>) {
        return T(TakeByte(bytes) % 16, true);
    } else if constexpr (std::is_arithmetic_v<T>) {
        return TakeNumber<T>(bytes);
    } else {
        return TakeList<typename T::value_type>(bytes);
    }
}

/// Values of some types; the kind of a value is the number of its type.
template <class... T>
struct Kinds {
    static void Append(MsgBusMsg& message, int kind, Bytes& bytes) {
        int number = 0;
        ((number++ == kind ? (void)(message << Take<T>(bytes)) : void()), ...);
    }
    static void Read(MsgBusMsgArgumentReader& reader, int kind) {
        int number = 0;
        ((number++ == kind ? ReadOne<T>(reader) : void()), ...);
    }

private:
    template <class One>
    static void ReadOne(MsgBusMsgArgumentReader& reader) {
        One value{};
        reader >> value;
    }
};

using Values =
    Kinds<bool, unsigned char, short, unsigned short, int, unsigned int, long long, unsigned long long,
          double, std::string, std::vector<unsigned char>, std::vector<int>, std::vector<unsigned int>,
          std::vector<double>, std::vector<std::string>, std::deque<bool>>;

/// Runs what may refuse its message with an exception of the library, and in no other way.
template <class Action>
bool IsTaken(Action action) {
    try {
        action();
        return true;
    } catch (const osa::Exception&) {
        return false;
    }
}

/// The reader that takes the value that comes next; 16 if there is none.
int FindKind(DBusMessageIter& position) {
    constexpr char kBasic[] = "bynqiuxtds";
    constexpr char kElements[] = "yiudsb";
    const int type = dbus_message_iter_get_arg_type(&position);
    const bool isArray = type == DBUS_TYPE_ARRAY;
    const int code = isArray ? dbus_message_iter_get_element_type(&position) : type;
    const char* const codes = isArray ? kElements : kBasic;
    const char* const found = code != 0 ? std::strchr(codes, code) : nullptr;
    return found == nullptr ? 16 : static_cast<int>(found - codes) + (isArray ? 10 : 0);
}

/// Reads the values as far as there is a reader for them, and one in another way than it is.
void ReadAll(const MsgBusMsg& message, unsigned int choice) {
    MsgBusMsgArgumentReader reader(message);
    DBusMessageIter position;
    dbus_message_iter_init(message.GetDBusMessage(), &position);
    for (int kind = FindKind(position); kind < 16; kind = FindKind(position)) {
        Check(IsTaken([&] { Values::Read(reader, kind); }), "a value is read by its reader");
        dbus_message_iter_next(&position);
    }
    MsgBusMsgArgumentReader wrong(message);
    IsTaken([&] { Values::Read(wrong, static_cast<int>(choice % 16)); });
}

void ReadAlert(const MsgBusMsg& message) {
    using Alert = interfaces::AnalyticsInterface::AnalyticsAlert;
    IsTaken([&] {
        const Alert alert(message);
        MsgBusMsg again(MsgBusMsg::kSignal);
        if (!IsTaken([&] { alert.Serialize(again); })) {
            return;  // more points than an alert can have
        }
        const Alert copy(again);
        Check(copy.alertId == alert.alertId && copy.zone.size() == alert.zone.size() &&
                  copy.track.size() == alert.track.size() && copy.endTime == alert.endTime,
              "an alert that was written reads as the same");
    });
}

/// A bus whose service answers each call with one message.
class AnsweringBus final : public msgbus::IMsgBus {
public:
    void SendMsg(const MsgBusMsg&) override {}
    void SendMsgWaitForReply(const MsgBusMsg&, MsgBusMsg*& reply, int) override {
        reply = new MsgBusMsg(*answer);
    }
    void SendReply(const MsgBusMsg&) override {}
    void StartServer() override {}
    void StartServer(unsigned int, signed char) override {}
    void StopServer() override {}
    void StopServer(bool) override {}
    bool IsRunning() const override { return true; }
    void RegisterDestinationName(const std::string&) override {}
    void UnregisterDestinationName(const std::string&) override {}
    void RegisterMessageHandler(const std::string&, const std::string&, msgbus::IMessageHandler*) override {}
    void UnregisterMessageHandler(msgbus::IMessageHandler*) override {}

    const MsgBusMsg* answer = nullptr;
};

/// The records that clients read from answers.
void ReadAsAnswer(const MsgBusMsg& message) {
    static auto* const s_bus = new AnsweringBus;
    static auto* const s_audio = interfaces::IAudioLineOutProvider::CreateClient(s_bus);
    static auto* const s_security = interfaces::ISecurityProvider::CreateClient(s_bus);
    s_bus->answer = &message;
    IsTaken([] { s_audio->Connect("client", 1, 2); });
    IsTaken([] { s_audio->Query(); });
    IsTaken([] { s_security->GetAllowedPaths("session"); });
    IsTaken([] {
        std::string result;
        s_security->GetExpiration("session", result);
    });
}

template <class Provider>
struct Served {
    explicit Served(msgbus::IMsgBus& bus) : server(Provider::CreateServer(&bus, &implementation)) {}
    Provider implementation;
    std::unique_ptr<interfaces::InterfaceServer> server;
};

/// A bus in memory that also keeps its handlers.
class HandlerBus final : public msgbus::FakeBus {
public:
    void RegisterMessageHandler(const std::string& member, const std::string& interface,
                                msgbus::IMessageHandler* handler) override {
        FakeBus::RegisterMessageHandler(member, interface, handler);
        _handlers.push_back(handler);
    }
    std::vector<msgbus::IMessageHandler*> _handlers;
};

/// All services on one bus in memory.
struct AllServices {
    HandlerBus bus;
    Served<interfaces::IAudioLineOutProvider> audio{bus};
    Served<interfaces::IBrelkServicesProvider> directory{bus};
    Served<interfaces::INetworkingV2Provider> networking{bus};
    Served<interfaces::IPtzSerialProvider> serial{bus};
    Served<interfaces::ISecurityProvider> security{bus};
    Served<interfaces::ISmRegistrationProvider> registration{bus};
    Served<interfaces::IStreamInfoProvider> stream{bus};
};

/// Gives the message, as a call with a serial number, to a handler that the input chooses.
void Serve(const MsgBusMsg& message, unsigned int choice) {
    static auto* const s_services = new AllServices;
    if (message.GetType() != "method_call") {
        return;
    }
    MsgBusMsg call(message);
    dbus_message_set_serial(call.GetDBusMessage(), 1);
    const auto& handlers = s_services->bus._handlers;
    msgbus::IMessageHandler* const handler = handlers[choice % handlers.size()];
    if ((handler->GetKind() & msgbus::IMessageHandler::kMethodCalls) != 0) {
        IsTaken([&] { handler->HandleMessage(call, s_services->bus); });
    }
}

/// One of the ways in which a message is used: a choice, since exceptions take most of the time.
void UseReceived(const MsgBusMsg& message, unsigned int choice) {
    switch (choice % 4) {
        case 0:
            ReadAll(message, choice / 4);
            for (const bool withTypes : {false, true}) {
                IsTaken([&] {
                    Check(!msgbus::MsgBusMsgArgumentDumper(message).AsJson(withTypes).empty(), "a dump");
                });
            }
            break;
        case 1: {
            const std::string fields = message.GetType() + message.GetName() + message.GetInterface() +
                                       message.GetDestination() + message.GetPath() + message.GetSender();
            IsTaken([&] { delete message.MakeReplyMsg(); });
            IsTaken([&] { delete message.MakeErrorMsg(fields); });
            ReadAlert(message);
            break;
        }
        case 2:
            ReadAsAnswer(message);
            break;
        default:
            Serve(message, choice / 4);
            break;
    }
}

constexpr const char* kPath = "/org/camera/fuzz";
constexpr const char* kInterface = "org.camera.fuzz";

}  // namespace

/// The bytes of a message. What libdbus does not take as one is a list of values.
FUZZ_TARGET(message) {
    Bytes bytes(input);
    const unsigned int choice = TakeByte(bytes);
    const int available = static_cast<int>(bytes.size());
    if (DBusMessage* const received = dbus_message_demarshal(bytes.data(), available, nullptr)) {
        const MsgBusMsg message(received);
        dbus_message_unref(received);
        UseReceived(message, choice);
        return;
    }
    MsgBusMsg made(MsgBusMsg::kMethodCall);
    made.SetMsgPath(kPath);
    made.SetMsgInterface(kInterface);
    made.SetMsgName("Any");
    dbus_message_set_serial(made.GetDBusMessage(), 1);
    while (!bytes.empty()) {
        IsTaken([&] { Values::Append(made, TakeByte(bytes) % 16, bytes); });
    }
    UseReceived(made, choice);
}

/// What programs put into messages: fields and values of any kind are taken or refused, and those that are
/// taken are those that are read.
FUZZ_TARGET(builder) {
    Bytes bytes(input);
    MsgBusMsg message(TakeByte(bytes) % 2 == 0 ? MsgBusMsg::kSignal : MsgBusMsg::kMethodCall);
    const std::string field = TakeText(bytes);
    const bool hasName = IsTaken([&] { message.SetMsgName(field); });
    const bool hasPath = IsTaken([&] { message.SetMsgPath(field); });
    const bool hasInterface = IsTaken([&] { message.SetMsgInterface(field); });
    IsTaken([&] { message.SetMsgDestination(field); });
    Check(!hasName || message.GetName() == field.c_str(), "a name that was taken is the message's");
    Check(!hasPath || message.GetPath() == field.c_str(), "a path that was taken is the message's");
    Check(!hasInterface || message.GetInterface() == field.c_str(),
          "an interface that was taken is the message's");
    IsTaken([&] { msgbus::MsgBusSignal(field.c_str(), field.c_str(), field.c_str()); });
    IsTaken([&] {
        msgbus::MsgBusRemoteMethod(msgbus::MsgBusObjectSelector(field, field, field), field.c_str());
    });
    std::vector<int> kinds;
    while (!bytes.empty()) {
        const int kind = TakeByte(bytes) % 16;
        if (IsTaken([&] { Values::Append(message, kind, bytes); })) {
            kinds.push_back(kind);
        }
    }
    MsgBusMsgArgumentReader reader(message);
    for (const int kind : kinds) {
        Check(IsTaken([&] { Values::Read(reader, kind); }), "what was appended is read");
    }
}

}  // namespace fuzz
