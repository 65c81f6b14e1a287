// SPDX-License-Identifier: MIT

#pragma once

#include <cajun/json/elements.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/JsonUtils.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Failure.h"

/// A connection to the bus with clients of all services; *thread-safe* like these.
struct Services {
    static constexpr int kSecurityTimeoutMs = 3'000;  // a password takes its time on purpose
    static constexpr int kTimeoutMs = 1'000;

    Services() : handlers(&bus) {
        Create(security);
        Create(network);
        Create(streams);
        Create(ptz);
        Create(audio);
        Create(registration);
        Create(directory);
        security->_timeout = kSecurityTimeoutMs;
        network->_timeout = streams->_timeout = ptz->_timeout = kTimeoutMs;
        registration->_timeout = directory->_timeout = kTimeoutMs;
    }
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;
    ~Services() { bus.StopServer(); }

    template <class Provider>
    void Create(std::unique_ptr<Provider>& client) {
        client.reset(Provider::CreateClient(&bus));
    }

    zarip::msgbus::MsgBus bus;
    std::unique_ptr<zarip::interfaces::ISecurityProvider> security;
    std::unique_ptr<zarip::interfaces::INetworkingV2Provider> network;
    std::unique_ptr<zarip::interfaces::IStreamInfoProvider> streams;
    std::unique_ptr<zarip::interfaces::IPtzSerialProvider> ptz;
    std::unique_ptr<zarip::interfaces::IAudioLineOutProvider> audio;
    std::unique_ptr<zarip::interfaces::ISmRegistrationProvider> registration;
    std::unique_ptr<zarip::interfaces::IBrelkServicesProvider> directory;
    zarip::msgbus::MessageHandlerCollection handlers;
};

/// The last answers of the services of the camera, for requests over the web. *Thread-safe.*
///
/// A thread of its own asks each service every two seconds and keeps the answers, so a request waits for no
/// service but the security service, which decides about each request itself. A service that does not answer
/// within its time-out is left out for ten seconds. At most one of these services is tried in each round, so
/// the others stay up to date. If it is the security service, requests are refused at once until it answers
/// that thread again. The thread also connects to the bus, and again after the bus was lost.
class CameraState {
public:
    using Clock = std::chrono::steady_clock;
    using Alert = zarip::interfaces::AnalyticsInterface::AnalyticsAlert;

    static constexpr std::chrono::seconds kRound{2};
    static constexpr std::chrono::seconds kLeftOut{10};
    static constexpr std::chrono::seconds kViewerTime{15};
    static constexpr std::size_t kMostViewers = 1'000;
    static constexpr std::size_t kKeptEvents = 20;
    static constexpr std::size_t kKeptAlerts = 50;
    static constexpr std::size_t kMostAlertText = 200;  // bytes of each text
    static constexpr std::size_t kMostPoints = 32;      // of a zone or track
    static constexpr const char* kStream = "main";

    /// Connects, asks the security service for the first time, and starts the thread.
    /// @param onAlert  called on the bus's thread for each alert, without a lock.
    explicit CameraState(std::function<void(const Alert&)> onAlert) : _onAlert(std::move(onAlert)) {
        Connect();
        AskPart(_parts.front(), *this);
        _thread = std::thread(&CameraState::Run, this);
    }
    CameraState(const CameraState&) = delete;
    CameraState& operator=(const CameraState&) = delete;

    /// Waits for the call that the thread is in.
    ~CameraState() {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _isEnding = true;
        }
        _ending.notify_all();
        _thread.join();
        _services.reset();
    }

    /// Calls a member of the security service; throws `Failure`.
    template <class Call>
    auto Ask(Call call) {
        const std::shared_ptr<Services> services = GetServices();
        if (services == nullptr) {
            throw Failure{503, "The message bus is gone."};
        }
        if (_isSecuritySilent) {
            throw Failure{503, kNoSecurity};
        }
        const Clock::time_point begin = Clock::now();
        try {
            return call(*services->security);
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            if (zarip::core::StringUtil::StartsWith(e.what(), "MsgBusMsg: ")) {
                throw Failure{400, "The bus cannot carry this text."};
            }
            if (IsTimeout(begin, Services::kSecurityTimeoutMs)) {
                _isSecuritySilent = true;
            }
            throw Failure{503, services->bus.IsRunning() ? kNoSecurity : "The message bus is gone."};
        }
    }

    /// Whether the bus was there and the security service answered when they were asked last; otherwise
    /// throws `Failure`. Calls no service.
    void CheckHealth() {
        if (GetServices() == nullptr) {
            throw Failure{503, "The message bus is gone."};
        }
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!_parts.front().hasAnswered || _isSecuritySilent) {
            throw Failure{503, kNoSecurity};
        }
    }

    /// The last answers by part, null for what has not answered; with the names of these in "silent", and the
    /// time of the last round in "updated", "" before the first one is complete.
    json::Object Get() {
        const std::lock_guard<std::mutex> lock(_mutex);
        json::Object state;
        json::Array silent;
        for (const Part& part : _parts) {
            if (part.keepsAnswer) {
                state[part.name] = part.answer;
            }
            if (!part.hasAnswered) {
                silent.Insert(json::String(part.name));
            }
        }
        state["silent"] = silent;
        state["updated"] = json::String(_updated);
        return state;
    }

    /// Counts the sessions that have asked in the last seconds, and reports their number to
    /// stream-info-service.
    void NoteViewer(const std::string& session) {
        int count = 0;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            const Clock::time_point now = Clock::now();
            if (_viewers.size() < kMostViewers) {
                _viewers[session] = now;
            }
            for (auto viewer = _viewers.begin(); viewer != _viewers.end();) {
                viewer = now - viewer->second > kViewerTime ? _viewers.erase(viewer) : std::next(viewer);
            }
            count = static_cast<int>(_viewers.size());
        }
        try {
            if (const std::shared_ptr<Services> services = GetServices()) {
                zarip::msgbus::MsgBusSignal report("/com/brelk/example/viewers", "com.brelk.example.viewers",
                                                   "Viewers");
                report << std::string(kStream) << count;
                services->bus.SendMsg(report);
            }
        } catch (const std::exception& e) {
            _logger->Debug("%s", e.what());
        }
    }

    /// The last changes of the user list, the newest first.
    json::Array GetEvents() {
        const std::lock_guard<std::mutex> lock(_mutex);
        json::Array events;
        for (const json::Object& event : _events) {
            events.Insert(event);
        }
        return events;
    }

    /// The alerts after a number that are still kept, and in `latest` the number of the newest.
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
    static constexpr const char* kNoSecurity = "The security service does not answer.";

    /// What is asked of one service.
    struct Part {
        const char* name;
        std::function<json::UnknownElement(const Services&)> ask;
        int timeoutMs = Services::kTimeoutMs;
        bool keepsAnswer = true;
        json::UnknownElement answer = json::Null();
        bool hasAnswered = false;
        Clock::time_point leftOutUntil = Clock::time_point::min();  // the thread's alone
    };

    class AlertHandler final : public zarip::msgbus::IMessageHandler {
    public:
        explicit AlertHandler(CameraState& state) : _state(state) {}
        void HandleMessage(const zarip::msgbus::MsgBusMsg& message,
                           zarip::msgbus::IMsgBus& /*bus*/) override {
            const Alert alert(message);
            _state.Keep(alert);
            _state._onAlert(alert);
        }
        Kind GetKind() const override { return kSignals; }

    private:
        CameraState& _state;
    };

    static bool IsTimeout(Clock::time_point begin, int timeoutMs) {
        return Clock::now() - begin >= std::chrono::milliseconds(timeoutMs);
    }

    static std::string Now() {
        const std::time_t now = std::time(nullptr);
        std::tm utc{};
        ::gmtime_r(&now, &utc);
        char text[32];
        std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
        return text;
    }

    /// The connection, or null if none has been made or the bus is lost.
    std::shared_ptr<Services> GetServices() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _services != nullptr && _services->bus.IsRunning() ? _services : nullptr;
    }

    void Run() {
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_isEnding) {
            lock.unlock();
            const Clock::time_point begin = Clock::now();
            Connect();
            AskAll();
            lock.lock();
            _ending.wait_until(lock, begin + kRound, [this] { return _isEnding; });
        }
    }

    /// Connects unless there is a connection. Called by the constructor, then by the thread.
    void Connect() {
        if (GetServices() != nullptr) {
            return;
        }
        std::shared_ptr<Services> services;
        try {
            services = std::make_shared<Services>();
            services->security->UsersChanged.AddDelegate(
                zarip::core::MakeDelegate(this, &CameraState::OnUsersChanged));
            services->handlers.AddHandler("com.brelk.analytics", "AnalyticsAlert", new AlertHandler(*this));
            services->bus.StartServer();
        } catch (const std::exception& e) {
            _logger->Warning("%s", e.what());
            services.reset();
        }
        const std::lock_guard<std::mutex> lock(_mutex);
        _services.swap(services);  // the old ones go after the lock
    }

    void AskAll() {
        bool hasTried = false;
        for (Part& part : _parts) {
            if (part.leftOutUntil > Clock::time_point::min()) {
                if (hasTried || part.leftOutUntil > Clock::now()) {
                    continue;
                }
                hasTried = true;
            }
            AskPart(part, *this);
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_isEnding) {
                return;
            }
        }
        const std::lock_guard<std::mutex> lock(_mutex);
        _updated = Now();
    }

    static void AskPart(Part& part, CameraState& state) {
        const bool isSecurity = &part == &state._parts.front();
        const Clock::time_point begin = Clock::now();
        json::UnknownElement answer = json::Null();
        bool hasAnswered = false;
        try {
            if (const std::shared_ptr<Services> services = state.GetServices()) {
                answer = part.ask(*services);
                hasAnswered = true;
            }
        } catch (const std::exception& e) {
            state._logger->Debug("%s", e.what());
        }
        const bool isSlow = !hasAnswered && IsTimeout(begin, part.timeoutMs);
        part.leftOutUntil = isSlow && !isSecurity ? Clock::now() + kLeftOut : Clock::time_point::min();
        if (isSecurity) {
            state._isSecuritySilent = isSlow;
        }
        const std::lock_guard<std::mutex> lock(state._mutex);
        part.answer = answer;
        part.hasAnswered = hasAnswered;
    }

    void OnUsersChanged(bool value) {
        json::Object event;
        event["time"] = json::String(Now());
        event["value"] = json::Boolean(value);
        const std::lock_guard<std::mutex> lock(_mutex);
        _events.push_front(event);
        if (_events.size() > kKeptEvents) {
            _events.pop_back();
        }
    }

    static json::Array ToPoints(const std::vector<Alert::Point>& points) {
        json::Array pairs;
        for (std::size_t i = 0; i < std::min(points.size(), kMostPoints); ++i) {
            json::Array pair;
            pair.Insert(json::Number(points[i].x));
            pair.Insert(json::Number(points[i].y));
            pairs.Insert(pair);
        }
        return pairs;
    }

    void Keep(const Alert& alert) {
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
        entry["zone"] = ToPoints(alert.zone);
        entry["track"] = ToPoints(alert.track);
        _alerts.push_back(entry);
        if (_alerts.size() > kKeptAlerts) {
            _alerts.pop_front();
        }
    }

    static json::UnknownElement AskNetwork(const Services& services) {
        constexpr const char* query =
            R"({"settings":["[System]Hostname","[IPv4/Actual]Address","[IPv6/Actual]Addresses",)"
            R"("[NIC/eth0]EUI64","[NIC/eth0]MTU"]})";
        return zarip::core::JsonUtils::ParseObject(services.network->Get(query));
    }

    static json::UnknownElement AskViewers(const Services& services) {
        json::Object viewers;
        viewers["now"] = json::Number(services.streams->GetCurrentVideoConnections(kStream));
        viewers["guaranteed"] = json::Number(services.streams->GetGuaranteedVideoConnections(kStream));
        return viewers;
    }

    static json::UnknownElement AskPtz(const Services& services) {
        json::Object ptz;
        // Only the polling is asked for, because asking for the settings would initialise the line.
        ptz["polling"] = json::Boolean(services.ptz->GetPtzPollingState());
        return ptz;
    }

    static json::UnknownElement AskAudio(const Services& services) {
        json::Array connections;
        for (const auto& connection : services.audio->Query()) {
            json::Object entry;
            entry["client"] = json::String(connection.client);
            entry["connection"] = json::Number(connection.connection);
            connections.Insert(entry);
        }
        return connections;
    }

    static json::UnknownElement AskRegistration(const Services& services) {
        json::Object registration;
        registration["registered"] = json::Boolean(services.registration->IsRegistered());
        registration["synced"] = json::Boolean(services.registration->IsSynced());
        return registration;
    }

    static json::UnknownElement AskDirectory(const Services& services) {
        return zarip::core::JsonUtils::ParseArray(services.directory->GetAllServices());
    }

    zarip::core::Logger* const _logger = zarip::core::Logger::GetLogger("CameraState");
    const std::function<void(const Alert&)> _onAlert;
    mutable std::mutex _mutex;  // guards what follows
    std::condition_variable _ending;
    bool _isEnding = false;
    std::shared_ptr<Services> _services;
    std::vector<Part> _parts = {
        {"security",
         [](const Services& services) -> json::UnknownElement {
             services.security->GetNonce();
             return json::Null();
         },
         Services::kSecurityTimeoutMs, false},
        {"network", &AskNetwork},
        {"viewers", &AskViewers},
        {"ptz", &AskPtz},
        {"audio", &AskAudio},
        {"registration", &AskRegistration},
        {"services", &AskDirectory},
    };
    std::string _updated;
    std::map<std::string, Clock::time_point> _viewers;
    std::deque<json::Object> _events;
    std::deque<json::Object> _alerts;  // the oldest first
    int _latestAlert = 0;

    std::atomic<bool> _isSecuritySilent{false};
    std::thread _thread;
};
