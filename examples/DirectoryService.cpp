// SPDX-License-Identifier: MIT

// The directory of the device's services: what is on the bus now.
//
//   directory-service CAMERA     the name of the camera
//
// GetAllServices and GetServicesByDeviceType answer with a JSON array of objects, such as
// {"name":"com.brelk.audio.lineout","deviceType":"audio"}. Types are "camera", "audio", "ptz", "network" and
// "system". There is a camera as long as a video service is on the bus.

#include <cajun/json/elements.h>
#include <cajun/json/writer.h>

#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/interfaces/IBrelkServicesProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/MsgBusMsg.h>
#include <zarip/msgbus/MsgBusMsgArgumentReader.h>
#include <zarip/msgbus/MsgBusObjectSelector.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>
#include <zarip/msgbus/StopSignal.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/LogToStdout.h"

namespace {

using zarip::core::StringUtil;
using zarip::interfaces::IBrelkServicesProvider;
using zarip::msgbus::MsgBusMsg;
using zarip::msgbus::MsgBusMsgArgumentReader;

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kVideoService = "com.brelk.video.streamInfo";

const char* DeviceType(const std::string& service) {
    struct Type {
        const char* prefix;
        const char* name;
    };
    for (const Type& type :
         {Type{"com.brelk.video.", "camera"}, Type{"com.brelk.audio.", "audio"},
          Type{"com.brelk.hardware.ptz", "ptz"}, Type{"com.brelk.networking", "network"}}) {
        if (StringUtil::StartsWith(service, type.prefix)) {
            return type.name;
        }
    }
    return "system";
}

/// Its members come on the thread of the bus that serves it, changes on that of the bus that watches.
class DirectoryService final : public IBrelkServicesProvider {
public:
    explicit DirectoryService(const char* camera) : _camera(camera) {}

    std::string GetAllServices() const override { return List(""); }
    std::string GetServicesByDeviceType(const std::string& type) const override {
        return type.empty() ? "[]" : List(type);
    }

    std::vector<std::string> GetCameraDeviceNames() const override {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _services.count(kVideoService) > 0 ? std::vector<std::string>{_camera}
                                                  : std::vector<std::string>();
    }

    /// Notes who has come or gone; fires `StateChange` when that is news.
    void Note(const std::string& service, bool isThere) {
        if (!StringUtil::StartsWith(service, "com.brelk.")) {
            return;
        }
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (isThere ? !_services.insert(service).second : _services.erase(service) == 0) {
                return;
            }
        }
        StateChange.FireEvent();
    }

private:
    /// @param type  "" for all.
    std::string List(const std::string& type) const {
        json::Array list;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            for (const std::string& service : _services) {
                if (type.empty() || type == DeviceType(service)) {
                    json::Object entry;
                    entry["name"] = json::String(service);
                    entry["deviceType"] = json::String(DeviceType(service));
                    list.Insert(entry);
                }
            }
        }
        std::ostringstream text;
        json::Writer::Write(list, text, false);
        return text.str();
    }

    const std::string _camera;
    mutable std::mutex _mutex;
    std::set<std::string> _services;
};

class OwnerHandler final : public zarip::msgbus::IMessageHandler {
public:
    explicit OwnerHandler(DirectoryService& service) : _service(service) {}

    void HandleMessage(const MsgBusMsg& message, zarip::msgbus::IMsgBus& /*bus*/) override {
        std::string name;
        std::string oldOwner;
        std::string newOwner;
        MsgBusMsgArgumentReader(message) >> name >> oldOwner >> newOwner;
        if (message.GetSender() == kBusName) {  // anybody can send a signal of that interface
            _service.Note(name, !newOwner.empty());
        }
    }
    Kind GetKind() const override { return kSignals; }

private:
    DirectoryService& _service;
};

std::vector<std::string> ListNames(zarip::msgbus::IMsgBus& bus) {
    const zarip::msgbus::MsgBusObjectSelector daemon(kBusName, "/org/freedesktop/DBus", kBusName);
    MsgBusMsg* reply = nullptr;
    bus.SendMsgWaitForReply(zarip::msgbus::MsgBusRemoteMethod(daemon, "ListNames"), reply, 5'000);
    const std::unique_ptr<MsgBusMsg> owned(reply);
    std::vector<std::string> names;
    MsgBusMsgArgumentReader(*reply) >> names;
    return names;
}

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: directory-service CAMERA\n"
                 "  CAMERA  the name of the camera\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    if (argc != 2 || argv[1][0] == '\0') {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        LogToStdout("Directory");
        DirectoryService service(argv[1]);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            IBrelkServicesProvider::CreateServer(&bus, &service));

        // A connection of its own watches the bus: whoever serves and asks on one makes his callers wait.
        // What changes after the handler is there is kept until StartServer, so nothing is missed in between.
        zarip::msgbus::MsgBus watchBus;
        zarip::msgbus::MessageHandlerCollection handlers(&watchBus);
        handlers.AddHandler(kBusName, "NameOwnerChanged", new OwnerHandler(service));
        for (const std::string& name : ListNames(watchBus)) {
            service.Note(name, true);
        }
        watchBus.StartServer();
        bus.StartServer();  // last: from here on calls are answered
        const bool isAsked = stop.Wait(bus);
        watchBus.StopServer();
        return isAsked ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "directory-service: %s\n", e.what());
        return 1;
    }
}
