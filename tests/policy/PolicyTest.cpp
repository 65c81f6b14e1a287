// SPDX-License-Identifier: MIT

// The policy files on a real bus, with real users: which of them may own a service's name, send its signals,
// hear them, call it, and read secrets.

#include <zarip/core/Delegate.h>
#include <zarip/interfaces/IAudioLineOutProvider.h>
#include <zarip/interfaces/IBrelkServicesProvider.h>
#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/IPtzSerialProvider.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/ISmRegistrationProvider.h>
#include <zarip/interfaces/IStreamInfoProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>
#include <zarip/msgbus/MsgBusSignal.h>
#include <zarip/osa/Exception.h>

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ErrorOf.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace zarip {
namespace {

using interfaces::InterfaceServer;
using msgbus::MsgBus;
using msgbus::MsgBusMsg;
using test::ErrorOf;

const struct Service {
    const char* name;
    const char* path;
    const char* member;  // null if there are only signals
    InterfaceServer* (*serve)(MsgBus* bus);
} kServices[] = {
    {"com.brelk.system.security", "/com/brelk/system/security", "GetNonce",
     [](MsgBus* bus) {
         return interfaces::ISecurityProvider::CreateServer(bus, new interfaces::ISecurityProvider);
     }},
    {"com.brelk.networkingV2", "/com/brelk/networkingV2", "Get",
     [](MsgBus* bus) {
         return interfaces::INetworkingV2Provider::CreateServer(bus, new interfaces::INetworkingV2Provider);
     }},
    {"com.brelk.video.streamInfo", "/com/brelk/video/streamInfo", "GetCurrentVideoConnections",
     [](MsgBus* bus) {
         return interfaces::IStreamInfoProvider::CreateServer(bus, new interfaces::IStreamInfoProvider);
     }},
    {"com.brelk.hardware.ptzSerial", "/com/brelk/hardware/ptzSerial", "GetPtzPollingState",
     [](MsgBus* bus) {
         return interfaces::IPtzSerialProvider::CreateServer(bus, new interfaces::IPtzSerialProvider);
     }},
    {"com.brelk.audio.lineout", "/com/brelk/audio/lineout", "Query",
     [](MsgBus* bus) {
         return interfaces::IAudioLineOutProvider::CreateServer(bus, new interfaces::IAudioLineOutProvider);
     }},
    {"com.brelk.mirase.smRegistration", "/com/brelk/mirase/smRegistration", "IsRegistered",
     [](MsgBus* bus) {
         return interfaces::ISmRegistrationProvider::CreateServer(bus,
                                                                  new interfaces::ISmRegistrationProvider);
     }},
    {"com.brelk.brelkServices", "/com/brelk/brelkServices", "GetAllServices",
     [](MsgBus* bus) {
         return interfaces::IBrelkServicesProvider::CreateServer(bus, new interfaces::IBrelkServicesProvider);
     }},
    {"com.brelk.analytics", "/com/brelk/analytics", nullptr, nullptr},
};

// Users -------------------------------------------------------------------------------------------------

/// Users and groups that exist while this object does.
class Accounts {
public:
    void AddGroup(const std::string& name) {
        Run("groupadd --system " + name);
        _undo.push_back("groupdel " + name);
    }
    void AddUser(const std::string& name) {
        Run("useradd --system --no-create-home --user-group --shell /usr/sbin/nologin " + name);
        // Forced, because a sanitizer's helper that a process of the user has started may not have ended yet.
        _undo.push_back("userdel --force " + name);
    }
    Accounts() = default;
    Accounts(const Accounts&) = delete;
    Accounts& operator=(const Accounts&) = delete;
    ~Accounts() {
        for (auto undo = _undo.rbegin(); undo != _undo.rend(); ++undo) {
            EXPECT_EQ(std::system((*undo + " >/dev/null 2>&1").c_str()), 0) << *undo;
        }
    }

private:
    static void Run(const std::string& command) {
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error(command + " failed");
        }
    }

    std::vector<std::string> _undo;
};

/// A process that runs as a user, and in a group if one is given, and reports lines to this process.
class Actor {
public:
    /// @param act  gets a function that reports a line and one that waits for `Cue`.
    using Say = std::function<void(const std::string&)>;
    using Await = std::function<void()>;
    Actor(const std::string& user, const std::string& group, const std::function<void(Say, Await)>& act) {
        int lines[2];
        int cues[2];
        EXPECT_EQ(::pipe(lines), 0);
        EXPECT_EQ(::pipe(cues), 0);
        _pid = ::fork();
        if (_pid == 0) {
            ::close(lines[0]);
            ::close(cues[1]);
            Become(user, group);
            try {
                act([&](const std::string& line) { ::dprintf(lines[1], "%s\n", line.c_str()); },
                    [&] {
                        char cue = 0;
                        if (::read(cues[0], &cue, 1) != 1) {
                            ::_exit(1);
                        }
                    });
            } catch (const std::exception& e) {
                ::dprintf(lines[1], "%s\n", e.what());
            }
            ::_exit(0);  // this process owns neither the tests nor the accounts
        }
        ::close(lines[1]);
        ::close(cues[0]);
        _lines = ::fdopen(lines[0], "r");
        _cues = cues[1];
    }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;
    ~Actor() {
        ::close(_cues);
        ::fclose(_lines);
        ::waitpid(_pid, nullptr, 0);
    }

    /// Returns the next line, or "the end".
    std::string Read() {
        std::string line;
        for (int c = std::fgetc(_lines); c != '\n'; c = std::fgetc(_lines)) {
            if (c == EOF) {
                return "the end";
            }
            line += static_cast<char>(c);
        }
        return line;
    }
    void Cue() { EXPECT_EQ(::write(_cues, "", 1), 1); }

private:
    static void Become(const std::string& user, const std::string& group) {
        const passwd* const entry = ::getpwnam(user.c_str());
        const gid_t supplementary = group.empty() ? entry->pw_gid : ::getgrnam(group.c_str())->gr_gid;
        if (::setgroups(1, &supplementary) != 0 || ::setgid(entry->pw_gid) != 0 ||
            ::setuid(entry->pw_uid) != 0) {
            ::_exit(1);
        }
    }

    pid_t _pid;
    FILE* _lines;
    int _cues;
};

// What they do ------------------------------------------------------------------------------------------

void SendSignals(MsgBus& bus, const char* member) {
    for (const Service& service : kServices) {
        bus.SendMsg(msgbus::MsgBusSignal(service.path, service.name, member));
    }
}

std::string CallService(MsgBus& bus, const std::string& destination, const Service& service,
                        const char* member = nullptr) {
    msgbus::MsgBusRemoteMethod message({destination, service.path, service.name},
                                       member != nullptr ? member : service.member);
    message << "";  // for members that take a string; additional arguments are ignored
    return ErrorOf([&] {
        MsgBusMsg* reply = nullptr;
        bus.SendMsgWaitForReply(message, reply, 5'000);
        delete reply;
    });
}

/// Counts the signals of some interfaces until one arrives that its own process sends.
class Listener {
public:
    explicit Listener(MsgBus& bus) : _bus(bus), _handlers(&bus) { Listen("zt.end", "End", _ends); }
    void Listen(const std::string& interface) {
        Listen(interface, "Genuine", _genuine);
        Listen(interface, "Forged", _forged);
    }
    void AwaitGenuine(std::size_t count) {
        test::WaitUntil([&] { return _genuine == static_cast<int>(count); });
    }
    /// The bus keeps the order, so all messages that were sent before have arrived.
    std::string Count() {
        _bus.SendMsg(msgbus::MsgBusSignal("/zt", "zt.end", "End"));
        test::WaitUntil([&] { return _ends != 0; });
        return std::to_string(_genuine) + " genuine, " + std::to_string(_forged) + " forged";
    }

private:
    using Counter = std::atomic<int>;
    struct Increment final : core::IVoidDelegate0 {
        explicit Increment(Counter& counted) : counter(counted) {}
        void Call() override { ++counter; }
        Counter& counter;
    };
    void Listen(const std::string& interface, const char* signal, Counter& counter) {
        _handlers.AddHandler(
            interface, signal,
            new msgbus::VoidMessageHandler0(new Increment(counter), msgbus::IMessageHandler::kSignals));
    }

    MsgBus& _bus;
    Counter _genuine{0};
    Counter _forged{0};
    Counter _ends{0};
    msgbus::MessageHandlerCollection _handlers;
};

const char* const kSecrets[] = {"GetPassphrase", "GetPassphrases", "GetCredentials"};
const char kViewers[] = "com.brelk.example.viewers";

/// Serves everything. As on a device, each service has its own connection, because a rule about a name
/// applies to all names of its connection. Sends the signals on a cue and receives the number of viewers.
void Serve(const Actor::Say& say, const Actor::Await& await) {
    std::vector<std::unique_ptr<MsgBus>> buses;
    std::vector<std::unique_ptr<InterfaceServer>> servers;
    for (const Service& service : kServices) {
        MsgBus* const bus = buses.emplace_back(std::make_unique<MsgBus>()).get();
        if (service.serve != nullptr) {
            servers.emplace_back(service.serve(bus));
        } else {
            bus->RegisterDestinationName(service.name);
        }
    }
    Listener listener(*buses.front());
    listener.Listen(kViewers);
    for (const auto& bus : buses) {
        bus->StartServer();
    }
    say("serving");
    await();
    SendSignals(*buses.front(), "Genuine");
    buses.front()->SendMsg(msgbus::MsgBusSignal("/", kViewers, "Genuine"));
    await();
    say(listener.Count());
}

/// Reads the secrets.
void CallForSecrets(const Actor::Say& say, const Actor::Await& /*await*/) {
    MsgBus bus;
    for (const char* const member : kSecrets) {
        say(CallService(bus, kServices[0].name, kServices[0], member));
    }
}

/// Calls every service, asks for the secrets, and reports the signals that arrive.
void CallAndListen(const Actor::Say& say, const Actor::Await& await) {
    MsgBus bus;
    Listener listener(bus);
    for (const Service& service : kServices) {
        listener.Listen(service.name);
    }
    bus.StartServer();
    for (const Service& service : kServices) {
        if (service.member != nullptr) {
            say(CallService(bus, service.name, service));
        }
    }
    CallForSecrets(say, await);
    say("listening");
    listener.AwaitGenuine(std::size(kServices));
    say(listener.Count());
}

/// Tries everything that is not allowed.
void Attack(const Actor::Say& say, const Actor::Await& await) {
    MsgBus bus;
    Listener listener(bus);
    listener.Listen(kViewers);
    for (const Service& service : kServices) {
        listener.Listen(service.name);
    }
    bus.StartServer();
    const msgbus::MsgBusObjectSelector daemon("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus");
    for (const Service& service : kServices) {
        msgbus::MsgBusRemoteMethod request(daemon, "RequestName");
        request << service.name << 2U;  // takes the name from its owner if that is allowed
        say(ErrorOf([&] {
            MsgBusMsg* reply = nullptr;
            bus.SendMsgWaitForReply(request, reply, 5'000);
            delete reply;
        }));
        if (service.member != nullptr) {
            msgbus::MsgBusRemoteMethod query(daemon, "GetNameOwner");
            query << service.name;
            MsgBusMsg* answer = nullptr;
            bus.SendMsgWaitForReply(query, answer, 5'000);
            const std::unique_ptr<MsgBusMsg> owned(answer);
            std::string owner;
            *answer >> owner;
            say(CallService(bus, service.name, service));
            say(CallService(bus, owner, service));
        }
    }
    CallForSecrets(say, await);
    SendSignals(bus, "Forged");
    bus.SendMsg(msgbus::MsgBusSignal("/", kViewers, "Forged"));
    // The answer arrives after the signals.
    MsgBusMsg* answer = nullptr;
    bus.SendMsgWaitForReply(msgbus::MsgBusRemoteMethod(daemon, "GetId"), answer, 5'000);
    delete answer;
    say("done");
    await();
    say(listener.Count());
}

/// The rules of every system bus, then the policy files with the users and the group of this test.
/// @param keeper  the one user beside the services that may read secrets.
std::string Policy(const std::string& user, const std::string& keeper, const std::string& group) {
    std::string policy;
    std::vector<std::string> files = {ZARIP_BUS_RULES, ZARIP_POLICY_FOLDER "/zarip.conf",
                                      ZARIP_VIEWERS_POLICY};
    for (const Service& service : kServices) {
        files.push_back(ZARIP_POLICY_FOLDER "/" + std::string(service.name) + ".conf");
    }
    for (const std::string& name : files) {
        std::ifstream file(name);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        text = text.substr(text.find("<busconfig>") + 11);
        text = text.substr(0, text.find("</busconfig>"));
        text = std::regex_replace(text, std::regex("user=\"zarip-backup\""), "user=\"" + keeper + "\"");
        text = std::regex_replace(text, std::regex("user=\"zarip-[a-z]+\""), "user=\"" + user + "\"");
        policy += std::regex_replace(text, std::regex("group=\"zarip\""), "group=\"" + group + "\"");
    }
    return policy;
}

void ExpectRefusedSecrets(Actor& actor) {
    for (const char* const member : kSecrets) {
        EXPECT_NE(actor.Read().find("Rejected send message"), std::string::npos) << member;
    }
}

void ExpectRefusedAttacks(Actor& attacker) {
    for (const Service& attacked : kServices) {
        EXPECT_NE(attacker.Read().find("is not allowed to own the service"), std::string::npos)
            << attacked.name;
        if (attacked.member != nullptr) {
            for (const char* address : {"name", "unique name"}) {
                EXPECT_NE(attacker.Read().find("Rejected send message"), std::string::npos)
                    << attacked.name << " by its " << address;
            }
        }
    }
}

TEST(PolicyTest, OnlyTheServiceOwnsItsNameOnlyTheGroupCallsAndOnlyNamedUsersReadSecrets) {
    if (::geteuid() != 0 || std::system("command -v useradd >/dev/null") != 0) {
        GTEST_SKIP() << "needs to be root, to run as users of its own";
    }
    const std::string id = std::to_string(::getpid());
    const std::string insider = "zt-in-" + id;
    const std::string outsider = "zt-out-" + id;
    const std::string keeper = "zt-keep-" + id;
    const std::string group = "zt-" + id;
    Accounts accounts;
    accounts.AddGroup(group);
    accounts.AddUser(insider);
    accounts.AddUser(outsider);
    accounts.AddUser(keeper);
    test::PrivateBus::SetPolicy(Policy(insider, keeper, group));
    ASSERT_EQ(::chmod(test::PrivateBus::Get().GetFolder().c_str(), 0755), 0);

    Actor service(insider, "", Serve);
    ASSERT_EQ(service.Read(), "serving");
    Actor client(outsider, group, CallAndListen);
    for (const Service& called : kServices) {
        if (called.member != nullptr) {
            EXPECT_EQ(client.Read(), "DBUS call " + std::string(called.name) + "::" + called.member +
                                         " failed: unimplemented");
        }
    }
    ExpectRefusedSecrets(client);
    ASSERT_EQ(client.Read(), "listening");
    Actor backup(keeper, "", CallForSecrets);
    for (const char* const member : kSecrets) {
        EXPECT_EQ(backup.Read(),
                  "DBUS call com.brelk.system.security::" + std::string(member) + " failed: unimplemented");
    }

    Actor attacker(outsider, "", Attack);
    ExpectRefusedAttacks(attacker);
    ExpectRefusedSecrets(attacker);
    ASSERT_EQ(attacker.Read(), "done");
    service.Cue();
    EXPECT_EQ(client.Read(), "8 genuine, 0 forged");
    attacker.Cue();
    EXPECT_EQ(attacker.Read(), "0 genuine, 0 forged") << "neither what others send nor its own";
    service.Cue();
    EXPECT_EQ(service.Read(), "1 genuine, 0 forged");
}

TEST(PolicyTest, EveryInterfaceHasAPolicy) {
    std::vector<std::string> described = {"zarip"};  // the bus itself
    std::vector<std::string> guarded;
    const std::filesystem::path policies = ZARIP_POLICY_FOLDER;
    for (const auto& entry : std::filesystem::directory_iterator(policies.parent_path() / "interfaces")) {
        described.push_back(entry.path().stem());
    }
    for (const auto& entry : std::filesystem::directory_iterator(policies)) {
        guarded.push_back(entry.path().stem());
    }
    std::sort(described.begin(), described.end());
    std::sort(guarded.begin(), guarded.end());
    EXPECT_EQ(described, guarded);
    EXPECT_EQ(guarded.size(), std::size(kServices) + 1);
}

}  // namespace
}  // namespace zarip
