// SPDX-License-Identifier: MIT

// The owner of the audio line output: a bounded number of connections, each of which ends unless it is kept
// alive.
//
//   audio-service SECONDS MOST
//
// Connect takes the client's name, the samples in a second (8000, 16000 or 48000) and the channels (1 or 2).
// It answers "ok" and the number of the connection, or "busy" or "refused" and 0. Disconnect and KeepAlive
// take that number and answer "ok", or "unknown" for one that has ended. A connection that is not kept alive
// ends after SECONDS.

#include <zarip/core/Delegate.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/interfaces/IAudioLineOutProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/TimeSpan.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/LogToStdout.h"

namespace {

using zarip::core::StringUtil;
using zarip::interfaces::IAudioLineOutProvider;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestName = 64;

/// Its members come on the bus's thread, the ends of connections on the pool's.
class AudioService final : public IAudioLineOutProvider {
public:
    /// @param most  not more than one answer of Query holds.
    AudioService(std::chrono::seconds patience, std::size_t most, const zarip::core::Logger& logger)
        : _patience(patience), _most(most), _logger(logger) {}

    ConnectResult Connect(const std::string& client, int rate, int channels) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (client.empty() || client.size() > kLongestName ||
            (rate != 8'000 && rate != 16'000 && rate != 48'000) || (channels != 1 && channels != 2)) {
            return {"refused", 0};
        }
        EndOld();
        if (_connections.size() >= _most) {
            return {"busy", 0};
        }
        if (!_isWaiting) {
            WaitFor(_patience);
        }
        _connections[++_latest] = {client, Clock::now() + _patience};
        _logger.Information("Connection %d: %d samples a second, %d channels", _latest, rate, channels);
        return {"ok", _latest};
    }

    std::string Disconnect(int connection) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        EndOld();
        return _connections.erase(connection) > 0 ? "ok" : "unknown";
    }

    std::string KeepAlive(int connection) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        EndOld();
        const auto found = _connections.find(connection);
        if (found == _connections.end()) {
            return "unknown";
        }
        found->second.end = Clock::now() + _patience;
        return "ok";
    }

    std::vector<QueryResult> Query() override {
        const std::lock_guard<std::mutex> lock(_mutex);
        EndOld();
        std::vector<QueryResult> results;
        for (const auto& [number, connection] : _connections) {
            results.push_back({connection.client, number});
        }
        return results;
    }

private:
    struct Connection {
        std::string client;
        Clock::time_point end;
    };

    void EndOld() {
        for (auto entry = _connections.begin(); entry != _connections.end();) {
            if (entry->second.end <= Clock::now()) {
                _logger.Information("Connection %d has ended: nobody kept it alive", entry->first);
                entry = _connections.erase(entry);
            } else {
                ++entry;
            }
        }
    }

    /// There is one task at the most, however often connections come and are kept alive.
    void WaitFor(Clock::duration time) {
        using std::chrono::duration_cast;
        const auto microseconds = duration_cast<std::chrono::microseconds>(time).count();
        _pool.GetTaskQueue()->QueueTask(zarip::osa::TimeSpan::FromMicroseconds(microseconds + 1),
                                        zarip::core::MakeDelegate(this, &AudioService::OnTime));
        _isWaiting = true;
    }

    void OnTime() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isWaiting = false;
        EndOld();
        const auto next = std::min_element(_connections.begin(), _connections.end(),
                                           [](auto& a, auto& b) { return a.second.end < b.second.end; });
        if (next != _connections.end()) {
            WaitFor(next->second.end - Clock::now());
        }
    }

    const std::chrono::seconds _patience;
    const std::size_t _most;
    const zarip::core::Logger& _logger;
    std::mutex _mutex;
    std::map<int, Connection> _connections;
    int _latest = 0;
    bool _isWaiting = false;
    zarip::core::ThreadPool _pool;  // last: its task needs the others
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: audio-service SECONDS MOST\n"
                 "  SECONDS  how long a connection lasts unless it is kept alive, 1 to 3600\n"
                 "  MOST     how many connections there may be, 1 to 127\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    int seconds = 0;
    unsigned int most = 0;
    if (argc != 3 || !StringUtil::TryParse(argv[1], seconds) || seconds < 1 || seconds > 3'600 ||
        !StringUtil::TryParse(argv[2], most) || most < 1 || most > 127) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        const zarip::core::Logger* const logger = LogToStdout("AudioLineOut");
        AudioService service(std::chrono::seconds(seconds), most, *logger);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            IAudioLineOutProvider::CreateServer(&bus, &service));
        bus.StartServer();  // last: from here on calls are answered
        return stop.Wait(bus) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "audio-service: %s\n", e.what());
        return 1;
    }
}
