// Fails one allocation after the other, of the library and of what it uses, in each kind of work.

#include <sys/wait.h>

#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "FailingMemory.h"
#include "Harness.h"
#include "Parts.h"
#include "support/TempDir.h"
#include "zarip/core/Delegate.h"
#include "zarip/core/FileAppender.h"
#include "zarip/core/IniFile.h"
#include "zarip/core/JsonUtils.h"
#include "zarip/core/Logger.h"
#include "zarip/core/TaskManager.h"
#include "zarip/core/ThreadPool.h"
#include "zarip/crypto/DigestUtils.h"
#include "zarip/crypto/GCryptInit.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/Timer.h"
#include "zarip/osa/UdpServer.h"
#include "zarip/xml/XmlDocument.h"
#include "zarip/xml/XmlElement.h"

namespace zarip::reliability {
namespace {

using Threads = FailingMemory::Threads;

/// One kind of work: true if its result is right, an exception if it reports the failure.
struct Work {
    const char* name;
    Threads threads;
    std::function<bool()> run;
    bool mayBeLost = false;  // what others do for it reports nothing: a signal, a datagram, a task
};

enum class Result { kRight, kReported, kWrong };

Result Try(const Work& work) {
    try {
        return work.run() ? Result::kRight : Result::kWrong;
    } catch (const std::exception&) {
    } catch (...) {
    }
    return Result::kReported;
}

/// The environment variable ZARIP_WORK chooses one kind.
bool IsChosen(const Work& work) {
    const char* const chosen = std::getenv("ZARIP_WORK");
    return chosen == nullptr || std::string(chosen) == work.name;
}

/// Fails the n-th allocation; false if there are not so many.
bool Fail(Run& run, const Work& work, long n) {
    FailingMemory::FailAt(n, work.threads);
    const Result result = Try(work);
    const bool hasFailed = FailingMemory::End();
    run.Expect(result != Result::kWrong || work.mayBeLost, "%s: wrong result at allocation %ld", work.name, n);
    run.Expect(Try(work) == Result::kRight, "%s: does not work after allocation %ld failed", work.name, n);
    return hasFailed;
}

/// Fails each allocation of the very first run, each in a process of its own.
void FailEachFirst(Run& run, const Work& work) {
    for (long n = 1; n <= 5000; ++n) {
        std::fflush(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            FailingMemory::FailAt(n, work.threads);
            const Result result = Try(work);
            const bool hasFailed = FailingMemory::End();
            if (result == Result::kWrong && !work.mayBeLost) {
                ::_exit(1);
            }
            ::_exit(Try(work) != Result::kRight ? 2 : hasFailed ? 0 : 3);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 3) {
            return;
        }
        run.Expect(status == 0, "%s, first run: status %#x at allocation %ld", work.name,
                   static_cast<unsigned int>(status), n);
    }
}

/// Fails each allocation many times: what leaks does so each time, while the caches of libdbus and libxml2 grow
/// by a few blocks. How many allocations there are.
long FailEach(Run& run, const Work& work) {
    constexpr int kRounds = 20;
    run.Expect(Try(work) == Result::kRight, "%s: does not work at all", work.name);
    const auto start = std::chrono::steady_clock::now();
    long count = 0;
    while (count < 5000 && Fail(run, work, count + 1)) {
        ++count;
    }
    // What takes long has waited for something that was lost.
    const int rounds = MillisecondsSince(start) < (run.IsLong() ? 5000 : 100) ? kRounds : 1;
    for (long n = 1; n <= count && rounds > 1; ++n) {
        const long before = FailingMemory::GetBlocks();
        for (int round = 0; round < rounds; ++round) {
            Fail(run, work, n);
        }
        const auto hasLeft = [&] { return FailingMemory::GetBlocks() - before >= kRounds; };
        run.Expect(test::WaitUntil([&] { return !hasLeft(); }, std::chrono::milliseconds(200)),
                   "%s: %ld blocks are left after %d failures of allocation %ld", work.name,
                   FailingMemory::GetBlocks() - before, kRounds, n);
    }
    if (std::getenv("ZARIP_TRACE") != nullptr) {
        std::fprintf(stderr, "%s: %ld allocations, %lld ms\n", work.name, count, MillisecondsSince(start));
    }
    return count;
}

// ------------------------------------------------------------------------------------------------------------

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

std::vector<Work> LocalWork(const test::TempDir& folder) {
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
    };
}

bool CallEcho(msgbus::MsgBus& client, int timeoutMs) {
    return test::Ask(client, kEcho, "Echo", "a text", timeoutMs) == "a text";
}

bool MakeConnection() {
    Subscriber subscriber;
    SendSignal(subscriber.bus);
    return subscriber.WaitFor(1, std::chrono::milliseconds(300));
}

bool ServePath() {
    WebServer web;
    return Get(web.server.GetLocalPort()) == 200;
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

ROW(Allocation,
    "Each single allocation fails once, in calls, served calls, signals, web requests, INI files, log "
    "records, tasks, timers, "
    "datagrams, digests, XML, JSON, process starts and in making connections and servers: an exception or an "
    "error answer, no "
    "block leaked, the next operation right",
    60) {
    if (!FailingMemory::IsSupported()) {
        run.Figure("not measured with sanitizers");
        return;
    }
    const test::TempDir folder;
    crypto::GCryptInit::InitializeGcrypt();  // libgcrypt ends the process if its own start fails
    long total = 0;
    for (const Work& work : LocalWork(folder)) {
        if (IsChosen(work)) {
            FailEachFirst(run, work);
            total += FailEach(run, work);
        }
    }
    test::PrivateBus::Get();
    const EchoService service;
    const Subscriber subscriber;
    msgbus::MsgBus client;
    WebServer web;
    core::ThreadPool pool;
    DatagramCounter counter;
    osa::UdpServer datagrams("127.0.0.1", 0, 2048, 0);
    datagrams.Start(&counter);
    const osa::UdpSocket sender("127.0.0.1", 0, 0);
    const auto sendSignal = [&] {
        const int before = subscriber.received;
        SendSignal(client);
        return subscriber.WaitFor(before + 1, std::chrono::milliseconds(300));
    };
    const auto get = [&] {
        const int status = Get(web.server.GetLocalPort());
        if (status == 0 || status >= 400) {
            throw std::bad_alloc();  // reported to the client
        }
        return status == 200;
    };
    const Work works[] = {
        {"call", Threads::kCalling, [&] { return CallEcho(client, 1000); }},
        {"served call", Threads::kOthers, [&] { return CallEcho(client, 1000); }},
        {"signal", Threads::kCalling, sendSignal},
        {"received signal", Threads::kOthers, sendSignal, true},
        {"connection", Threads::kCalling, MakeConnection},
        {"connection's threads", Threads::kOthers, MakeConnection, true},
        {"web request", Threads::kOthers, get},
        {"web server", Threads::kCalling, ServePath},
        {"pooled task", Threads::kCalling, [&] { return RunInPool(pool); }},
        {"pool's threads", Threads::kOthers, [&] { return RunInPool(pool); }, true},
        {"expiring timer", Threads::kOthers, ExpireTimer, true},
        {"datagram", Threads::kCalling, [&] { return SendDatagram(sender, datagrams, counter); }},
        {"received datagram", Threads::kOthers, [&] { return SendDatagram(sender, datagrams, counter); },
         true},
    };
    for (const Work& work : works) {
        total += IsChosen(work) ? FailEach(run, work) : 0;
    }
    run.Figure("%ld allocations in %zu kinds of work", total, std::size(works) + LocalWork(folder).size());
}

}  // namespace zarip::reliability
