// SPDX-License-Identifier: MIT

#include "com.brelk.audio.lineout.h"
#include "interfaces/CountedList.h"
#include "zarip/interfaces/IAudioLineOutProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

using std::string;
using ConnectResult = IAudioLineOutProvider::ConnectResult;
using QueryResult = IAudioLineOutProvider::QueryResult;

// Argument-dependent lookup finds these operators only if they are not in the unnamed namespace.

static msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const ConnectResult& result) {
    return message << result.status << result.connection;
}

static msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader,
                                                   ConnectResult& result) {
    return reader >> result.status >> result.connection;
}

static msgbus::MsgBusMsg& operator<<(msgbus::MsgBusMsg& message, const std::vector<QueryResult>& results) {
    return AppendList(message, results, [&message](const QueryResult& result) {
        message << result.client << result.connection;
    });
}

static msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader,
                                                   std::vector<QueryResult>& results) {
    return ReadList(reader, results,
                    [&reader](QueryResult& result) { reader >> result.client >> result.connection; });
}

namespace {

constexpr const ServiceDescription& kService = descriptions::com_brelk_audio_lineout;

using ConnectParams = Record<string, int, int>;

class MsgBusAudioLineOutProvider final : public IAudioLineOutProvider {
public:
    explicit MsgBusAudioLineOutProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {}

    ConnectResult Connect(const string& client, int first, int second) override {
        return _remote.Call<ConnectResult>("Connect", client, first, second);
    }
    string Disconnect(int connection) override { return _remote.Call<string>("Disconnect", connection); }
    string KeepAlive(int connection) override { return _remote.Call<string>("KeepAlive", connection); }
    std::vector<QueryResult> Query() override { return _remote.Call<std::vector<QueryResult>>("Query"); }

private:
    int _timeout = kDefaultTimeout;
    RemoteService _remote;
};

class AudioLineOutServer final : public ServiceServer<IAudioLineOutProvider> {
public:
    AudioLineOutServer(msgbus::IMsgBus* bus, IAudioLineOutProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = IAudioLineOutProvider;
        Serve<ConnectParams>("Connect", &I::Connect);
        Serve("Disconnect", &I::Disconnect);
        Serve("KeepAlive", &I::KeepAlive);
        Serve("Query", &I::Query);
    }
};

}  // namespace

IAudioLineOutProvider::IAudioLineOutProvider() = default;
IAudioLineOutProvider::~IAudioLineOutProvider() = default;

IAudioLineOutProvider* IAudioLineOutProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusAudioLineOutProvider(bus);
}

InterfaceServer* IAudioLineOutProvider::CreateServer(msgbus::IMsgBus* bus,
                                                     IAudioLineOutProvider* implementation) {
    return new AudioLineOutServer(bus, implementation);
}

ConnectResult IAudioLineOutProvider::Connect(const string&, int, int) {
    Unimplemented();
}
string IAudioLineOutProvider::Disconnect(int) {
    Unimplemented();
}
string IAudioLineOutProvider::KeepAlive(int) {
    Unimplemented();
}
std::vector<QueryResult> IAudioLineOutProvider::Query() {
    Unimplemented();
}

}  // namespace zarip::interfaces
