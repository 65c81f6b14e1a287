// The camera's web front end: a status page and a small JSON interface, with every answer fetched over the
// bus.
//
//   web-gateway PAGE [DEVICE [PORT]]
//
//   PAGE is web/index.html. DEVICE is device.ini, as for discovery-responder, which also says where it
//   listens: at 127.0.0.1:8080 unless it says something else. A PORT here overrides the one there; with 0 it
//   takes a free one. It prints the address.
//
//   GET    /                     the page
//   POST   /login                form "user", "password"; sets the session cookie. After wrong passwords it
//                                answers 429 until the time in "Retry-After" has passed.
//   POST   /logout
//   GET    /device.xml           the UPnP description, where there is a DEVICE
//   GET    /health               whether the bus and the security service are there
//   GET    /api/status           who is logged in, and for how long
//   GET    /api/users            the users; POST adds one (form "name", "role", "password"),
//                                DELETE deletes one (/api/users?name=...)
//   GET    /api/events           the last changes of the user list
//   GET    /api/camera           network, viewers, PTZ, audio, registration and services; what does not
//   answer
//                                is null. Whoever asks counts as a viewer for a while.
//   GET    /api/alerts           the last alerts of video analytics; those behind number N with ?after=N
//
// Only if it is built with ZARIP_TEST_ROUTES, as the demo does:
//
//   POST   /measure              the length of the body
//   GET    /fault                a handler that throws
//
// Answers are JSON. A request that changes something and comes from the page of another site, or of another
// port, is answered 403, and one for a host that is neither a numeric address nor "localhost" nor a name in
// DEVICE 421. /api/ answers 401 without a valid login and 403 where the role is not enough; what
// needs the security service answers 503 when that or the bus is gone. The gateway keeps no password: a login
// is a session of the service's. It speaks no TLS.

#include <cajun/json/elements.h>
#include <cajun/json/writer.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/IniFile.h>
#include <zarip/core/JsonUtils.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/HttpServer.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/interfaces/AnalyticsInterface.h>
#include <zarip/interfaces/IAudioLineOutProvider.h>
#include <zarip/interfaces/IBrelkServicesProvider.h>
#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/IPtzSerialProvider.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/ISmRegistrationProvider.h>
#include <zarip/interfaces/IStreamInfoProvider.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/xml/XmlWriter.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "common/ContentPolicy.h"
#include "common/LoginDelay.h"
#include "common/RequestGuard.h"
#include "common/SessionCookie.h"
#include "common/WaitForStop.h"
#include "common/WebAddress.h"

namespace {

using zarip::core::JsonUtils;
using zarip::core::StringUtil;
using zarip::inet::HttpRequest;
using zarip::inet::HttpResponse;
using zarip::interfaces::AnalyticsInterface;
using Clock = std::chrono::steady_clock;

constexpr int kCallTimeoutMs = 3000;
constexpr std::size_t kKeptEvents = 20;
constexpr std::size_t kKeptAlerts = 50;
constexpr std::size_t kMostAlertText = 200;  // bytes of each text
constexpr std::chrono::seconds kViewerTime(15);
constexpr const char* kStream = "main";

template <class Element>
std::string ToJson(const Element& element) {
    std::ostringstream text;
    json::Writer::Write(element, text);
    return text.str();
}

std::string Quote(const std::string& text) {
    return ToJson(json::String(text));
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

/// The clients of all services on one bus.
struct Services {
    /// @param bus  *not owned*, must outlive them.
    explicit Services(zarip::msgbus::IMsgBus* bus) : handlers(bus) {
        Create(security, bus);
        Create(network, bus);
        Create(streams, bus);
        Create(ptz, bus);
        Create(audio, bus);
        Create(registration, bus);
        Create(directory, bus);
        security->_timeout = network->_timeout = streams->_timeout = kCallTimeoutMs;
        ptz->_timeout = registration->_timeout = directory->_timeout = kCallTimeoutMs;
    }

    template <class Provider>
    static void Create(std::unique_ptr<Provider>& client, zarip::msgbus::IMsgBus* bus) {
        client.reset(Provider::CreateClient(bus));
    }

    std::unique_ptr<zarip::interfaces::ISecurityProvider> security;
    std::unique_ptr<zarip::interfaces::INetworkingV2Provider> network;
    std::unique_ptr<zarip::interfaces::IStreamInfoProvider> streams;
    std::unique_ptr<zarip::interfaces::IPtzSerialProvider> ptz;
    std::unique_ptr<zarip::interfaces::IAudioLineOutProvider> audio;
    std::unique_ptr<zarip::interfaces::ISmRegistrationProvider> registration;
    std::unique_ptr<zarip::interfaces::IBrelkServicesProvider> directory;
    zarip::msgbus::MessageHandlerCollection handlers;
};

/// The services as long as there are any: connects when asked, and again when the bus was lost. Used by the
/// HTTP thread alone; only events and alerts come on the bus's thread.
class Camera {
public:
    ~Camera() { Disconnect(); }

    /// Calls a member of the security service; throws `Failure`.
    template <class Call>
    auto Ask(Call call) {
        Connect();
        try {
            return call(*_services->security);
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            if (StringUtil::StartsWith(e.what(), "MsgBusMsg: ")) {
                throw Failure{400, "The bus cannot carry this text."};
            }
            throw Failure{503, _bus->IsRunning() ? "The security service does not answer."
                                                 : "The message bus is gone."};
        }
    }

    /// What a function makes of one of the other services; null when that does not answer.
    template <class Function>
    json::UnknownElement Tell(Function function) {
        Connect();
        try {
            return function(*_services);
        } catch (const std::exception& e) {
            _logger->Debug("%s", e.what());
            return json::Null();
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
            _services = std::make_unique<Services>(_bus.get());
            _services->security->UsersChanged.AddDelegate(
                zarip::core::MakeDelegate(this, &Camera::OnUsersChanged));
            _services->handlers.AddHandler("com.brelk.analytics", "AnalyticsAlert", new AlertHandler(*this));
            _bus->StartServer();
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            Disconnect();
            throw Failure{503, "The message bus is gone."};
        }
    }

    /// Counts who has asked in the last seconds, and reports it as stream-info-service wants it.
    void NoteViewer(const std::string& session) {
        const Clock::time_point now = Clock::now();
        _viewers[session] = now;
        for (auto viewer = _viewers.begin(); viewer != _viewers.end();) {
            viewer = now - viewer->second > kViewerTime ? _viewers.erase(viewer) : std::next(viewer);
        }
        Tell([this](const Services& /*services*/) {
            zarip::msgbus::MsgBusSignal report("/com/brelk/example/viewers", "com.brelk.example.viewers",
                                               "Viewers");
            report << std::string(kStream) << static_cast<int>(_viewers.size());
            _bus->SendMsg(report);
            return json::Null();
        });
    }

    std::vector<std::string> GetEvents() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return {_events.begin(), _events.end()};
    }

    /// Those behind a number that are still kept, and in `latest` the number of the newest.
    json::Array GetAlerts(int after, int& latest) {
        const std::lock_guard<std::mutex> lock(_mutex);
        json::Array alerts;
        int number = latest = _latestAlert;
        number -= static_cast<int>(_alerts.size());
        for (const json::Object& alert : _alerts) {
            if (++number > after) {
                alerts.Insert(alert);
            }
        }
        return alerts;
    }

private:
    class AlertHandler final : public zarip::msgbus::IMessageHandler {
    public:
        explicit AlertHandler(Camera& camera) : _camera(camera) {}
        void HandleMessage(const zarip::msgbus::MsgBusMsg& message,
                           zarip::msgbus::IMsgBus& /*bus*/) override {
            _camera.OnAlert(AnalyticsInterface::AnalyticsAlert(message));
        }
        Kind GetKind() const override { return kSignals; }

    private:
        Camera& _camera;
    };

    void Disconnect() {
        if (_bus) {
            _bus->StopServer();
        }
        _services.reset();
        _bus.reset();
    }

    void OnUsersChanged(bool value) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _events.push_front("{\"time\":" + Quote(Now()) + ",\"value\":" + (value ? "true" : "false") + "}");
        if (_events.size() > kKeptEvents) {
            _events.pop_back();
        }
    }

    void OnAlert(const AnalyticsInterface::AnalyticsAlert& alert) {
        const std::lock_guard<std::mutex> lock(_mutex);
        json::Object entry;
        entry["number"] = json::Number(++_latestAlert);
        entry["severity"] = json::Number(alert.severity);
        const std::pair<const char*, const std::string&> texts[] = {
            {"device", alert.deviceId},    {"rule", alert.ruleName}, {"description", alert.description},
            {"object", alert.objectClass}, {"state", alert.state},   {"start", alert.startTime},
            {"end", alert.endTime}};
        for (const auto& [name, text] : texts) {
            entry[name] = json::String(text.substr(0, kMostAlertText));
        }
        _alerts.push_back(entry);
        if (_alerts.size() > kKeptAlerts) {
            _alerts.pop_front();
        }
    }

    zarip::core::Logger* _logger = zarip::core::Logger::GetLogger("WebGateway");
    std::unique_ptr<zarip::msgbus::MsgBus> _bus;
    std::unique_ptr<Services> _services;
    std::map<std::string, Clock::time_point> _viewers;
    std::mutex _mutex;
    std::deque<std::string> _events;
    std::deque<json::Object> _alerts;  // the oldest first
    int _latestAlert = 0;
};

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
    using Function = std::function<void(Camera& camera, const HttpRequest& request, HttpResponse& response)>;

    /// @param methods  with spaces in between, GET first; HEAD comes with it.
    Route(Camera& camera, const char* methods, Function function)
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
            Answer(response, failure.code, "{\"error\":" + Quote(failure.reason) + "}");
        }
    }

private:
    Camera& _camera;
    const char* _methods;
    Function _function;
};

/// Makes a function that answers with a text that stays the same.
/// @param policy  of the content; "" for none.
Route::Function ServeText(const char* type, const std::string& text, const std::string& policy) {
    return [=](Camera& /*camera*/, const HttpRequest& /*request*/, HttpResponse& response) {
        response.SetCode(200);
        response.SetHeader("Content-Type", type);
        if (!policy.empty()) {
            response.SetHeader("Content-Security-Policy", policy);
        }
        response.SetBody(text);
    };
}

/// The description of the device, with what the file says of it.
std::string DescribeDevice(const char* path) {
    const zarip::core::IniFile file(path);
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

/// The names by which browsers may ask for the camera.
std::vector<std::string> ReadHostNames(const char* path) {
    const zarip::core::IniFile file(path);
    return StringUtil::Split(file.GetValueOrDefault("web", "names"), ' ');
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

/// Throws `Failure` for one who may not go on.
Caller Allow(Camera& camera, const HttpRequest& request) {
    const std::string session = Session(request);
    Caller caller;
    if (!session.empty()) {
        // Not IsAuthenticated, which makes the session last longer: a page left open would never end it.
        caller.secondsLeft =
            camera.Ask([&](auto& service) { return service.GetExpiration(session, caller.user); });
    }
    if (caller.user.empty()) {
        throw Failure{401, "Please log in."};
    }
    if (!camera.Ask([&](auto& service) { return service.Authorize(session, request.GetPath()); })) {
        throw Failure{403, "Your role does not allow this."};
    }
    return caller;
}

/// Logs users in, and slows down attempts to guess passwords. Used by the HTTP thread alone.
class Logins {
public:
    /// @param isBehindProxy  a proxy on this machine appends the client's address to "X-Forwarded-For".
    explicit Logins(bool isBehindProxy) : _isBehindProxy(isBehindProxy) {}

    void LogIn(Camera& camera, const HttpRequest& request, HttpResponse& response) {
        const std::string user = Field(request, "user");
        const std::string password = Field(request, "password");
        const std::string address = AddressOf(request);
        const int seconds = _delay.GetSecondsLeft(user, address);
        if (seconds > 0) {
            response.SetHeader("Retry-After", std::to_string(seconds));
            throw Failure{429, "Too many wrong passwords. Please try again in " + std::to_string(seconds) +
                                   " seconds."};
        }
        const std::string session =
            camera.Ask([&](auto& service) { return service.Authenticate(false, user, password); });
        if (session.empty()) {
            const int failures = _delay.AddFailure(user, address);
            _logger->Warning("Refused a login as %s from %s, failure %d from there", ForLog(user).c_str(),
                             ForLog(address).c_str(), failures);
            throw Failure{401, "User name or password is wrong."};
        }
        _delay.AddSuccess(user, address);
        SessionCookie::Set(response, session);
        Answer(response, 200, "{\"user\":" + Quote(user) + "}");
    }

private:
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
    LoginDelay _delay;
};

void Logout(Camera& camera, const HttpRequest& request, HttpResponse& response) {
    camera.Ask([&](auto& service) { return service.Logout(Session(request)); });
    SessionCookie::Clear(response);
    Answer(response, 200, "{}");
}

void Health(Camera& camera, const HttpRequest& /*request*/, HttpResponse& response) {
    camera.Ask([](auto& service) { return service.GetNonce(); });
    Answer(response, 200, "{}");
}

void Status(Camera& camera, const HttpRequest& request, HttpResponse& response) {
    const Caller caller = Allow(camera, request);
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

int AddUser(Camera& camera, const HttpRequest& request) {
    const std::string name = Field(request, "name");
    const std::string role = Field(request, "role");
    const std::string password = Field(request, "password");
    // The service takes lines of fields: what ends a line or a field would be another user or role.
    if ((name + role).find_first_of(":\n") != std::string::npos || password.find('\n') != std::string::npos) {
        throw Failure{400, "Name, role or password holds characters that cannot be."};
    }
    return camera.Ask([&](auto& service) { return service.AddUsers(name + ":" + role + ":" + password); });
}

void Users(Camera& camera, const HttpRequest& request, HttpResponse& response) {
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

void Events(Camera& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    Answer(response, 200, "[" + StringUtil::Join(camera.GetEvents(), ',') + "]");
}

json::Object NetworkOf(const Services& services) {
    constexpr const char* query =
        R"({"settings":["[System]Hostname","[IPv4/Actual]Address","[IPv6/Actual]Addresses",)"
        R"("[NIC/eth0]EUI64","[NIC/eth0]MTU"]})";
    return JsonUtils::ParseObject(services.network->Get(query));
}

json::Object ViewersOf(const Services& services) {
    json::Object viewers;
    viewers["now"] = json::Number(services.streams->GetCurrentVideoConnections(kStream));
    viewers["guaranteed"] = json::Number(services.streams->GetGuaranteedVideoConnections(kStream));
    return viewers;
}

json::Object PtzOf(const Services& services) {
    json::Object ptz;
    // Nothing else: whoever asks for the settings initialises the line.
    ptz["polling"] = json::Boolean(services.ptz->GetPtzPollingState());
    return ptz;
}

json::Array AudioOf(const Services& services) {
    json::Array connections;
    for (const auto& connection : services.audio->Query()) {
        json::Object entry;
        entry["client"] = json::String(connection.client);
        entry["connection"] = json::Number(connection.connection);
        connections.Insert(entry);
    }
    return connections;
}

json::Object RegistrationOf(const Services& services) {
    json::Object registration;
    registration["registered"] = json::Boolean(services.registration->IsRegistered());
    registration["synced"] = json::Boolean(services.registration->IsSynced());
    return registration;
}

json::Array ServicesOf(const Services& services) {
    return JsonUtils::ParseArray(services.directory->GetAllServices());
}

void CameraStatus(Camera& camera, const HttpRequest& request, HttpResponse& response) {
    Allow(camera, request);
    camera.NoteViewer(Session(request));
    json::Object status;
    status["network"] = camera.Tell(&NetworkOf);
    status["viewers"] = camera.Tell(&ViewersOf);
    status["ptz"] = camera.Tell(&PtzOf);
    status["audio"] = camera.Tell(&AudioOf);
    status["registration"] = camera.Tell(&RegistrationOf);
    status["services"] = camera.Tell(&ServicesOf);
    Answer(response, 200, ToJson(status));
}

void Alerts(Camera& camera, const HttpRequest& request, HttpResponse& response) {
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
    Answer(response, 200, ToJson(answer));
}

void UnknownApi(Camera& camera, const HttpRequest& request, HttpResponse& /*response*/) {
    Allow(camera, request);
    throw Failure{404, "There is no such thing."};
}

#ifdef ZARIP_TEST_ROUTES
void Measure(Camera& /*camera*/, const HttpRequest& request, HttpResponse& response) {
    const std::string* const announced = request.GetHeader("Content-Length");
    if (announced != nullptr && *announced != std::to_string(request.GetBodyLength())) {
        throw Failure{400, "The body is not as long as announced."};
    }
    Answer(response, 200, "{\"bytes\":" + std::to_string(request.GetBodyLength()) + "}");
}

void Fault(Camera& /*camera*/, const HttpRequest& /*request*/, HttpResponse& /*response*/) {
    throw zarip::osa::Exception("this handler always throws");
}
#endif

}  // namespace

int main(int argc, char** argv) {
    int port = -1;
    if (argc < 2 || argc > 4 ||
        (argc > 3 && (!StringUtil::TryParse(argv[3], port) || port < 0 || port > 65'535))) {
        std::fprintf(stderr, "usage: web-gateway PAGE [DEVICE [PORT]]\n");
        return 2;
    }
    try {
        const WaitForStop stop;
        zarip::core::IniFile settings;
        settings.SetValue("log", "log.stdout", "true");
        zarip::core::Logger::ConfigureLogging(settings, "log");

        Camera camera;
        Logins logins(argc > 2 && zarip::core::IniFile(argv[2]).GetBoolOrDefault("web", "proxy", false));
        const std::string text = StringUtil::ReadTextFile(argv[1]);
        Route page(camera, "GET", ServeText("text/html; charset=UTF-8", text, ContentPolicy::Of(text)));
        Route description(
            camera, "GET",
            ServeText("text/xml; charset=\"utf-8\"", argc > 2 ? DescribeDevice(argv[2]) : "", ""));
        struct {
            const char* path;
            Route route;
        } routes[] = {
            {"/login",
             {camera, "POST",
              [&logins](Camera& bus, const HttpRequest& request, HttpResponse& response) {
                  logins.LogIn(bus, request, response);
              }}},
            {"/logout", {camera, "POST", &Logout}},
            {"/health", {camera, "GET", &Health}},
            {"/api/status", {camera, "GET", &Status}},
            {"/api/users", {camera, "GET POST DELETE", &Users}},
            {"/api/events", {camera, "GET", &Events}},
            {"/api/camera", {camera, "GET", &CameraStatus}},
            {"/api/alerts", {camera, "GET", &Alerts}},
            {"/api/*", {camera, "GET POST DELETE", &UnknownApi}},
#ifdef ZARIP_TEST_ROUTES
            {"/measure", {camera, "POST", &Measure}},
            {"/fault", {camera, "GET", &Fault}},
#endif
        };
        const RequestGuard guard(argc > 2 ? ReadHostNames(argv[2]) : std::vector<std::string>());
        std::list<GuardedHandler> guarded;
        const WebAddress web(argc > 2 ? zarip::core::IniFile(argv[2]) : zarip::core::IniFile());
        zarip::inet::HttpServer server(web.address, port >= 0 ? port : web.port);
        server.SetStandardResponses(true);
        const auto add = [&](const char* path, zarip::inet::IHttpHandler& handler) {
            server.AddHandler(path, &guarded.emplace_back(guard, handler));
        };
        add("/", page);
        if (argc > 2) {
            add("/device.xml", description);
        }
        for (auto& [path, route] : routes) {
            add(path, route);
        }
        try {
            camera.Connect();
        } catch (const Failure& failure) {
            std::fprintf(stderr, "web-gateway: %s It goes on without.\n", failure.reason.c_str());
        }
        server.StartServerThread();
        std::printf("http://%s:%u/\n", web.address.c_str(), static_cast<unsigned int>(server.GetLocalPort()));
        std::fflush(stdout);
        stop.Wait();
        server.StopServerThread();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "web-gateway: %s\n", e.what());
        return 1;
    }
}
