// SPDX-License-Identifier: MIT

// The video service's counts: how many watch a stream, and how many are sure to be served.
//
//   stream-info-service SECONDS STREAM=GUARANTEED...
//
// Whoever serves viewers (here: web-gateway) reports how many it has with the signal "Viewers" of interface
// "com.brelk.example.viewers", which holds the stream and the number. What the reporters say is added up. A
// report holds until the same reporter sends the next one, and for SECONDS at the most: so nobody is counted
// for ever because his web server died, and a reporter repeats itself in less than that.

#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/interfaces/IStreamInfoProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>

#include "common/LogToStdout.h"

namespace {

using zarip::core::StringUtil;
using zarip::interfaces::IStreamInfoProvider;
using Clock = std::chrono::steady_clock;

constexpr int kMostViewers = 1'000;          // of one reporter
constexpr std::size_t kMostReports = 1'000;  // of one stream

/// Its members and the reports come on the same thread, that of the bus.
class StreamInfoService final : public IStreamInfoProvider {
public:
    explicit StreamInfoService(std::chrono::seconds patience) : _patience(patience) {}

    void AddStream(const std::string& name, int guaranteed) { _streams[name].guaranteed = guaranteed; }

    int GetCurrentVideoConnections(const std::string& stream) const override {
        int sum = 0;
        for (const auto& [reporter, report] : Find(stream).reports) {
            sum += report.end > Clock::now() ? report.viewers : 0;
        }
        return sum;
    }

    int GetGuaranteedVideoConnections(const std::string& stream) const override {
        return Find(stream).guaranteed;
    }

    void Report(const std::string& reporter, const std::string& name, int viewers) {
        const auto found = _streams.find(name);
        if (found == _streams.end() || viewers < 0 || viewers > kMostViewers) {
            throw zarip::osa::Exception("a report is wrong");
        }
        auto& reports = found->second.reports;
        for (auto report = reports.begin(); report != reports.end();) {
            report = report->second.end <= Clock::now() ? reports.erase(report) : std::next(report);
        }
        if (reports.size() < kMostReports) {
            reports[reporter] = {viewers, Clock::now() + _patience};
        }
    }

private:
    struct Viewers {
        int viewers;
        Clock::time_point end;
    };
    struct Stream {
        int guaranteed = 0;
        std::map<std::string, Viewers> reports;
    };

    const Stream& Find(const std::string& name) const {
        const auto found = _streams.find(name);
        if (found == _streams.end()) {
            throw zarip::osa::Exception("there is no such stream");
        }
        return found->second;
    }

    const std::chrono::seconds _patience;
    std::map<std::string, Stream> _streams;
};

class ReportHandler final : public zarip::msgbus::IMessageHandler {
public:
    explicit ReportHandler(StreamInfoService& service) : _service(service) {}

    void HandleMessage(const zarip::msgbus::MsgBusMsg& message, zarip::msgbus::IMsgBus& /*bus*/) override {
        std::string stream;
        int viewers = 0;
        zarip::msgbus::MsgBusMsgArgumentReader(message) >> stream >> viewers;
        _service.Report(message.GetSender(), stream, viewers);
    }
    Kind GetKind() const override { return kSignals; }

private:
    StreamInfoService& _service;
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: stream-info-service SECONDS STREAM=GUARANTEED...\n"
                 "  SECONDS            how long a report of viewers holds, 1 to 3600\n"
                 "  STREAM=GUARANTEED  a stream, and how many viewers it is sure to serve\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    int seconds = 0;
    if (argc < 3 || !StringUtil::TryParse(argv[1], seconds) || seconds < 1 || seconds > 3'600) {
        return Usage(stderr);
    }
    StreamInfoService service{std::chrono::seconds(seconds)};
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::size_t equals = argument.find('=');
        int guaranteed = 0;
        if (equals == std::string::npos || equals == 0 ||
            !StringUtil::TryParse(argument.substr(equals + 1), guaranteed) || guaranteed < 0) {
            return Usage(stderr);
        }
        service.AddStream(argument.substr(0, equals), guaranteed);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        LogToStdout("StreamInfo");
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            IStreamInfoProvider::CreateServer(&bus, &service));
        zarip::msgbus::MessageHandlerCollection handlers(&bus);
        handlers.AddHandler("com.brelk.example.viewers", "Viewers", new ReportHandler(service));
        bus.StartServer();  // last: from here on calls are answered
        return stop.Wait(bus) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "stream-info-service: %s\n", e.what());
        return 1;
    }
}
