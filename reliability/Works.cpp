// SPDX-License-Identifier: MIT

#include "Works.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "zarip/core/Delegate.h"
#include "zarip/core/Event.h"
#include "zarip/core/FileAppender.h"
#include "zarip/core/IniFile.h"
#include "zarip/core/JsonUtils.h"
#include "zarip/core/Logger.h"
#include "zarip/core/TaskManager.h"
#include "zarip/crypto/DigestUtils.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/InterfaceServer.h"
#include "zarip/msgbus/MsgBusMsgArgumentDumper.h"
#include "zarip/msgbus/MsgBusMsgArgumentReader.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/Runnable.h"
#include "zarip/osa/Thread.h"
#include "zarip/osa/Timer.h"
#include "zarip/xml/XmlDocument.h"
#include "zarip/xml/XmlElement.h"

namespace zarip::reliability {
namespace {

using Threads = FailingMemory::Threads;

class TimerCount final : public osa::ITimerCallback {
public:
    void OnTimer(const osa::TimeStruct&, void*) override { ++count; }
    std::atomic<int> count{0};
};

bool ExpireTimer() {
    TimerCount expired;
    osa::Timer timer(&expired);
    timer.Start(osa::TimeStruct(0, 1000), nullptr);
    return test::WaitUntil([&] { return expired.count == 1; }, std::chrono::seconds(1));
}

bool RunTask() {
    core::TaskManager manager;
    int done = 0;
    manager.QueueTask(core::MakeDelegate([&] { ++done; }));
    manager.ExecuteQueuedTasks();
    return done == 1;
}

bool ParseXml() {
    const auto document = xml::XmlDocument::Parse(
        "<?xml version=\"1.0\"?><a b=\"1\"><c>text &amp; more</c><d xmlns=\"u:r\"/></a>");
    return document.ToString().find("<c>text &amp; more</c>") != std::string::npos;
}

bool StartProcess() {
    const auto result = osa::Process::Run("/bin/echo", {"word"});
    return result.status == 0 && result.output == "word\n";
}

bool ParseJson() {
    return core::JsonUtils::ToString(core::JsonUtils::ParseObject("{\"a\":[1,2,{\"b\":\"text\"}]}")) ==
           "{\"a\":[1,2,{\"b\":\"text\"}]}";
}

const std::string kIni = "[group]\nkey=value\nother=a long value, longer than a short string may be\n";

bool LoadIni() {
    core::IniFile ini;
    ini.LoadFromString(kIni);
    return ini.GetValue("group", "key") == "value";
}

bool SaveIni(const test::TempDir& folder) {
    core::IniFile ini;
    ini.SetValue("group", "key", "a value that is longer than a short string may be");
    ini.Save(folder.File("settings").c_str());
    return core::IniFile(folder.File("settings").c_str()).GetValue("group", "key").size() == 49;
}

bool Log(const test::TempDir& folder) {
    core::FileAppender appender(folder.File("log").c_str());
    core::Logger::AddAppender(&appender, false);
    struct Removal {
        core::FileAppender& appender;
        ~Removal() { core::Logger::RemoveAppender(&appender); }
    } const removal{appender};
    core::Logger::GetLogger("A")->Error("a record of %d words: %s", 5, std::string(3000, 'x').c_str());
    return true;
}

bool ParseHttp() {
    std::istringstream in(
        "POST /path?a=b HTTP/1.1\r\nContent-Length: 4\r\nX-Long: a value that is longer than "
        "that\r\n\r\nbody");
    inet::HttpRequest request;
    in >> request;
    return request.GetPath() == "/path" && request.GetBodyLength() == 4 &&
           request.GetHeader("x-long") != nullptr;
}

bool BuildMessage() {
    msgbus::MsgBusSignal signal(kPath, kInterface, "Any");
    const std::vector<std::string> texts(20, "a text that is longer than a short one");
    signal << 5 << texts << std::vector<double>(100, 1.5);
    msgbus::MsgBusMsgArgumentReader reader(signal);
    int number = 0;
    std::vector<std::string> read;
    reader >> number >> read;
    return read == texts && msgbus::MsgBusMsgArgumentDumper(signal).AsJson(true).size() > 1000;
}

bool ConfigureLog(const test::TempDir& folder) {
    core::IniFile ini;
    ini.SetValue("log", "log.file", folder.File("configured"));
    ini.SetValue("log", "log.level", "3");
    struct Clearing {
        ~Clearing() { core::Logger::ClearAppenders(); }
    } const clearing;
    core::Logger::ConfigureLogging(ini, "log");
    core::Logger::GetLogger("a logger with a name that is long")->Error("a record");
    return true;
}

bool FireEvent() {
    core::Event1<int> event;
    int sum = 0;
    for (int i = 0; i < 3; ++i) {
        event.AddDelegate(core::MakeDelegate([&sum](int value) { sum += value; }));
    }
    event.FireEvent(2);
    return sum == 6;
}

bool RunThread() {
    struct Body final : osa::Runnable {
        void Run() override { ++count; }
        void Stop() override {}
        std::atomic<int> count{0};
    } body;
    osa::Thread thread("a thread with a long name", &body, 0, 0);
    thread.Run();
    thread.Join();
    return body.count == 1;
}

}  // namespace

Result Try(const Work& work) {
    try {
        return work.run() ? Result::kRight : Result::kWrong;
    } catch (const std::exception&) {
    } catch (...) {
    }
    return Result::kReported;
}

std::vector<Work> LocalWorks(const test::TempDir& folder) {
    return {
        {"INI load", Threads::kCalling, LoadIni},
        {"INI save", Threads::kCalling, [&] { return SaveIni(folder); }},
        {"log record", Threads::kCalling, [&] { return Log(folder); }},
        {"task", Threads::kCalling, RunTask},
        {"timer", Threads::kCalling, ExpireTimer},
        {"digest", Threads::kCalling,
         [] { return crypto::DigestUtils::GenerateMd5("abc") == "900150983cd24fb0d6963f7d28e17f72"; }},
        {"XML document", Threads::kCalling, ParseXml},
        {"JSON document", Threads::kCalling, ParseJson},
        {"process", Threads::kCalling, StartProcess},
        {"web message", Threads::kCalling, ParseHttp},
        {"bus message", Threads::kCalling, BuildMessage},
        {"configured log", Threads::kCalling, [&] { return ConfigureLog(folder); }},
        {"event", Threads::kCalling, FireEvent},
        {"thread", Threads::kCalling, RunThread},
    };
}

namespace {

bool CallEcho(msgbus::MsgBus& client, int timeoutMs) {
    return test::Ask(client, kEcho, "Echo", "a text", timeoutMs) == "a text";
}

bool MakeConnection() {
    Subscriber subscriber;
    SendSignal(subscriber.bus);
    return subscriber.WaitFor(1, std::chrono::milliseconds(300));
}

/// Throws what the client is told: an error, the end of the connection, or that it has no descriptor itself.
bool GetPath(const WebServer& web) {
    const int status = Get(web.server.GetLocalPort());
    if (status == 0 || status >= 400 || (status < 0 && errno == EMFILE)) {
        throw std::runtime_error("the request has failed");
    }
    return status == 200;
}

bool ServePath() {
    WebServer web;
    return GetPath(web);
}

bool RunInPool(core::ThreadPool& pool) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    pool.GetTaskQueue()->QueueTask(core::MakeDelegate([done] { *done = true; }));
    return test::WaitUntil([&] { return done->load(); }, std::chrono::seconds(1));
}

bool SendDatagram(const osa::UdpSocket& sender, const osa::UdpServer& server, DatagramCounter& counter) {
    const int before = counter.received;
    sender.SendTo(reinterpret_cast<const unsigned char*>("x"), 1, "127.0.0.1", server.GetLocalPort());
    return test::WaitUntil([&] { return counter.received > before; }, std::chrono::milliseconds(300));
}

}  // namespace

Services::Services() {
    _datagrams.Start(&_counter);
}

std::vector<Work> Services::GetWorks() {
    const auto sendSignal = [this] {
        const int before = _subscriber.received;
        SendSignal(_client);
        return _subscriber.WaitFor(before + 1, std::chrono::milliseconds(300));
    };
    const auto get = [this] { return GetPath(_web); };
    const auto call = [this] { return CallEcho(_client, 1000); };
    const auto runInPool = [this] { return RunInPool(_pool); };
    const auto sendDatagram = [this] { return SendDatagram(_sender, _datagrams, _counter); };
    const auto makeProxy = [this] {
        interfaces::ISecurityProvider implementation;
        const std::unique_ptr<interfaces::InterfaceServer> server(
            interfaces::ISecurityProvider::CreateServer(&_client, &implementation));
        const std::unique_ptr<interfaces::ISecurityProvider> proxy(
            interfaces::ISecurityProvider::CreateClient(&_client));
        return true;
    };
    return {
        {"proxy and server", Threads::kCalling, makeProxy, true},
        {"call", Threads::kCalling, call},
        {"served call", Threads::kOthers, call},
        {"signal", Threads::kCalling, sendSignal},
        {"received signal", Threads::kOthers, sendSignal, false, true},
        {"connection", Threads::kCalling, MakeConnection},
        {"connection's threads", Threads::kOthers, MakeConnection, false, true},
        {"web request", Threads::kOthers, get},
        {"web server", Threads::kCalling, ServePath},
        {"pooled task", Threads::kCalling, runInPool},
        {"pool's threads", Threads::kOthers, runInPool, false, true},
        {"expiring timer", Threads::kOthers, ExpireTimer, false, true},
        {"datagram", Threads::kCalling, sendDatagram},
        {"received datagram", Threads::kOthers, sendDatagram, false, true},
    };
}

}  // namespace zarip::reliability
