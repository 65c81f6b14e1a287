// SPDX-License-Identifier: MIT

// Registers the camera with the manager of a video-management system and keeps the two synchronised.
//
//   registration-service FILE CAMERA SECONDS
//
// ForceRegister takes the manager: ADDRESS:PORT with a numeric address, or the name of a stream socket below
// /tmp/sockets. The service connects, sends the line "register CAMERA" and is registered when the manager
// sends that line back. From then on it does the same with "sync CAMERA" every SECONDS. An echo-service can
// be the manager. ResetSecurity forgets the manager. After ResetSynced the camera is not synchronised until
// the next "sync". FILE has the manager and whether it has agreed; the service makes the file if necessary.

#include <unistd.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/interfaces/ISmRegistrationProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/NetworkUtils.h>
#include <zarip/osa/TcpSocket.h>
#include <zarip/osa/TimeSpan.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "common/LogToStdout.h"

namespace {

using zarip::core::IniFile;
using zarip::core::StringUtil;
using zarip::interfaces::ISmRegistrationProvider;
using zarip::osa::TimeSpan;

constexpr unsigned int kPatience = 5;  // seconds

struct Address {
    std::string host;
    unsigned short port = 0;  // 0: the host is the name of a stream socket
};

bool Parse(const std::string& text, Address& address) {
    const std::size_t colon = text.rfind(':');
    int port = 0;
    if (colon != std::string::npos && zarip::osa::NetworkUtils::IpAddressFamily(text.substr(0, colon)) != 0 &&
        StringUtil::TryParse(text.substr(colon + 1), port) && port > 0 && port <= 65'535) {
        address = {text.substr(0, colon), static_cast<unsigned short>(port)};
        return true;
    }
    address = {text, 0};
    // A path is refused, so that only sockets in that folder can be named.
    return !text.empty() && text.size() <= 64 && text.front() != '.' &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
               std::string::npos;
}

/// Returns whether the manager sends the line back. Throws if the manager cannot be asked.
bool Ask(const Address& manager, const std::string& line) {
    zarip::osa::TcpSocket socket;
    socket.SetTimeLimit(kPatience * 1'000);
    socket.Connect(manager.host.c_str(), manager.port, kPatience);
    socket.SendAll(line.data(), static_cast<unsigned int>(line.size()));
    std::string answer;
    while (answer.size() < line.size()) {
        char buffer[256];
        const unsigned int count = socket.Recv(buffer, sizeof(buffer), kPatience);
        if (count == 0) {
            break;
        }
        answer.append(buffer, count);
    }
    return answer == line;
}

/// Members are called on the thread of the bus. The thread of the pool talks to the manager, which may take
/// long.
class RegistrationService final : public ISmRegistrationProvider {
public:
    RegistrationService(const char* path, const char* camera, TimeSpan pause,
                        const zarip::core::Logger& logger)
        : _path(path), _camera(camera), _pause(pause), _logger(logger) {
        if (::access(path, F_OK) == 0) {
            const IniFile file(path);
            _state.manager = file.GetValueOrDefault("registration", "manager");
            _state.isRegistered = file.GetBoolOrDefault("registration", "registered", false);
        }
        _pool.GetTaskQueue()->QueueTask(zarip::core::MakeDelegate(this, &RegistrationService::OnTime));
    }

    bool IsRegistered() override {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _state.isRegistered;
    }

    bool IsSynced() override {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _state.isSynced;
    }

    void ResetSecurity() override { Begin({}); }

    void ResetSynced() override {
        const std::lock_guard<std::mutex> lock(_mutex);
        _state.isSynced = false;
    }

    void ForceRegister(const std::string& manager) override {
        Address ignored;
        if (!Parse(manager, ignored)) {
            throw zarip::osa::Exception("the manager is neither ADDRESS:PORT nor the name of a socket");
        }
        Begin({manager, false, false});
        // A conversation that waits for its turn is with the newest manager, so one is enough.
        if (!_isTalkQueued.exchange(true)) {
            _pool.GetTaskQueue()->QueueTask(
                zarip::core::MakeDelegate(this, &RegistrationService::TalkWhenForced));
        }
    }

private:
    struct State {
        std::string manager;  // "" for none
        bool isRegistered = false;
        bool isSynced = false;
    };

    /// Sets another state. A conversation that runs does not change it any more.
    void Begin(const State& state) {
        const std::lock_guard<std::mutex> lock(_mutex);
        Keep(state);
        ++_beginnings;
    }

    void Keep(const State& state) {
        if (state.manager == _state.manager && state.isRegistered == _state.isRegistered) {
            _state = state;
            return;
        }
        IniFile file;
        file.SetValue("registration", "manager", state.manager);
        file.SetBool("registration", "registered", state.isRegistered);
        file.Save(_path.c_str());
        _state = state;
    }

    void OnTime() {
        _pool.GetTaskQueue()->QueueTask(_pause,
                                        zarip::core::MakeDelegate(this, &RegistrationService::OnTime));
        Talk();
    }

    void TalkWhenForced() {
        _isTalkQueued = false;  // before the manager is read: a later one makes another talk
        Talk();
    }

    void Talk() {
        State state;
        int beginnings = 0;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            state = _state;
            beginnings = _beginnings;
        }
        Address manager;
        if (!Parse(state.manager, manager)) {
            return;
        }
        bool hasAgreed = false;
        try {
            hasAgreed = Ask(manager, (state.isRegistered ? "sync " : "register ") + _camera + "\n");
        } catch (const std::exception& e) {
            _logger.Warning("%s", e.what());
        }
        const std::lock_guard<std::mutex> lock(_mutex);
        if (beginnings == _beginnings) {
            Keep({state.manager, state.isRegistered || hasAgreed, hasAgreed});
            _logger.Information("The manager %s", hasAgreed ? "has agreed" : "has not agreed");
        }
    }

    const std::string _path;
    const std::string _camera;
    const TimeSpan _pause;
    const zarip::core::Logger& _logger;
    std::mutex _mutex;
    State _state;
    int _beginnings = 0;
    std::atomic<bool> _isTalkQueued{false};
    zarip::core::ThreadPool _pool;  // last: its task needs the others
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: registration-service FILE CAMERA SECONDS\n"
                 "  FILE     where it keeps the manager\n"
                 "  CAMERA   the name of the camera, without spaces\n"
                 "  SECONDS  between two synchronisations, 1 to 86400\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    int seconds = 0;
    const std::string camera = argc > 2 ? argv[2] : "";
    const bool isName = !camera.empty() && camera.size() <= 64 &&
                        std::all_of(camera.begin(), camera.end(), [](unsigned char c) { return c > 0x20; });
    if (argc != 4 || !isName || !StringUtil::TryParse(argv[3], seconds) || seconds < 1 || seconds > 86'400) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        const zarip::core::Logger* const logger = LogToStdout("SmRegistration");
        RegistrationService service(argv[1], argv[2], TimeSpan::FromSeconds(seconds), *logger);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            ISmRegistrationProvider::CreateServer(&bus, &service));
        bus.StartServer();  // last: from here on calls are answered
        return stop.Wait(bus) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "registration-service: %s\n", e.what());
        return 1;
    }
}
