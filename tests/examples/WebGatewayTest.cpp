// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "../../examples/common/LoginDelay.h"
#include "WebClient.h"
#include "zarip/core/StringUtil.h"
#include "zarip/interfaces/IPtzSerialProvider.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/ISmRegistrationProvider.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MsgBus.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/osa/Semaphore.h"

namespace zarip {
namespace {

using std::string;
using Strings = std::vector<string>;
using test::Program;

/// What security.ini begins with.
constexpr const char* kUsers =
    "[log]\nlog.stdout = true\n[permissions]\nadministrator = configure view\nviewer = view\n"
    "[paths]\n/api/users = administrator\n";

/// The security service with alice, an administrator, and carol, a viewer; their password is "correct horse".
class Security {
public:
    Security() : _program(SECURITY_SERVICE, {_folder.Write("security.ini", kUsers)}) {
        bus.StartServer();
        client.reset(interfaces::ISecurityProvider::CreateClient(&bus));
        isReady = test::WaitUntil([this] {
            try {
                return client->AddUsers("alice:administrator:correct horse\ncarol:viewer:correct horse") == 0;
            } catch (const std::exception&) {
                return false;  // not there yet
            }
        });
    }

    osa::Process& GetProcess() { return _program.GetProcess(); }

private:
    test::TempDir _folder;
    Program _program;

public:
    msgbus::MsgBus bus;
    std::unique_ptr<interfaces::ISecurityProvider> client;
    bool isReady = false;
};

/// A pan-tilt service that is stuck until it is released.
class StuckPtz final : public interfaces::IPtzSerialProvider {
public:
    explicit StuckPtz(msgbus::IMsgBus* bus) : _server(CreateServer(bus, this)) {}
    bool GetPtzPollingState() override {
        ++calls;
        release.Lock(60'000);
        release.Release();
        return true;
    }
    std::atomic<int> calls{0};
    osa::Semaphore release{"StuckPtz", 1, 0};

private:
    std::unique_ptr<interfaces::InterfaceServer> _server;
};

class WebGatewayTest : public testing::Test {
protected:
    void SetUp() override {
        _pages.Write("index.html", "<!DOCTYPE html>");
        const string device = _folder.Write("device.ini", _device);
        _gateway = std::make_unique<Program>(WEB_GATEWAY, Strings{_pages.Path(), device, "0"});
        _port = test::WaitForPort(*_gateway);
        ASSERT_NE(_port, "") << _gateway->GetErrors();
    }

    /// Returns the whole answer. "PORT" in the headers becomes the port of the gateway.
    string Ask(const string& line, string headers, const string& form = "") const {
        for (std::size_t at; (at = headers.find("PORT")) != string::npos;) {
            headers.replace(at, 4, _port);
        }
        const string request = line + " HTTP/1.1\r\n" + headers +
                               "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                               std::to_string(form.size()) + "\r\n\r\n" + form;
        osa::TcpSocket socket;
        test::Send(socket, _port, request);
        return test::ReceiveAll(socket);
    }

    /// The headers of a request of alice, with her session; "" if she cannot log in.
    string LogIn() const {
        const string host = "Host: localhost\r\n";
        const string login = Ask("POST /login", host, "user=alice&password=correct+horse");
        const std::size_t begin = login.find("session=");
        return begin != string::npos
                   ? host + "Cookie: " + login.substr(begin, login.find(';', begin) - begin) + "\r\n"
                   : "";
    }

    int CodeOf(const string& line, const string& headers, const string& form = "") const {
        const string answer = Ask(line, headers, form);
        return answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0;
    }

    test::TempDir _pages;
    test::TempDir _folder;
    string _device = "[device]\nfriendlyName = Yard\n[web]\nnames = camera.local Yard\nproxy = true\n";
    std::unique_ptr<Program> _gateway;
    string _port;
};

TEST_F(WebGatewayTest, RefusesWhatAnotherSiteSends) {
    const string host = "Host: 127.0.0.1:PORT\r\n";
    const struct {
        const char* headers;
        bool isRefused;
    } rows[] = {
        {"", false},
        {"Origin: http://127.0.0.1:PORT\r\n", false},
        {"Origin: https://127.0.0.1:PORT\r\n", false},
        {"Origin: http://127.0.0.1:1\r\n", true},
        {"Origin: http://127.0.0.1\r\n", true},
        {"Origin: http://127.0.0.1:PORT.example.com\r\n", true},
        {"Origin: http://example.com\r\n", true},
        {"Origin: 127.0.0.1:PORT\r\n", true},
        {"Origin: null\r\n", true},
        {"Origin:\r\n", true},
        {"Sec-Fetch-Site: same-origin\r\n", false},
        {"Sec-Fetch-Site: same-site\r\n", true},
        {"Sec-Fetch-Site: cross-site\r\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.headers);
        // Without a security service these are answered 503 or 401 when they get through.
        for (const char* line : {"POST /login", "POST /logout", "POST /api/users", "DELETE /api/users?name=a",
                                 "POST /", "DELETE /device.xml"}) {
            EXPECT_EQ(CodeOf(line, host + row.headers, "user=a&password=b") == 403, row.isRefused) << line;
        }
        EXPECT_EQ(CodeOf("GET /", host + row.headers), 200);
    }
    EXPECT_NE(CodeOf("POST /login", "Host: LocalHost:80\r\nOrigin: http://localhost\r\n"), 403);
}

TEST_F(WebGatewayTest, ServesOnlyTheNamesItKnows) {
    const struct {
        const char* host;
        bool isKnown;
    } rows[] = {
        {"127.0.0.1", true},
        {"192.0.2.7:8080", true},
        {"[::1]:PORT", true},
        {"[2001:db8::7]", true},
        {"LOCALHOST:1", true},
        {"Camera.local", true},
        {"yard:PORT", true},
        {"example.com", false},
        {"1.2.3.4.com", false},
        {"127.1", false},
        {"[::1", false},
        {"[]", false},
        {"::1", false},
        {"", false},
        {":80", false},
        {"localhost:x", false},
        {"local.host", false},
        {"camera", false},
        {"[1.2.3.4]", false},
        {"camera.local.evil", false},
        {"localhost.evil", false},
        {"localhost@evil", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host);
        for (const char* line : {"GET /", "GET /device.xml", "GET /health", "POST /login"}) {
            EXPECT_EQ(CodeOf(line, string("Host: ") + row.host + "\r\n") != 421, row.isKnown) << line;
        }
    }
    EXPECT_EQ(CodeOf("GET /", ""), 421);
}

TEST_F(WebGatewayTest, SlowsDownGuesses) {
    const Security security;
    ASSERT_TRUE(security.isReady);
    const auto logIn = [this](const string& user, const string& address, const string& password) {
        return Ask("POST /login", "Host: localhost\r\nX-Forwarded-For: 10.0.0.1, ::1, " + address + "\r\n",
                   "user=" + user + "&password=" + password);
    };
    const auto isDelayed = [](const string& answer) {
        return answer.find(" 429 ") != string::npos && answer.find("\r\nRetry-After: ") != string::npos;
    };
    const string right = "correct+horse";
    EXPECT_NE(logIn("alice", "192.0.2.1", right).find(" 200 "), string::npos);
    // The delay grows with each failure, so however slow the machine is, an attempt comes too early.
    EXPECT_TRUE(test::WaitUntil([&] { return isDelayed(logIn("alice", "192.0.2.66", "guess")); }));
    EXPECT_TRUE(test::WaitUntil([&] { return isDelayed(logIn("carol", "192.0.2.66", right)); }));
    EXPECT_NE(_gateway->GetOutput().find("Refused a login as alice from 192.0.2.66, failure 1 from there"),
              string::npos);
    EXPECT_NE(logIn("alice", "192.0.2.1", right).find(" 200 "), string::npos);  // she was there before
    logIn("a%0AForged", "192.0.2.9", "guess");
    EXPECT_EQ(_gateway->GetOutput().find("Forged"), string::npos);
}

TEST_F(WebGatewayTest, AnswersSafely) {
    const Security security;
    ASSERT_TRUE(security.isReady);
    const string alice = LogIn();
    ASSERT_NE(alice, "");
    const struct {
        const char* line;
        const char* form;
        const char* code;
        const char* header;
    } rows[] = {
        {"GET /", "", "200", "ETag: \""},
        {"HEAD /", "", "200", "Content-Type: text/html"},
        {"POST /", "", "405", "Allow: GET, HEAD\r\n"},
        {"PUT /device.xml", "", "405", "Allow: GET, HEAD\r\n"},
        {"GET /login", "", "405", "Allow: POST\r\n"},
        {"DELETE /api/events", "", "405", "Allow: GET, HEAD\r\n"},
        {"PUT /api/users", "", "405", "Allow: GET, HEAD, POST, DELETE\r\n"},
        {"DELETE /api/users?name=carol%00b", "", "400", ""},
        {"POST /api/users", "name=a%00b&role=viewer&password=correct+horse", "400", ""},
        {"GET /nothing", "", "404", "Content-Type: text/html"},
        {"GET /../device.ini", "", "404", ""},
        {"POST /live", "", "405", "Allow: GET\r\n"},
        {"GET /session", "", "200", ""},
        {"POST /login", "user=alice%00b&password=correct+horse", "400", ""},
        {"GET /api/users", "", "200", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        const string answer = Ask(row.line, alice, row.form);
        EXPECT_EQ(answer.substr(9, 3), row.code);
        for (const char* header : {row.header, "X-Content-Type-Options: nosniff\r\n", "Referrer-Policy: ",
                                   "Content-Security-Policy: default-src 'none'; style-src 'self'; "}) {
            EXPECT_NE(answer.find(header), string::npos) << answer;
        }
    }
    EXPECT_EQ(security.client->GetUsers(), "alice:administrator\ncarol:viewer");
    for (const char* line : {"POST /measure", "GET /fault"}) {  // only for tests, and not in this build
        EXPECT_EQ(CodeOf(line, alice), 404) << line;
    }
}

TEST_F(WebGatewayTest, WaitsForNoServiceThatDoesNotAnswer) {
    msgbus::MsgBus bus;
    StuckPtz ptz(&bus);
    bus.StartServer();
    auto registration = std::make_unique<Program>(
        REGISTRATION_SERVICE, Strings{_folder.File("registration.ini"), "camera", "3600"});
    Security security;
    ASSERT_TRUE(security.isReady);
    const string alice = LogIn();
    ASSERT_NE(alice, "");
    const auto waitFor = [&](const char* path, const string& part) {
        string answer;
        EXPECT_TRUE(test::WaitUntil([&] {
            answer = Ask(string("GET ") + path, alice);
            return answer.find(part) != string::npos;
        })) << part
            << " is not in " << answer;
    };
    const string rest = "\"network\",\"viewers\",";
    waitFor("/api/camera", "\"registration\":{\"registered\":false,");
    waitFor("/api/camera", "\"silent\":[" + rest + "\"ptz\",\"audio\",\"services\"]");
    // However long these take, each would have to wait if the gateway asked the service.
    for (int i = 0; i < 50; ++i) {
        EXPECT_NE(Ask("GET /api/camera", alice).find("\"ptz\":null"), string::npos);
    }
    EXPECT_LE(ptz.calls, 25);
    registration.reset();  // killed
    waitFor("/api/camera", "\"silent\":[" + rest + "\"ptz\",\"audio\",\"registration\",\"services\"]");
    ptz.release.Release();
    EXPECT_TRUE(test::WaitUntil(
        [&] { return Ask("GET /api/camera", alice).find("\"ptz\":{\"polling\":true}") != string::npos; },
        std::chrono::seconds(60)));

    waitFor("/health", " 200 ");
    security.GetProcess().Kill(SIGSTOP);
    waitFor("/health", "503 Service Unavailable");
    for (const char* path : {"/health", "/api/camera", "/session", "/live"}) {
        waitFor(path, "\"error\":\"The security service does not answer.\"");
    }
    EXPECT_EQ(CodeOf("GET /", alice), 200);
    security.GetProcess().Kill(SIGCONT);
    waitFor("/health", " 200 ");
    waitFor("/session", "\"user\":\"alice\"");
}

TEST_F(WebGatewayTest, CutsViewersThatTakeNothingOrMayWatchNoMore) {
    const Security security;
    ASSERT_TRUE(security.isReady);
    const string alice = LogIn();
    const string threads = "/proc/" + std::to_string(_gateway->GetProcess().GetPid()) + "/task";
    const auto before = osa::FileUtils::List(threads).size();
    osa::TcpSocket idle;
    osa::TcpSocket watching;
    idle.SetBufferSize(4'096);
    for (osa::TcpSocket* const viewer : {&idle, &watching}) {
        char first = 0;
        test::Send(*viewer, _port, "GET /live HTTP/1.1\r\n" + alice + "\r\n");
        ASSERT_EQ(viewer->Recv(&first, 1, 60), 1U);
    }
    EXPECT_EQ(osa::FileUtils::List(threads).size(), before + 2);
    EXPECT_EQ(CodeOf("POST /logout", alice), 200);
    watching.SetTimeLimit(60'000);
    test::ReceiveAll(watching);
    EXPECT_TRUE(test::WaitUntil([&] { return osa::FileUtils::List(threads).size() == before; }));
}

TEST(LoginDelayTest, GrowsForNamesAndAddresses) {
    using std::chrono::seconds;
    const auto start = LoginDelay::Clock::now();
    LoginDelay delay;
    const auto fail = [&](const string& name, const string& address, int times) {
        for (int i = 0; i < times; ++i) {
            delay.AddFailure(name, address, start);
        }
    };
    const auto wait = [&](const string& name, const string& address, int after = 0) {
        return delay.GetSecondsLeft(name, address, start + seconds(after));
    };
    delay.AddSuccess("alice", "home", start);
    const int expected[] = {0, 0, 1, 2, 4, 8, 16, 32, 60, 60};
    for (const int left : expected) {
        fail("alice", "::1:2:3:4:5", 1);
        EXPECT_EQ(wait("alice", "::1:2:3:4:5"), left);
    }
    EXPECT_EQ(wait("alice", "elsewhere", 59), 1);
    EXPECT_EQ(wait("alice", "elsewhere", 60), 0);
    EXPECT_EQ(wait("alice", "home"), 0);
    EXPECT_EQ(wait("bob", "::1:2:3:4:6"), 60);  // of the same network
    EXPECT_EQ(wait("bob", "home"), 0);
    delay.AddSuccess("alice", "::1:2:3:4:5", start);
    EXPECT_EQ(wait("alice", "elsewhere"), 0);
    EXPECT_EQ(wait("bob", "::1:2:3:4:5"), 60);  // a login does not reset its address
    // After a quarter of an hour it begins anew, also when there are very many others.
    delay.AddFailure("alice", "::1:2:3:4:5", start + std::chrono::minutes(16));
    EXPECT_EQ(wait("alice", "::1:2:3:4:5", 16 * 60), 0);
    fail("dave", "there", 10);
    for (int i = 0; i < 2'000; ++i) {
        delay.AddFailure(std::to_string(i), std::to_string(i), start - seconds(1));
    }
    EXPECT_EQ(wait("dave", "there"), 60);
}

TEST(SecurityServiceTest, OneUserCannotHinderTheOthers) {
    const Security security;
    ASSERT_TRUE(security.isReady);
    interfaces::ISecurityProvider& service = *security.client;
    const auto logIn = [&](const string& user) { return service.Authenticate(false, user, "correct horse"); };

    const string alice = logIn("alice");
    Strings sessions;
    for (int i = 0; i < 20; ++i) {
        sessions.push_back(logIn("carol"));
    }
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        EXPECT_EQ(service.IsAuthenticated(sessions[i]), i >= 4) << i;
    }
    EXPECT_TRUE(service.IsAuthenticated(alice));

    EXPECT_EQ(service.DeleteUsers({"alice"}), 7);
    EXPECT_EQ(service.DeleteUsers({"carol", "alice"}), 7);
    EXPECT_EQ(service.ModifyUsers("alice:viewer:"), 7);
    EXPECT_EQ(service.ModifyUsers("carol:administrator:\nalice:viewer:"), 0);
    EXPECT_EQ(service.DeleteUsers({"carol"}), 7);
    EXPECT_EQ(service.ModifyUsers("carol:administrator:another horse\ncarol:viewer:"), 7);
    EXPECT_EQ(service.GetUsers(), "alice:viewer\ncarol:administrator");
    EXPECT_NE(logIn("carol"), "");
}

TEST(SecurityServiceTest, ManyNewPasswordsAreRefusedAtOnce) {
    const Security security;
    ASSERT_TRUE(security.isReady);
    int added = 0;
    const auto addSixteen = [&](int call) {
        Strings lines;
        for (int i = 0; i < 16; ++i) {
            lines.push_back("u" + std::to_string(call) + "." + std::to_string(i) + ":viewer:correct horse");
        }
        const int result = security.client->AddUsers(core::StringUtil::Join(lines, '\n'));
        added += result == 0 ? 1 : 0;
        return result;
    };
    // Each that is carried out costs four seconds of those to come, and digests take less.
    bool isRefused = false;
    for (int call = 0; call < 30; ++call) {
        isRefused |= addSixteen(call) == 8;
    }
    EXPECT_TRUE(isRefused);
    EXPECT_GE(added, 1);
    EXPECT_EQ(security.client->ModifyUsers("carol:administrator:"), 0);  // that needs no digest
}

TEST(RegistrationServiceTest, ManyCallsDoNotFillItsQueue) {
    const test::TempDir folder;
    // It accepts nothing, so that the first talk lasts.
    osa::TcpSocket silent("127.0.0.1", 0);
    ASSERT_EQ(::listen(silent.getHandle(), 1), 0);
    const Program program(REGISTRATION_SERVICE, {folder.File("registration.ini"), "camera", "3600"});
    msgbus::MsgBus bus;
    bus.StartServer();
    const std::unique_ptr<interfaces::ISmRegistrationProvider> service(
        interfaces::ISmRegistrationProvider::CreateClient(&bus));
    ASSERT_TRUE(test::WaitUntil([&] {
        try {
            return !service->IsRegistered();
        } catch (const std::exception&) {
            return false;
        }
    }));
    const string manager = "127.0.0.1:" + std::to_string(silent.GetLocalPort());
    for (int i = 0; i < 700; ++i) {
        service->ForceRegister(manager);
    }
    EXPECT_FALSE(service->IsRegistered());  // all have arrived
    EXPECT_EQ(program.GetOutput().find("maxCount"), string::npos) << program.GetOutput();
}

}  // namespace
}  // namespace zarip
