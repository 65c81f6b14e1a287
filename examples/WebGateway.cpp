// SPDX-License-Identifier: MIT

// The camera's web front end: a status page and a small JSON interface, with every answer fetched over the
// bus.
//
//   web-gateway PAGES [DEVICE [PORT]]
//
//   PAGES is the folder web, with the page and what belongs to it. DEVICE is device.ini, as for
//   discovery-responder, which also says where the gateway listens: at 127.0.0.1:8080 unless it says
//   something else. A PORT here overrides the one there; with 0 it takes a free one. It prints the address.
//
//   GET    /                     the page, and the other files in PAGES
//   POST   /login                form "user", "password"; sets the session cookie. After wrong passwords it
//                                answers 429 until the time in "Retry-After" has passed.
//   POST   /logout
//   GET    /session              the name of the camera, and who is logged in, or null, and for how long
//   GET    /live                 the live picture, for the roles that the security service lets see /live
//   GET    /device.xml           the UPnP description
//   GET    /health               whether the bus and the security service were there when asked last
//   GET    /api/status           who is logged in, and for how long
//   GET    /api/users            the users; POST adds one (form "name", "role", "password"),
//                                DELETE deletes one (/api/users?name=...)
//   GET    /api/events           the last changes of the user list
//   GET    /api/camera           network, viewers, PTZ, audio, registration and services; what does not
//                                answer is null and named in "silent"; "updated" is when they were asked.
//                                A caller counts as a viewer for a while.
//   GET    /api/alerts           the last alerts of video analytics; those after number N with ?after=N
//
// Only if it is built with ZARIP_TEST_ROUTES, as the demo does:
//
//   POST   /measure              the length of the body
//   GET    /fault                a handler that throws
//
// Answers are JSON. A request that changes something and comes from the page of another site, or of another
// port, is answered 403, and one for a host that is neither a numeric address nor "localhost" nor a name in
// DEVICE 421. /api/ answers 401 without a valid login and 403 if the role is not enough; what
// needs the security service answers 503 when that or the bus is gone. A service that does not answer delays
// no request (CameraState). The gateway keeps no password: a login is a session of the service's. It speaks
// no TLS.

#include <cajun/json/elements.h>

#include <zarip/core/IniFile.h>
#include <zarip/core/JsonUtils.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/xml/XmlWriter.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/CameraState.h"
#include "common/Failure.h"
#include "common/FileHandler.h"
#include "common/LiveView.h"
#include "common/LoginDelay.h"
#include "common/RequestGuard.h"
#include "common/Scene.h"
#include "common/SessionCookie.h"
#include "common/WebAddress.h"

namespace {

using zarip::core::IniFile;
using zarip::core::JsonUtils;
using zarip::core::StringUtil;
using zarip::inet::HttpRequest;
using zarip::inet::HttpResponse;

constexpr unsigned int kWorkers = 4;  // a request that waits for the security service delays no other

/// Whether a query or a form holds a zero byte. The parser's value ends before it, so that "alice%00b" would
/// be alice.
bool HoldsZeroByte(const HttpRequest& request) {
    const std::string* const type = request.GetHeader("Content-Type");
    const bool isForm = type != nullptr && StringUtil::StartsWith(*type, "application/x-www-form-urlencoded");
    const std::string form = isForm ? std::string(request.GetBody(), request.GetBodyLength()) : "";
    for (const std::string& text : {request.GetQueryString(), form}) {
        if (text.find("%00") != std::string::npos || text.find('\0') != std::string::npos) {
            return true;
        }
    }
    return false;
}

/// Answers with what a function makes of a request.
class Route final : public zarip::inet::IHttpHandler {
public:
    using Function =
        std::function<void(CameraState& camera, const HttpRequest& request, HttpResponse& response)>;

    /// @param methods  with spaces in between, GET first; HEAD comes with it.
    Route(CameraState& camera, const char* methods, Function function)
        : _camera(camera), _methods(methods), _function(std::move(function)) {}

    void HandleRequest(const HttpRequest& request, HttpResponse& response) override {
        response.SetHeader("Cache-Control", "no-store");
        std::vector<std::string> methods = StringUtil::Split(_methods, ' ');
        if (methods.front() == "GET") {
            methods.insert(methods.begin() + 1, "HEAD");  // the server leaves the body out
        }
        try {
            if (std::find(methods.begin(), methods.end(), request.GetMethodName()) == methods.end()) {
                response.SetHeader("Allow", StringUtil::Join(methods, ", "));
                throw Failure{405, "This method does not fit here."};
            }
            if (HoldsZeroByte(request)) {
                throw Failure{400, "A zero byte."};
            }
            _function(_camera, request, response);
        } catch (const Failure& failure) {
            Answer(response, failure);
        }
    }

private:
    CameraState& _camera;
    const char* _methods;
    Function _function;
};

Route::Function ServeXml(const std::string& text) {
    return [=](CameraState& /*camera*/, const HttpRequest& /*request*/, HttpResponse& response) {
        response.SetCode(200);
        response.SetHeader("Content-Type", "text/xml; charset=\"utf-8\"");
        response.SetBody(text);
    };
}

/// The description of the device, with what its file says of it.
std::string DescribeDevice(const IniFile& file) {
    std::ostringstream text;
    zarip::xml::XmlWriter writer(text, true);
    writer.StartDocument();
    writer.StartElement("root");
    writer.Namespace("", "urn:schemas-upnp-org:device-1-0");
    writer.StartElement("specVersion");
    writer.Element("major", "1");
    writer.Element("minor", "0");
    writer.EndElement();
    writer.StartElement("device");
    // In the order that UPnP prescribes.
    for (const char* name :
         {"deviceType", "friendlyName", "manufacturer", "manufacturerURL", "modelDescription", "modelName",
          "modelNumber", "modelURL", "serialNumber", "UDN", "UPC", "presentationURL"}) {
        std::string value;
        if (file.TryGetValue(value, "device", name)) {
            writer.Element(name, value);
        }
    }
    writer.EndDocument();
    return text.str();
}

/// The person in the live picture walks where the alert saw them.
void WalkAlong(Scene& scene, const CameraState::Alert& alert) {
    std::vector<Scene::Point> track;
    for (const auto& point : alert.track) {
        if (track.size() < CameraState::kMostPoints && point.x >= 0 && point.x <= 1 && point.y >= 0 &&
            point.y <= 1) {
            track.push_back({point.x, point.y});
        }
    }
    scene.Walk(std::move(track));
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
    const std::string session = SessionCookie::Get(request);
    return Text(&session);
}

struct Caller {
    std::string user;
    int secondsLeft = 0;
};

/// The user is "" for a caller that is not logged in.
Caller FindCaller(CameraState& camera, const std::string& session) {
    Caller caller;
    if (!session.empty()) {
        // Not IsAuthenticated, which makes the session last longer: a page left open would never end it.
        caller.secondsLeft =
            camera.Ask([&](auto& service) { return service.GetExpiration(session, caller.user); });
    }
    return caller;
}

/// Throws `Failure` for a caller that may not go on.
Caller Allow(CameraState& camera, const HttpRequest& request) {
    const std::string session = Session(request);
    const Caller caller = FindCaller(camera, session);
    if (caller.user.empty()) {
        throw Failure{401, "Please log in."};
    }
    if (!camera.Ask([&](auto& service) { return service.Authorize(session, request.GetPath()); })) {
        throw Failure{403, "Your role does not allow this."};
    }
    return caller;
}

/// Logs users in, and slows down attempts to guess passwords. *Thread-safe.*
class Logins {
public:
    /// @param isBehindProxy  a proxy on this machine appends the client's address to "X-Forwarded-For".
    explicit Logins(bool isBehindProxy) : _isBehindProxy(isBehindProxy) {}

    void LogIn(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
        const std::string user = Field(request, "user");
        const std::string password = Field(request, "password");
        const std::string address = AddressOf(request);
        const int seconds = GetSecondsLeft(user, address);
        if (seconds > 0) {
            response.SetHeader("Retry-After", std::to_string(seconds));
            throw Failure{429, "Too many wrong passwords. Please try again in " + std::to_string(seconds) +
                                   " seconds."};
        }
        const std::string session =
            camera.Ask([&](auto& service) { return service.Authenticate(false, user, password); });
        if (session.empty()) {
            const int failures = AddFailure(user, address);
            _logger->Warning("Refused a login as %s from %s, failure %d from there", ForLog(user).c_str(),
                             ForLog(address).c_str(), failures);
            throw Failure{401, "User name or password is wrong."};
        }
        AddSuccess(user, address);
        SessionCookie::Set(response, session);
        Answer(response, 200, "{\"user\":" + Quote(user) + "}");
    }

private:
    int GetSecondsLeft(const std::string& user, const std::string& address) {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _delay.GetSecondsLeft(user, address);
    }
    int AddFailure(const std::string& user, const std::string& address) {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _delay.AddFailure(user, address);
    }
    void AddSuccess(const std::string& user, const std::string& address) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _delay.AddSuccess(user, address);
    }

    std::string AddressOf(const HttpRequest& request) const {
        const zarip::inet::_ipaddr_t& source = request.GetSource();
        const std::string* const forwarded = request.GetHeader("X-Forwarded-For");
        if (_isBehindProxy && forwarded != nullptr && StringUtil::StartsWith(source.ipv4, "127.")) {
            // The client may have sent the entries before the last one itself.
            const std::size_t begin = forwarded->find_first_not_of(' ', forwarded->rfind(',') + 1);
            return begin != std::string::npos ? forwarded->substr(begin) : "";
        }
        return source.ipv6[0] != '\0' ? source.ipv6 : source.ipv4;
    }

    /// What a client sends cannot forge lines of the log.
    static std::string ForLog(std::string text) {
        text.resize(std::min<std::size_t>(text.size(), 64));
        const bool isPlain =
            std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c < 0x7F; });
        return isPlain && !text.empty() ? text : "(not a plain name)";
    }

    zarip::core::Logger* const _logger = zarip::core::Logger::GetLogger("WebGateway");
    const bool _isBehindProxy;
    std::mutex _mutex;
    LoginDelay _delay;
};

void Logout(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    camera.Ask([&](auto& service) { return service.Logout(Session(request)); });
    SessionCookie::Clear(response);
    Answer(response, 200, "{}");
}

void Health(CameraState& camera, const HttpRequest& /*request*/, HttpResponse& response) {
    camera.CheckHealth();
    Answer(response, 200, "{}");
}

void Status(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    const Caller caller = Allow(camera, request);
    Answer(
        response, 200,
        "{\"user\":" + Quote(caller.user) + ",\"secondsLeft\":" + std::to_string(caller.secondsLeft) + "}");
}

/// For the page, which asks this without being logged in: so that is not an error.
Route::Function DescribeSession(const std::string& name) {
    return [=](CameraState& camera, const HttpRequest& request, HttpResponse& response) {
        const Caller caller = FindCaller(camera, Session(request));
        Answer(response, 200,
               "{\"camera\":" + Quote(name) +
                   ",\"user\":" + (caller.user.empty() ? "null" : Quote(caller.user)) +
                   ",\"secondsLeft\":" + std::to_string(caller.secondsLeft) + "}");
    };
}

/// Lets those watch whose session allows it, as long as it does.
LiveView::Admit AdmitViewers(CameraState& camera) {
    return [&camera](const HttpRequest& head) -> std::function<bool()> {
        Allow(camera, head);
        const std::string session = Session(head);
        return [&camera, session] {
            try {
                return !FindCaller(camera, session).user.empty();
            } catch (const Failure& /*nobody knows*/) {
                return true;
            }
        };
    };
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

int AddUser(CameraState& camera, const HttpRequest& request) {
    const std::string name = Field(request, "name");
    const std::string role = Field(request, "role");
    const std::string password = Field(request, "password");
    // The service takes lines of fields: what ends a line or a field would be another user or role.
    if ((name + role).find_first_of(":\n") != std::string::npos || password.find('\n') != std::string::npos) {
        throw Failure{400, "Name, role or password holds characters that cannot be."};
    }
    return camera.Ask([&](auto& service) { return service.AddUsers(name + ":" + role + ":" + password); });
}

void Users(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    int result = 0;
    if (request.GetMethodName() == "POST") {
        result = AddUser(camera, request);
    } else if (request.GetMethodName() == "DELETE") {
        const std::vector<std::string> names = {Text(request.GetQueryParameter("name"))};
        result = camera.Ask([&](auto& service) { return service.DeleteUsers(names); });
    }
    if (result != 0) {
        // As the security service numbers them.
        const std::map<int, const char*> reasons = {
            {1, "The password is too short."},
            {2, "Name or password holds characters that cannot be."},
            {3, "There is no such role."},
            {4, "There is such a user already."},
            {5, "There is no such user."},
            {7, "This is the last administrator."},
            {8, "Too many passwords at once. Please try again in a few seconds."}};
        const auto reason = reasons.find(result);
        throw Failure{409, reason != reasons.end()
                               ? reason->second
                               : "The security service refused it with code " + std::to_string(result) + "."};
    }
    Answer(response, 200, UsersAsJson(camera.Ask([](auto& service) { return service.GetUsers(); })));
}

void Events(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    Answer(response, 200, JsonUtils::ToString(camera.GetEvents()));
}

void CameraStatus(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    camera.NoteViewer(Session(request));
    Answer(response, 200, JsonUtils::ToString(camera.Get()));
}

void Alerts(CameraState& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    const std::string* const after = request.GetQueryParameter("after");
    int number = 0;
    if (after != nullptr && !StringUtil::TryParse(*after, number)) {
        throw Failure{400, "After which number?"};
    }
    int latest = 0;
    json::Object answer;
    answer["alerts"] = camera.GetAlerts(number, latest);
    answer["latest"] = json::Number(latest);
    Answer(response, 200, JsonUtils::ToString(answer));
}

void UnknownApi(CameraState& camera, const HttpRequest& request, HttpResponse& /*response*/) {
    Allow(camera, request);
    throw Failure{404, "There is no such thing."};
}

#ifdef ZARIP_TEST_ROUTES
void Measure(CameraState& /*camera*/, const HttpRequest& request, HttpResponse& response) {
    const std::string* const announced = request.GetHeader("Content-Length");
    if (announced != nullptr && *announced != std::to_string(request.GetBodyLength())) {
        throw Failure{400, "The body is not as long as announced."};
    }
    Answer(response, 200, "{\"bytes\":" + std::to_string(request.GetBodyLength()) + "}");
}

void Fault(CameraState& /*camera*/, const HttpRequest& /*request*/, HttpResponse& /*response*/) {
    throw zarip::osa::Exception("this handler always throws");
}
#endif

/// The gateway with all its parts. The server is the last of them: it stops before what its handlers need.
class Gateway {
public:
    /// @param port  -1 for the one in the device's file.
    Gateway(const std::string& pages, const IniFile& device, int port)
        : _address(device),
          _camera([this](const CameraState::Alert& alert) { WalkAlong(_scene, alert); }),
          _logins(device.GetBoolOrDefault("web", "proxy", false)),
          _pages(pages),
          _live([this] { return _scene.Take(); }, AdmitViewers(_camera)),
          _guard(StringUtil::Split(device.GetValueOrDefault("web", "names"), ' ')),
          _guardedPages(_guard, _pages),
          _guardedLive(_guard, _live),
          _server(_address.address, port >= 0 ? port : _address.port) {
        _server.SetStandardResponses(true);
        _server.SetWorkers(kWorkers);
        _server.AddHandler("*", &_guardedPages);
        _server.AddHandler("/live", &_guardedLive);
        AddRoutes(device);
    }
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    /// Serves until there is a signal to stop.
    void Run(const zarip::msgbus::StopSignal& stop) {
        _server.StartServerThread();
        std::printf("http://%s:%u/\n", _address.address.c_str(),
                    static_cast<unsigned int>(_server.GetLocalPort()));
        std::fflush(stdout);
        stop.Wait();
        _server.StopServerThread();
    }

private:
    void AddRoutes(const IniFile& device) {
        const std::string name = device.GetValueOrDefault("device", "friendlyName", "Camera");
        Add("/device.xml", "GET", ServeXml(DescribeDevice(device)));
        Add("/login", "POST",
            [this](CameraState& camera, const HttpRequest& request, HttpResponse& response) {
                _logins.LogIn(camera, request, response);
            });
        Add("/logout", "POST", &Logout);
        Add("/health", "GET", &Health);
        Add("/session", "GET", DescribeSession(name));
        Add("/api/status", "GET", &Status);
        Add("/api/users", "GET POST DELETE", &Users);
        Add("/api/events", "GET", &Events);
        Add("/api/camera", "GET", &CameraStatus);
        Add("/api/alerts", "GET", &Alerts);
        Add("/api/*", "GET POST DELETE", &UnknownApi);
#ifdef ZARIP_TEST_ROUTES
        Add("/measure", "POST", &Measure);
        Add("/fault", "GET", &Fault);
#endif
    }

    void Add(const char* path, const char* methods, Route::Function function) {
        Route& route = _routes.emplace_back(_camera, methods, std::move(function));
        _server.AddHandler(path, &_guarded.emplace_back(_guard, route));
    }

    const WebAddress _address;
    Scene _scene;
    CameraState _camera;
    Logins _logins;
    FileHandler _pages;
    LiveView _live;
    const RequestGuard _guard;
    GuardedHandler _guardedPages;
    GuardedStreamHandler _guardedLive;
    std::list<Route> _routes;
    std::list<GuardedHandler> _guarded;
    zarip::inet::HttpServer _server;
};

}  // namespace

int main(int argc, char** argv) {
    int port = -1;
    if (argc < 2 || argc > 4 ||
        (argc > 3 && (!StringUtil::TryParse(argv[3], port) || port < 0 || port > 65'535))) {
        std::fprintf(stderr, "usage: web-gateway PAGES [DEVICE [PORT]]\n");
        return 2;
    }
    try {
        const zarip::msgbus::StopSignal stop;
        IniFile settings;
        settings.SetValue("log", "log.stdout", "true");
        zarip::core::Logger::ConfigureLogging(settings, "log");
        Gateway(argv[1], argc > 2 ? IniFile(argv[2]) : IniFile(), port).Run(stop);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "web-gateway: %s\n", e.what());
        return 1;
    }
}
