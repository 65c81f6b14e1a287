// The camera's web front end: a status page and a small JSON interface, with every answer fetched over the
// bus.
//
//   web-gateway PAGE [PORT [DEVICE]]
//
//   PAGE is web/index.html; without a port, or with 0, it takes a free one and prints it. DEVICE is
//   device.ini, as for discovery-responder.
//
//   GET    /                     the page
//   POST   /login                form "user", "password"; sets the session cookie
//   POST   /logout
//   GET    /device.xml           the UPnP description, where there is a DEVICE
//   GET    /health               whether the bus and the security service are there
//   GET    /api/status           who is logged in, and for how long
//   GET    /api/users            the users; POST adds one (form "name", "role", "password"),
//                                DELETE deletes one (/api/users?name=...)
//   GET    /api/events           the last changes of the user list
//   POST   /measure              the length of the body
//   GET    /fault                a handler that throws
//
// Answers are JSON. /api/ answers 401 without a valid login and 403 where the role is not enough; what needs
// the security service answers 503 when that or the bus is gone. The gateway keeps no password: a login is a
// session of the service's. It listens on 127.0.0.1 only, since it speaks no TLS.

#include <zarip/core/Delegate.h>
#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/osa/Exception.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/WaitForStop.h"

namespace {

using zarip::core::StringUtil;
using zarip::inet::HttpRequest;
using zarip::inet::HttpResponse;
using zarip::interfaces::ISecurityProvider;

constexpr int kCallTimeoutMs = 3000;
constexpr std::size_t kKeptEvents = 20;
constexpr const char* kCookie = "session";

/// The text as a JSON string. What comes over the bus is UTF-8.
std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += {'\\', c};
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(byte));
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

void Answer(HttpResponse& response, int code, const std::string& json) {
    response.SetCode(code);
    response.SetHeader("Content-Type", "application/json");
    response.SetBody(json);
}

/// Thrown by a handler that answers with an error.
struct Failure {
    int code;
    std::string reason;
};

/// The security service as long as there is one: connects when asked, and again when the bus was lost. Used
/// by the HTTP thread alone; only the events come on the bus's thread.
class Security {
public:
    ~Security() { Disconnect(); }

    /// Calls a member; throws `Failure`.
    template <class Call>
    auto Ask(Call call) {
        Connect();
        try {
            return call(*_provider);
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            if (StringUtil::StartsWith(e.what(), "MsgBusMsg: ")) {
                throw Failure{400, "The bus cannot carry this text."};
            }
            throw Failure{503, _bus->IsRunning() ? "The security service does not answer."
                                                 : "The message bus is gone."};
        }
    }

    /// Watches for changes from now on. Throws `Failure`; then the next call of a member tries again.
    void Connect() {
        if (_bus && _bus->IsRunning()) {
            return;
        }
        Disconnect();
        try {
            _bus = std::make_unique<zarip::msgbus::MsgBus>();
            _provider.reset(ISecurityProvider::CreateClient(_bus.get()));
            _provider->_timeout = kCallTimeoutMs;
            _provider->UsersChanged.AddDelegate(zarip::core::MakeDelegate(this, &Security::OnUsersChanged));
            _bus->StartServer();
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            Disconnect();
            throw Failure{503, "The message bus is gone."};
        }
    }

    std::vector<std::string> GetEvents() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return {_events.begin(), _events.end()};
    }

private:
    void Disconnect() {
        if (_bus) {
            _bus->StopServer();
        }
        _provider.reset();
        _bus.reset();
    }

    void OnUsersChanged(bool value) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _events.push_front("{\"time\":" + Quote(Now()) + ",\"value\":" + (value ? "true" : "false") + "}");
        if (_events.size() > kKeptEvents) {
            _events.pop_back();
        }
    }

    zarip::core::Logger* _logger = zarip::core::Logger::GetLogger("WebGateway");
    std::unique_ptr<zarip::msgbus::MsgBus> _bus;
    std::unique_ptr<ISecurityProvider> _provider;
    std::mutex _mutex;
    std::deque<std::string> _events;
};

/// Answers with what a function makes of a request.
class Route final : public zarip::inet::IHttpHandler {
public:
    using Function = void (*)(Security& security, const HttpRequest& request, HttpResponse& response);

    /// @param methods  with spaces in between.
    Route(Security& security, const char* methods, Function function)
        : _security(security), _methods(methods), _function(function) {}

    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        response.SetHeader("Cache-Control", "no-store");
        response.SetHeader("X-Content-Type-Options", "nosniff");
        const std::vector<std::string> methods = StringUtil::Split(_methods, ' ');
        try {
            if (std::find(methods.begin(), methods.end(), request.GetMethodName()) == methods.end()) {
                response.SetHeader("Allow", StringUtil::Join(methods, ", "));
                throw Failure{405, "This method does not fit here."};
            }
            _function(_security, request, response);
        } catch (const Failure& failure) {
            Answer(response, failure.code, "{\"error\":" + Quote(failure.reason) + "}");
        }
    }

private:
    Security& _security;
    const char* _methods;
    Function _function;
};

/// Answers with a text that stays the same.
class Page final : public zarip::inet::IHttpHandler {
public:
    Page(const char* type, std::string text) : _type(type), _text(std::move(text)) {}

    void HandleRequest(const HttpRequest& /*request*/, HttpResponse& response) override {
        response.SetCode(200);
        response.SetHeader("Content-Type", _type);
        // Nothing from elsewhere, in nobody's frame; a form without its script sends no password anywhere.
        response.SetHeader("Content-Security-Policy",
                           "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
                           "connect-src 'self'; form-action 'none'; frame-ancestors 'none'; base-uri 'none'");
        response.SetBody(_text);
    }

private:
    const char* _type;
    std::string _text;
};

/// The description of the device, with what the file says of it.
std::string DescribeDevice(const char* path) {
    const zarip::core::IniFile file(path);
    std::string text =
        "<?xml version=\"1.0\"?>\n"
        "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\n"
        "  <specVersion><major>1</major><minor>0</minor></specVersion>\n"
        "  <device>\n";
    // In the order that UPnP prescribes.
    for (const char* name :
         {"deviceType", "friendlyName", "manufacturer", "manufacturerURL", "modelDescription", "modelName",
          "modelNumber", "modelURL", "serialNumber", "UDN", "UPC", "presentationURL"}) {
        std::string value;
        if (file.TryGetValue(value, "device", name)) {
            StringUtil::EscapeForXml(value);
            text += std::string("    <") + name + ">" + value + "</" + name + ">\n";
        }
    }
    return text + "  </device>\n</root>\n";
}

std::string Text(const std::string* value) {
    // The bus would carry what stands before it.
    if (value != nullptr && value->find('\0') != std::string::npos) {
        throw Failure{400, "A zero byte."};
    }
    return value != nullptr ? *value : "";
}

std::string Field(const HttpRequest& request, const char* name) {
    const std::string* const value = request.GetFormParameter(name);
    if (value == nullptr) {
        throw Failure{400, std::string("There is no form with a field \"") + name + "\"."};
    }
    return Text(value);
}

std::string Session(const HttpRequest& request) {
    return Text(request.GetCookie(kCookie));
}

void SetSession(HttpResponse& response, const std::string& session, const char* more) {
    response.SetHeader("Set-Cookie",
                       std::string(kCookie) + "=" + session + "; Path=/; HttpOnly; SameSite=Strict" + more);
}

struct Caller {
    std::string user;
    int secondsLeft = 0;
};

/// Throws `Failure` for one who may not go on.
Caller Allow(Security& security, const HttpRequest& request) {
    const std::string session = Session(request);
    Caller caller;
    if (!session.empty()) {
        // Not IsAuthenticated, which makes the session last longer: a page left open would never end it.
        caller.secondsLeft =
            security.Ask([&](auto& service) { return service.GetExpiration(session, caller.user); });
    }
    if (caller.user.empty()) {
        throw Failure{401, "Please log in."};
    }
    if (!security.Ask([&](auto& service) { return service.Authorize(session, request.GetPath()); })) {
        throw Failure{403, "Your role does not allow this."};
    }
    return caller;
}

void Login(Security& security, const HttpRequest& request, HttpResponse& response) {
    const std::string user = Field(request, "user");
    const std::string password = Field(request, "password");
    const std::string session =
        security.Ask([&](auto& service) { return service.Authenticate(false, user, password); });
    if (session.empty()) {
        throw Failure{401, "User name or password is wrong."};
    }
    SetSession(response, session, "");
    Answer(response, 200, "{\"user\":" + Quote(user) + "}");
}

void Logout(Security& security, const HttpRequest& request, HttpResponse& response) {
    security.Ask([&](auto& service) { return service.Logout(Session(request)); });
    SetSession(response, "", "; Max-Age=0");
    Answer(response, 200, "{}");
}

void Health(Security& security, const HttpRequest& /*request*/, HttpResponse& response) {
    security.Ask([](auto& service) { return service.GetNonce(); });
    Answer(response, 200, "{}");
}

void Status(Security& security, const HttpRequest& request, HttpResponse& response) {
    const Caller caller = Allow(security, request);
    Answer(
        response, 200,
        "{\"user\":" + Quote(caller.user) + ",\"secondsLeft\":" + std::to_string(caller.secondsLeft) + "}");
}

std::string UsersAsJson(const std::string& lines) {
    std::vector<std::string> users;
    for (const std::string& line : StringUtil::Split(lines, '\n')) {
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos) {
            users.push_back("{\"name\":" + Quote(line.substr(0, colon)) +
                            ",\"role\":" + Quote(line.substr(colon + 1)) + "}");
        }
    }
    return "[" + StringUtil::Join(users, ',') + "]";
}

int AddUser(Security& security, const HttpRequest& request) {
    const std::string name = Field(request, "name");
    const std::string role = Field(request, "role");
    const std::string password = Field(request, "password");
    // The service takes lines of fields: what ends a line or a field would be another user or role.
    if ((name + role).find_first_of(":\n") != std::string::npos || password.find('\n') != std::string::npos) {
        throw Failure{400, "Name, role or password holds characters that cannot be."};
    }
    return security.Ask([&](auto& service) { return service.AddUsers(name + ":" + role + ":" + password); });
}

void Users(Security& security, const HttpRequest& request, HttpResponse& response) {
    Allow(security, request);
    int result = 0;
    if (request.GetMethodName() == "POST") {
        result = AddUser(security, request);
    } else if (request.GetMethodName() == "DELETE") {
        const std::vector<std::string> names = {Text(request.GetQueryParameter("name"))};
        result = security.Ask([&](auto& service) { return service.DeleteUsers(names); });
    }
    if (result != 0) {
        // As the security service numbers them.
        const char* const reasons[] = {
            "The password is too short.", "Name or password holds characters that cannot be.",
            "There is no such role.", "There is such a user already.", "There is no such user."};
        throw Failure{409, result >= 1 && result <= 5
                               ? reasons[result - 1]
                               : "The security service refused it with code " + std::to_string(result) + "."};
    }
    Answer(response, 200, UsersAsJson(security.Ask([](auto& service) { return service.GetUsers(); })));
}

void Events(Security& security, const HttpRequest& request, HttpResponse& response) {
    Allow(security, request);
    Answer(response, 200, "[" + StringUtil::Join(security.GetEvents(), ',') + "]");
}

void UnknownApi(Security& security, const HttpRequest& request, HttpResponse& /*response*/) {
    Allow(security, request);
    throw Failure{404, "There is no such thing."};
}

void Measure(Security& /*security*/, const HttpRequest& request, HttpResponse& response) {
    const std::string* const announced = request.GetHeader("Content-Length");
    if (announced != nullptr && *announced != std::to_string(request.GetBodyLength())) {
        throw Failure{400, "The body is not as long as announced."};
    }
    Answer(response, 200, "{\"bytes\":" + std::to_string(request.GetBodyLength()) + "}");
}

void Fault(Security& /*security*/, const HttpRequest& /*request*/, HttpResponse& /*response*/) {
    throw zarip::osa::Exception("this handler always throws");
}

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    if (argc < 2 || argc > 4 ||
        (argc > 2 && (!StringUtil::TryParse(argv[2], port) || port < 0 || port > 65'535))) {
        std::fprintf(stderr, "usage: web-gateway PAGE [PORT [DEVICE]]\n");
        return 2;
    }
    try {
        const WaitForStop stop;
        zarip::core::IniFile settings;
        settings.SetValue("log", "log.stdout", "true");
        zarip::core::Logger::ConfigureLogging(settings, "log");

        Security security;
        Page page("text/html; charset=UTF-8", StringUtil::ReadTextFile(argv[1]));
        Page description("text/xml; charset=\"utf-8\"", argc > 3 ? DescribeDevice(argv[3]) : "");
        struct {
            const char* path;
            Route route;
        } routes[] = {
            {"/login", {security, "POST", &Login}},
            {"/logout", {security, "POST", &Logout}},
            {"/health", {security, "GET", &Health}},
            {"/api/status", {security, "GET", &Status}},
            {"/api/users", {security, "GET POST DELETE", &Users}},
            {"/api/events", {security, "GET", &Events}},
            {"/api/*", {security, "GET POST DELETE", &UnknownApi}},
            {"/measure", {security, "POST", &Measure}},
            {"/fault", {security, "GET", &Fault}},
        };
        zarip::inet::HttpServer server("127.0.0.1", port);
        server.AddHandler("/", &page);
        if (argc > 3) {
            server.AddHandler("/device.xml", &description);
        }
        for (auto& [path, route] : routes) {
            server.AddHandler(path, &route);
        }
        try {
            security.Connect();
        } catch (const Failure& failure) {
            std::fprintf(stderr, "web-gateway: %s It goes on without.\n", failure.reason.c_str());
        }
        server.StartServerThread();
        std::printf("http://127.0.0.1:%u/\n", static_cast<unsigned int>(server.GetLocalPort()));
        std::fflush(stdout);
        stop.Wait();
        server.StopServerThread();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "web-gateway: %s\n", e.what());
        return 1;
    }
}
