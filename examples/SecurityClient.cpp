// SPDX-License-Identifier: MIT

// Calls the security service from the command line: security-client COMMAND [ARGUMENT]...

#include <zarip/core/Delegate.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/osa/Thread.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using zarip::interfaces::ISecurityProvider;
using zarip::msgbus::MsgBus;
using Arguments = std::vector<std::string>;

int Print(const std::string& text) {
    std::printf("%s\n", text.c_str());
    return 0;
}

int PrintCode(int code) {
    Print(code == 0 ? "done" : "refused with code " + std::to_string(code));
    return code == 0 ? 0 : 1;
}

int PrintAnswer(bool answer) {
    Print(answer ? "yes" : "no");
    return answer ? 0 : 1;
}

int PrintLines(const Arguments& lines) {
    for (const std::string& line : lines) {
        Print(line);
    }
    return 0;
}

/// Waits for at most ten seconds until the interface is served.
int Wait(ISecurityProvider& service) {
    for (int attempt = 0;; ++attempt) {
        try {
            service.AllowHttpDigest();
            return 0;
        } catch (const std::exception&) {
            if (attempt == 200) {
                throw;
            }
        }
        zarip::osa::Thread::CurrentThread::Sleep(50);
    }
}

struct Watcher {
    void OnUsersChanged(bool changed) {
        Print(std::string("UsersChanged(") + (changed ? "true" : "false") + ")");
        std::fflush(stdout);
    }
};

/// Prints signals until the bus is lost or the program is ended.
int Watch(ISecurityProvider& service, MsgBus& bus) {
    Watcher watcher;
    service.UsersChanged.AddDelegate(zarip::core::MakeDelegate(&watcher, &Watcher::OnUsersChanged));
    bus.StartServer();
    while (bus.IsRunning()) {
        zarip::osa::Thread::CurrentThread::Sleep(1000);
    }
    service.UsersChanged.RemoveDelegate(&watcher);
    return 1;
}

struct Command {
    const char* name;
    const char* arguments;
    std::size_t count;
    int (*run)(ISecurityProvider& service, const Arguments& a);
};

const Command kCommands[] = {
    {"wait", "", 0, [](auto& s, auto&) { return Wait(s); }},
    {"authenticate", "USER PASSWORD", 2,
     [](auto& s, auto& a) { return Print(s.Authenticate(false, a[0], a[1])); }},
    {"logout", "SESSION", 1, [](auto& s, auto& a) { return PrintAnswer(s.Logout(a[0])); }},
    {"invalidate", "SESSION", 1, [](auto& s, auto& a) { return s.Invalidate(a[0]), 0; }},
    {"authorize", "SESSION PATH", 2, [](auto& s, auto& a) { return PrintAnswer(s.Authorize(a[0], a[1])); }},
    {"paths", "SESSION", 1, [](auto& s, auto& a) { return PrintLines(s.GetAllowedPaths(a[0])); }},
    {"users", "", 0, [](auto& s, auto&) { return Print(s.GetUsers()); }},
    {"add", "USER ROLE PASSWORD", 3,
     [](auto& s, auto& a) { return PrintCode(s.AddUsers(a[0] + ":" + a[1] + ":" + a[2])); }},
    {"modify", "USER ROLE PASSWORD", 3,
     [](auto& s, auto& a) { return PrintCode(s.ModifyUsers(a[0] + ":" + a[1] + ":" + a[2])); }},
    {"delete", "USER", 1, [](auto& s, auto& a) { return PrintCode(s.DeleteUsers(a)); }},
    {"passphrases", "", 0, [](auto& s, auto&) { return Print(s.GetPassphrases()); }},
    {"passphrase", "NAME", 1, [](auto& s, auto& a) { return Print(s.GetPassphrase(a[0])); }},
    {"add-passphrase", "NAME TEXT", 2, [](auto& s, auto& a) { return Print(s.AddPassphrase(a[0], a[1])); }},
    {"delete-passphrase", "NAME", 1, [](auto& s, auto& a) { return PrintAnswer(s.DeletePassphrase(a[0])); }},
    {"watch", "", 0, nullptr},
};

}  // namespace

int main(int argc, char** argv) {
    const Arguments given(argv + 1, argv + argc);
    for (const Command& command : kCommands) {
        if (given.size() != 1 + command.count || given[0] != command.name) {
            continue;
        }
        try {
            MsgBus bus;
            const std::unique_ptr<ISecurityProvider> service(ISecurityProvider::CreateClient(&bus));
            return command.run != nullptr ? command.run(*service, Arguments(given.begin() + 1, given.end()))
                                          : Watch(*service, bus);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "security-client: %s\n", e.what());
            return 1;
        }
    }
    std::fprintf(stderr, "usage: security-client COMMAND [ARGUMENT]...\n");
    for (const Command& command : kCommands) {
        std::fprintf(stderr, "  %s %s\n", command.name, command.arguments);
    }
    return 2;
}
