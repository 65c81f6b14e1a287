// SPDX-License-Identifier: MIT

// Drives the security service through every kind of call and tells whether what comes back is what was
// expected.
//
//   security-demo [PID]     with the service's process id it stops the service in the end
//
// scripts/demo starts it. Exit status 0: everything was as expected.

#include <signal.h>

#include <zarip/core/Delegate.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Thread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarip::interfaces::ISecurityProvider;
using zarip::msgbus::MsgBus;
using zarip::osa::Semaphore;
using Strings = std::vector<std::string>;

std::string Show(const std::string& value) {
    std::string text = "\"";
    for (const char character : value) {
        text += character == '\n' ? std::string("\\n") : std::string(1, character);
    }
    return text + "\"";
}
std::string Show(bool value) {
    return value ? "true" : "false";
}
std::string Show(int value) {
    return std::to_string(value);
}
std::string Show(const Strings& values) {
    std::string text;
    for (const std::string& value : values) {
        text += (text.empty() ? "" : ", ") + Show(value);
    }
    return "{" + text + "}";
}

class Demo {
public:
    /// Prints one step: what is asked, what came back, whether that is right.
    void Step(const std::string& asked, const std::string& got, const std::string& expected,
              bool isAsExpected) {
        std::printf("%2d. [%s] %s\n      came back: %s\n      expected:  %s\n", ++_steps,
                    isAsExpected ? "ok" : "NOT AS EXPECTED", asked.c_str(), got.c_str(), expected.c_str());
        std::fflush(stdout);
        _failures += isAsExpected ? 0 : 1;
    }

    /// A call that is to return one value.
    template <class Result, class Call>
    void Returns(const std::string& asked, const Result& expected, Call call) {
        std::string got;
        bool isAsExpected = false;
        try {
            const Result result = call();
            got = Show(result);
            isAsExpected = result == expected;
        } catch (const std::exception& e) {
            got = std::string("exception ") + Show(e.what());
        }
        Step(asked, got, Show(expected), isAsExpected);
    }

    /// A call that is to return a text that nobody knows before, but not "".
    std::string ReturnsSome(const std::string& asked, const std::function<std::string()>& call) {
        std::string result;
        std::string got;
        try {
            result = call();
            got = Show(result);
        } catch (const std::exception& e) {
            got = std::string("exception ") + Show(e.what());
        }
        Step(asked, got, "a text that is not empty", !result.empty());
        return result;
    }

    /// A call that is to throw an exception whose text begins so.
    template <class Call>
    void Throws(const std::string& asked, const std::string& begin, Call call) {
        std::string got = "no exception";
        bool isAsExpected = false;
        try {
            call();
        } catch (const std::exception& e) {
            const std::string text = e.what();
            got = "exception " + Show(text);
            isAsExpected = text.compare(0, begin.size(), begin) == 0;
        }
        Step(asked, got, "an exception that begins with " + Show(begin), isAsExpected);
    }

    int Finish() const {
        std::printf("%d steps, %d not as expected\n", _steps, _failures);
        return _failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

private:
    int _steps = 0;
    int _failures = 0;
};

/// Listens to the service on a connection of its own.
class Subscriber {
public:
    Subscriber() : _service(ISecurityProvider::CreateClient(&_bus)) {
        _service->UsersChanged.AddDelegate(zarip::core::MakeDelegate(this, &Subscriber::OnUsersChanged));
        _bus.StartServer();
    }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    ~Subscriber() { _service->UsersChanged.RemoveDelegate(this); }

    /// Waits for the next signal.
    std::string Next() {
        if (!_arrived.TryLock(5000)) {
            return "nothing";
        }
        return _changed ? "UsersChanged(true)" : "UsersChanged(false)";
    }

private:
    void OnUsersChanged(bool changed) {
        _changed = changed;
        _arrived.Release();
    }

    MsgBus _bus;
    Semaphore _arrived{"UsersChanged", 100, 0};
    std::atomic<bool> _changed{false};
    std::unique_ptr<ISecurityProvider> _service;
};

/// Expects the next signal at both subscribers.
void ExpectSignals(Demo& demo, Subscriber& first, Subscriber& second) {
    demo.Returns("Two subscribers wait for a signal", Strings{"UsersChanged(true)", "UsersChanged(true)"},
                 [&] {
                     return Strings{first.Next(), second.Next()};
                 });
}

/// Adds users and logs alice in. Returns the session of alice.
std::string RunLogin(Demo& demo, ISecurityProvider& service, Subscriber& first, Subscriber& second) {
    demo.Returns("AddUsers: alice, an administrator, and bob, a viewer", 0, [&] {
        return service.AddUsers("alice:administrator:correct horse\nbob:viewer:battery staple");
    });
    ExpectSignals(demo, first, second);
    const std::string alice = demo.ReturnsSome("Authenticate alice with her password", [&] {
        return service.Authenticate(false, "alice", "correct horse");
    });
    demo.Returns("Authenticate alice with a wrong password", std::string(),
                 [&] { return service.Authenticate(false, "alice", "battery staple"); });
    demo.Returns("Authenticate mallory, an unknown user", std::string(),
                 [&] { return service.Authenticate(false, "mallory", "correct horse"); });
    demo.Returns("IsAuthenticated with alice's session", true,
                 [&] { return service.IsAuthenticated(alice); });
    std::string name;
    demo.Returns("GetExpiration of alice's session: are seconds left?", true,
                 [&] { return service.GetExpiration(alice, name) > 0; });
    demo.Returns("... and whose session is it?", std::string("alice"), [&] { return name; });
    demo.Returns("GetUsers", std::string("alice:administrator\nbob:viewer"),
                 [&] { return service.GetUsers(); });
    demo.Returns("AddUsers: alice again", 4,
                 [&] { return service.AddUsers("alice:viewer:another password"); });
    demo.Returns("AddUsers: a name that would add a line to the file", 2,
                 [&] { return service.AddUsers("eve = administrator\n[users]:viewer:some password"); });
    demo.Returns("ValidatePassword: is a short one good for alice?", 1,
                 [&] { return service.ValidatePassword("alice", "correct horse", "short"); });
    return alice;
}

/// Lets bob in, changes his role and deletes him, then ends the session of alice.
void RunRights(Demo& demo, ISecurityProvider& service, Subscriber& first, Subscriber& second,
               const std::string& alice) {
    const std::string bob = demo.ReturnsSome("Authenticate bob with his password", [&] {
        return service.Authenticate(true, "bob", "battery staple");
    });
    demo.Returns("IsProtected /config/network", true, [&] { return service.IsProtected("/config/network"); });
    demo.Returns("IsProtected /help", false, [&] { return service.IsProtected("/help"); });
    demo.Returns("Authorize alice for /config/network", true,
                 [&] { return service.Authorize(alice, "/config/network"); });
    demo.Returns("Authorize bob for /config/network", false,
                 [&] { return service.Authorize(bob, "/config/network"); });
    demo.Returns("Authorize bob for /live/../config", false,
                 [&] { return service.Authorize(bob, "/live/../config"); });
    demo.Returns("GetAllowedPaths of bob", Strings{"/live"}, [&] { return service.GetAllowedPaths(bob); });
    demo.Returns("ModifyUsers: bob becomes an administrator and keeps his password", 0,
                 [&] { return service.ModifyUsers("bob:administrator:"); });
    ExpectSignals(demo, first, second);
    demo.Returns("Authorize bob for /config/network", true,
                 [&] { return service.Authorize(bob, "/config/network"); });
    demo.Returns("DeleteUsers: bob", 0, [&] { return service.DeleteUsers({"bob"}); });
    ExpectSignals(demo, first, second);
    demo.Returns("IsAuthenticated with bob's session", false, [&] { return service.IsAuthenticated(bob); });
    demo.Returns("DeleteUsers: bob again", 5, [&] { return service.DeleteUsers({"bob"}); });
    demo.Returns("DeleteUsers: an empty list", 0, [&] { return service.DeleteUsers({}); });

    demo.Returns("Invalidate alice's session, a one-way call", std::string("at once"), [&] {
        service.Invalidate(alice);
        return std::string("at once");
    });
    demo.Returns("IsAuthenticated with alice's session", false,
                 [&] { return service.IsAuthenticated(alice); });
}

void RunPassphrases(Demo& demo, ISecurityProvider& service) {
    demo.Returns("AddPassphrase backup", std::string("backup"),
                 [&] { return service.AddPassphrase("backup", "four words and more"); });
    demo.Returns("AddPassphrase backup again", std::string(),
                 [&] { return service.AddPassphrase("backup", "other words"); });
    demo.Returns("AddPassphrase: a text with a line feed", std::string(),
                 [&] { return service.AddPassphrase("second", "words\n[users]"); });
    demo.Returns("GetPassphrases", std::string("backup"), [&] { return service.GetPassphrases(); });
    demo.Returns("GetPassphrase backup", std::string("four words and more"),
                 [&] { return service.GetPassphrase("backup"); });
    demo.Returns("DeletePassphrase backup", true, [&] { return service.DeletePassphrase("backup"); });
    demo.Returns("DeletePassphrase backup again", false, [&] { return service.DeletePassphrase("backup"); });
}

/// Freezes a process and waits until all of its threads have stopped, for which kill() does not wait.
void Freeze(pid_t process) {
    ::kill(process, SIGSTOP);
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (bool isFrozen = false; !isFrozen; zarip::osa::Thread::CurrentThread::Sleep(1)) {
        isFrozen = true;
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            std::ifstream file(task.path() / "stat");
            std::string line;
            std::getline(file, line);
            const std::size_t name = line.rfind(") ");  // the letter after it is the state
            isFrozen = isFrozen && name != std::string::npos &&
                       std::string("TZX").find(line[name + 2]) != std::string::npos;
        }
    }
}

/// Freezes and kills the service while a call waits for it.
void RunStop(Demo& demo, ISecurityProvider& service, pid_t process) {
    const std::string failed = "DBUS call com.brelk.system.security::GetUsers failed: ";
    const auto getUsers = [&] { service.GetUsers(); };

    Freeze(process);
    service._timeout = 500;
    demo.Throws("GetUsers while the service is frozen, waiting half a second", failed, getUsers);

    service._timeout = 60'000;
    std::thread killer([process] {
        // The call reaches the service in a fraction of a millisecond, but nothing reports when it has.
        zarip::osa::Thread::CurrentThread::Sleep(300);
        ::kill(process, SIGKILL);
    });
    demo.Throws("GetUsers while the service is killed, waiting up to a minute", failed, getUsers);
    killer.join();
    demo.Throws("GetUsers without a service", failed, getUsers);
    demo.Returns("Invalidate without a service, a one-way call", std::string("at once"), [&] {
        service.Invalidate("session");
        return std::string("at once");
    });
}

}  // namespace

int main(int argc, char** argv) {
    Demo demo;
    try {
        // Subscribers are other processes as a rule, so they have connections of their own.
        Subscriber first;
        Subscriber second;
        MsgBus bus;
        const std::unique_ptr<ISecurityProvider> service(ISecurityProvider::CreateClient(&bus));

        const std::string alice = RunLogin(demo, *service, first, second);
        RunRights(demo, *service, first, second, alice);
        RunPassphrases(demo, *service);
        demo.Throws("TestLdap, which this service does not offer",
                    "DBUS call com.brelk.system.security::TestLdap failed: unimplemented", [&] {
                        service->TestLdap("ldap.example", "cn=reader", "secret", 389, "dc=example",
                                          "(uid=%s)", "uid", "member", "cameras", "alice", "correct horse");
                    });
        if (argc > 1) {
            RunStop(demo, *service, std::atoi(argv[1]));
        }
    } catch (const std::exception& e) {
        demo.Step("The demo itself", std::string("exception ") + Show(e.what()), "no exception", false);
    }
    return demo.Finish();
}
