// SPDX-License-Identifier: MIT

// A source of video-analytics alerts: a made-up object walks to and fro past a fence, and crosses it.
//
//   analytics-source MILLISECONDS [COUNT]
//
// It publishes an alert every so many milliseconds, COUNT of them or until it is told to end. Coordinates are
// parts of the picture's width and height. It owns a name on the bus, which publishing does not ask for, so
// that the directory lists it.

#include <signal.h>
#include <unistd.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/interfaces/AnalyticsInterface.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/DateTime.h>
#include <zarip/osa/TimeSpan.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/LogToStdout.h"

namespace {

using zarip::core::StringUtil;
using zarip::interfaces::AnalyticsInterface;
using zarip::osa::DateTime;
using zarip::osa::TimeSpan;
using Point = AnalyticsInterface::AnalyticsAlert::Point;

constexpr std::size_t kTrackPoints = 5;

/// All of it happens on the pool's thread.
class Source {
public:
    /// @param count  how many alerts; 0 for no end. @param bus  *not owned*, must outlive the source.
    Source(zarip::msgbus::MsgBus& bus, TimeSpan pause, int count, const zarip::core::Logger& logger)
        : _analytics(&bus), _pause(pause), _count(count), _logger(logger) {
        QueueNext();
    }

private:
    void QueueNext() {
        _pool.GetTaskQueue()->QueueTask(_pause, zarip::core::MakeDelegate(this, &Source::Publish));
    }

    void Publish() {
        ++_published;
        try {
            _analytics.BroadcastAnalyticsAlert(MakeAlert());
        } catch (const std::exception& e) {
            _logger.Error("Alert %d is lost: %s", _published, e.what());
        }
        if (_published == _count) {
            ::kill(::getpid(), SIGTERM);  // what main waits for
        } else {
            QueueNext();
        }
    }

    AnalyticsInterface::AnalyticsAlert MakeAlert() const {
        AnalyticsInterface::AnalyticsAlert alert;
        alert.alertId = std::to_string(_published);
        alert.deviceId = "camera";
        alert.ruleId = "fence";
        alert.ruleName = "Front fence";
        alert.description = _published % 2 == 1 ? "A person has crossed the fence" : "A person has gone back";
        alert.severity = _published % 2 == 1 ? 3 : 1;
        alert.state = "ended";
        alert.objectClass = "person";
        alert.zone = {{0.4, 0}, {0.6, 0}, {0.6, 1}, {0.4, 1}};
        for (std::size_t i = 0; i < kTrackPoints; ++i) {
            const double way = static_cast<double>(i) / (kTrackPoints - 1);
            alert.track.push_back({_published % 2 == 1 ? way : 1 - way, 0.5});
        }
        const DateTime now = DateTime::Now();
        alert.startTime = (now - TimeSpan::FromSeconds(2)).ToString();
        alert.endTime = now.ToString();
        return alert;
    }

    AnalyticsInterface _analytics;
    const TimeSpan _pause;
    const int _count;
    const zarip::core::Logger& _logger;
    int _published = 0;
    zarip::core::ThreadPool _pool;  // last: its task needs the others
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: analytics-source MILLISECONDS [COUNT]\n"
                 "  MILLISECONDS  between two alerts, 1 to 3600000\n"
                 "  COUNT         how many alerts; without it there is no end\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    int pause = 0;
    int count = 0;
    if (argc < 2 || argc > 3 || !StringUtil::TryParse(argv[1], pause) || pause < 1 || pause > 3'600'000 ||
        (argc == 3 && (!StringUtil::TryParse(argv[2], count) || count < 1))) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        const zarip::core::Logger* const logger = LogToStdout("AnalyticsSource");
        zarip::msgbus::MsgBus bus;
        const zarip::interfaces::InterfaceServer name(&bus, "com.brelk.analytics");
        bus.StartServer();  // notices when the bus is lost
        Source source(bus, TimeSpan::FromMilliseconds(pause), count, *logger);
        return stop.Wait(bus) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "analytics-source: %s\n", e.what());
        return 1;
    }
}
