// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/core/MemoryAppender.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Thread.h>

#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace zarip::core {
namespace {

using test::LogCapture;
using test::TempDir;
using Texts = std::vector<std::string>;

/// Hands each record, formatted, to a function.
class FunctionAppender : public ILogAppender {
public:
    using Function = std::function<void(Logger::LogLevel, const std::string& thread,
                                        const std::string& logger, const std::string& message)>;
    explicit FunctionAppender(Function function) : _function(std::move(function)) {}

    void AppendV(Logger::LogLevel level, const char* threadName, const char* loggerName, const char* format,
                 va_list args) const override ZARIP_PRINTF(5, 0) {
        char message[256];
        std::vsnprintf(message, sizeof message, format, args);
        _function(level, threadName, loggerName, message);
    }

private:
    Function _function;
};

void LogV(const Logger& logger, Logger::LogLevel level, const char* format, ...) ZARIP_PRINTF(3, 4);
void LogV(const Logger& logger, Logger::LogLevel level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logger.LogMessageV(level, format, args);
    va_end(args);
}

void LogAtEveryLevel(const Logger& logger) {
    logger.Error("error");
    logger.Warning("warning");
    logger.Information("information");
    logger.Debug("debug");
    logger.Trace("trace");
}

TEST(LoggerTest, LevelsHaveNames) {
    const char* const names[] = {"FATAL",  "ALERT", "CRIT",  "ERROR", "WARN",
                                 "NOTICE", "INFO",  "DEBUG", "TRACE"};
    int level = 0;
    for (const char* const name : names) {
        EXPECT_EQ(Logger::GetLevel(name), level);
        EXPECT_STREQ(Logger::GetLevelString(static_cast<Logger::LogLevel>(level)), name);
        ++level;
    }
    for (const int other : {9, 10, INT_MAX, -1, INT_MIN}) {
        EXPECT_STREQ(Logger::GetLevelString(static_cast<Logger::LogLevel>(other)), "UNKNOWN");
    }
    for (const char* const name : {"warn", "WARNING", "UNKNOWN", "", "4"}) {
        EXPECT_EQ(test::ErrorOf([&] { Logger::GetLevel(name); }), "Invalid log level");
    }
}

TEST(LoggerTest, LevelDecidesWhatComesOut) {
    const struct {
        int level;
        Texts expected;
    } rows[] = {
        {2, {}},
        {3, {"error"}},
        {4, {"error", "warning"}},
        {5, {"error", "warning"}},
        {6, {"error", "warning", "information"}},
        {7, {"error", "warning", "information", "debug"}},
        {8, {"error", "warning", "information", "debug", "trace"}},
        {10, {"error", "warning", "information", "debug", "trace"}},
    };
    for (const auto& row : rows) {
        const LogCapture capture(static_cast<Logger::LogLevel>(row.level));
        LogAtEveryLevel(*Logger::GetLogger("levels"));
        EXPECT_EQ(capture.Messages(), row.expected) << row.level;
    }
}

TEST(LoggerTest, LogMessageVIgnoresTheLevel) {
    const LogCapture capture(Logger::kFatal);
    LogV(*Logger::GetLogger("ignored"), Logger::kTrace, "%s %d", "value", 7);
    EXPECT_EQ(capture.Messages(), Texts{"value 7"});
}

TEST(LoggerTest, DefaultLevelIsTakenAtCreation) {
    const LogCapture capture;
    Logger::SetLevelDefault(Logger::kError, true);
    Logger* const before = Logger::GetLogger("before");
    Logger::SetLevelDefault(Logger::kDebug, false);
    Logger* const after = Logger::GetLogger("after");
    const std::unique_ptr<Logger> own(Logger::CreateLogger("own", nullptr));
    EXPECT_EQ(Logger::GetLogger("before"), before);
    EXPECT_NE(after, before);
    EXPECT_FALSE(before->IsEnabled(Logger::kWarning));
    EXPECT_TRUE(after->IsEnabled(Logger::kDebug));
    EXPECT_FALSE(after->IsEnabled(Logger::kTrace));
    EXPECT_TRUE(own->IsEnabled(Logger::kDebug));
    own->Error("a logger without an appender is silent");

    Logger::SetLevelDefault(Logger::kWarning, true);
    EXPECT_TRUE(before->IsEnabled(Logger::kWarning));
    EXPECT_FALSE(after->IsEnabled(Logger::kNotice));
    EXPECT_TRUE(own->IsEnabled(Logger::kDebug));  // not registered
}

TEST(LoggerTest, RecordCarriesThreadLoggerAndLevel) {
    struct Record {
        int level;
        std::string thread, logger, message;
    };
    std::vector<Record> records;
    FunctionAppender appender([&](int level, const auto& thread, const auto& logger, const auto& message) {
        records.push_back({level, thread, logger, message});
        throw std::runtime_error("dropped");
    });
    const std::unique_ptr<Logger> logger(Logger::CreateLogger("", &appender));

    class Body : public osa::Runnable {
    public:
        explicit Body(const Logger& log) : _log(log) {}
        void Run() override { _log.Error("named"); }
        void Stop() override {}

    private:
        const Logger& _log;
    } body(*logger);
    osa::Thread named("camera-thread-name", &body, 0, 0);
    named.Run();
    named.Join();
    std::thread([&] { logger->Error("foreign"); }).join();
    errno = ENOTDIR;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // ISO C++ does not know it
    logger->Error("main: %m");
#pragma GCC diagnostic pop
    EXPECT_EQ(errno, ENOTDIR);

    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].thread, "camera-thread-name");
    EXPECT_EQ(records[1].thread, "!!UNKNOWN!!");
    EXPECT_EQ(records[2].thread, "ZARIP");
    EXPECT_EQ(records[2].logger, "");
    EXPECT_EQ(records[2].level, Logger::kError);
    EXPECT_EQ(records[2].message, "main: Not a directory");
}

// The thread reads the name while its object goes; an appender that destroys it makes the moment certain.
TEST(LoggerTest, ARecordOutlivesTheThreadObject) {
    class Destroyer : public ILogAppender {
    public:
        void AppendV(Logger::LogLevel, const char* threadName, const char*, const char*,
                     va_list) const override {
            thread.reset();
            names.emplace_back(threadName);
        }
        mutable std::unique_ptr<osa::Thread> thread;
        mutable Texts names;
    } appender;
    const std::unique_ptr<Logger> logger(Logger::CreateLogger("", &appender));
    class Body : public osa::Runnable {
    public:
        explicit Body(const Logger& log) : _log(log) {}
        void Run() override {
            _log.Error("%s", "first");
            _log.Error("%s", "second");
            ended.set_value();
        }
        void Stop() override {}
        std::promise<void> ended;

    private:
        const Logger& _log;
    } body(*logger);
    appender.thread = std::make_unique<osa::Thread>("a name too long to be kept in place", &body, 0, 0);
    appender.thread->Run();
    body.ended.get_future().wait();
    EXPECT_EQ(appender.names, (Texts{"a name too long to be kept in place", "!!UNKNOWN!!"}));
}

TEST(LoggerTest, EveryAppenderGetsTheSameArguments) {
    const LogCapture first;
    const LogCapture second;
    const FunctionAppender failing([](auto...) { throw std::runtime_error("failing"); });
    Logger::AddAppender(&failing, false);
    const LogCapture third;
    Logger::GetLogger("arguments")->Error("%s %d %s %.1f", "one", 2, std::string(300, 'x').c_str(), 4.5);
    EXPECT_TRUE(Logger::RemoveAppender(&failing));
    EXPECT_FALSE(Logger::RemoveAppender(&failing));

    const Texts expected{"one 2 " + std::string(300, 'x') + " 4.5"};
    EXPECT_EQ(first.Messages(), expected);
    EXPECT_EQ(second.Messages(), expected);
    EXPECT_EQ(third.Messages(), expected);
}

TEST(LoggerTest, AppenderThatLogsDoesNotGetItsOwnRecord) {
    const LogCapture capture;
    int calls = 0;
    const FunctionAppender appender([&](auto, auto, auto, const std::string& message) {
        ++calls;
        Logger::GetLogger("inner")->Error("about %s", message.c_str());
    });
    const FunctionAppender other([&](auto, auto, auto, const std::string& message) {
        Logger::GetLogger("other")->Error("other about %s", message.c_str());
    });
    Logger::AddAppender(&appender, false);
    Logger::AddAppender(&other, false);
    Logger::GetLogger("outer")->Error("x");
    Logger::RemoveAppender(&other);
    Logger::RemoveAppender(&appender);
    EXPECT_EQ(calls, 2);  // for x and for what the other one said about it
    EXPECT_EQ(capture.Messages(),
              (Texts{"x", "about x", "other about about x", "other about x", "about other about x"}));

    Logger* self = nullptr;
    FunctionAppender direct([&](auto...) {
        ++calls;
        self->Error("again");
    });
    const std::unique_ptr<Logger> logger(Logger::CreateLogger("self", &direct));
    self = logger.get();
    self->Error("once");
    EXPECT_EQ(calls, 3);
}

TEST(LoggerTest, AppenderMayChangeTheListWhileItIsCalled) {
    const LogCapture capture;
    auto alive = std::make_shared<int>(0);
    MemoryAppender late;
    Logger::AddAppender(new FunctionAppender([&late, alive](auto...) {
                            Logger::ClearAppenders();
                            Logger::AddAppender(&late, false);
                            EXPECT_EQ(alive.use_count(), 2);  // this function object has not gone
                        }),
                        true);
    MemoryAppender behind;
    Logger::AddAppender(&behind, false);
    Logger::GetLogger("change")->Error("first");
    EXPECT_EQ(alive.use_count(), 1);
    EXPECT_EQ(behind.GetMessageCount(), 0);
    Logger::GetLogger("change")->Error("second");
    EXPECT_EQ(capture.Messages(), Texts{"first"});
    ASSERT_EQ(late.GetMessageCount(), 1);
    EXPECT_EQ(late.GetMessage(0), "second");
    Logger::ClearAppenders();
}

// An appender looks up loggers under the list's lock while others change the list and the registry.
TEST(LoggerTest, LocksOfListAndRegistryDoNotCross) {
    const LogCapture capture;
    std::atomic<int> handled{0};
    const FunctionAppender appender(
        [&](auto...) { Logger::GetLogger("appender" + std::to_string(++handled % 50)); });
    Logger::AddAppender(&appender, false);
    test::InThreads(3, [&](int i) {
        MemoryAppender memory;
        for (int n = 0; n < 200; ++n) {
            Logger::AddAppender(&memory, false);
            Logger::GetLogger("thread" + std::to_string(i) + std::to_string(n % 7))->Error("%d", n);
            Logger::SetLevelDefault(n % 2 == 0 ? Logger::kError : Logger::kTrace, true);
            Logger::RemoveAppender(&memory);
        }
    });
    Logger::RemoveAppender(&appender);
    EXPECT_EQ(handled, 600);
}

TEST(LoggerTest, ShutdownLeavesOldLoggersValidAndSilent) {
    Logger* const old = Logger::GetLogger("held");
    auto alive = std::make_shared<int>(0);
    Logger::AddAppender(new FunctionAppender([alive](auto...) {}), true);
    std::atomic<bool> stop{false};
    std::thread thread([&] {
        while (!stop) {
            old->Error("%s", "still here");
        }
    });
    Logger::SetLevelDefault(Logger::kTrace, true);
    Logger::Shutdown();
    EXPECT_EQ(alive.use_count(), 1);
    stop = true;
    thread.join();

    const MemoryAppender memory;
    Logger::AddAppender(&memory, false);
    Logger* const fresh = Logger::GetLogger("held");
    EXPECT_NE(fresh, old);
    EXPECT_TRUE(fresh->IsEnabled(Logger::kError));
    EXPECT_FALSE(fresh->IsEnabled(Logger::kWarning));
    old->Error("silent");
    fresh->Error("loud");
    Logger::Shutdown();
    fresh->Error("silent, too");
    ASSERT_EQ(memory.GetMessageCount(), 1);
    EXPECT_EQ(memory.GetMessage(0), "loud");
}

void ExpectSuccess(pid_t child) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

// Without care a child hangs for ever when another thread was logging at the moment of the fork.
TEST(LoggerTest, ForkedChildCanLog) {
    Logger* const logger = Logger::GetLogger("fork");
    std::atomic<bool> stop{false};
    test::Threads threads(2, [&](int) {
        while (!stop) {
            logger->Error("parent");
            Logger::GetLogger("other");
        }
    });
    int childRecords = 0;
    const FunctionAppender forking([&](auto, auto, auto, const std::string& message) {
        childRecords += message == "child" ? 1 : 0;
        if (message == "from an appender") {
            const pid_t child = ::fork();
            if (child == 0) {
                return;  // the child continues after the call that has logged
            }
            ExpectSuccess(child);
        }
    });
    Logger::AddAppender(&forking, false);
    const pid_t self = ::getpid();
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        const bool within = i % 2 == 0;
        const pid_t child = within ? 0 : ::fork();
        if (within) {
            logger->Error("from an appender");
        }
        if (::getpid() != self) {
            ::alarm(20);
            logger->Error("child");
            Logger::GetLogger("child")->Error("child");
            ::_exit(childRecords == 2 ? 0 : 1);
        }
        if (child > 0) {
            ExpectSuccess(child);
        }
    }
    stop = true;
    threads.Join();
    Logger::RemoveAppender(&forking);
}

TEST(LoggerTest, ConfigurationAddsChannelsAndSetsTheLevel) {
    const TempDir folder;
    const LogCapture capture(Logger::kError);
    Logger* const existing = Logger::GetLogger("existing");
    IniFile ini;
    ini.SetValue("log", "log.file", folder.File("service.log"));
    ini.SetValue("log", "log.stdout", "True");  // not exactly "true"
    ini.SetValue("log", "log.level", " 6 ");
    testing::internal::CaptureStdout();
    Logger::ConfigureLogging(ini, "log");
    existing->Information("written");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const std::string line = "(ZARIP)             existing [ INFO] :: written\n";
    EXPECT_EQ(folder.Read("service.log"), line);

    // Twice adds the channels twice. Without a level only loggers made later change.
    ini["log"].erase("log.level");
    ini.SetValue("log", "log.stdout", "true");
    testing::internal::CaptureStdout();
    Logger::ConfigureLogging(ini, "log");
    existing->Information("written");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    EXPECT_EQ(folder.Read("service.log"), line + line + line);
    Logger* const later = Logger::GetLogger("later");
    EXPECT_TRUE(later->IsEnabled(Logger::kWarning));
    EXPECT_FALSE(later->IsEnabled(Logger::kNotice));

    ini.SetValue("log", "log.level", "debug");
    EXPECT_EQ(test::ErrorOf([&] { Logger::ConfigureLogging(ini, "log"); }),
              "value log.level must be a valid integer");
    ini.SetValue("log", "log.file", folder.File("missing/service.log"));
    EXPECT_EQ(test::ErrorOf([&] { Logger::ConfigureLogging(ini, "log"); }),
              "Failed to open file " + folder.File("missing/service.log") + "for modea");
    Logger::ConfigureLogging(IniFile(), "no such group");
    EXPECT_TRUE(existing->IsEnabled(Logger::kInformation));
    Logger::ClearAppenders();
}

TEST(LoggerTest, DebugLoggingIsEverythingOnStandardOutput) {
    const LogCapture replaced(Logger::kError);
    Logger* const logger = Logger::GetLogger("debugged");
    testing::internal::CaptureStdout();
    Logger::EnableDebugLogging();
    logger->Trace("%d of %d", 1, 2);
    Logger::Shutdown();
    logger->Error("after");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "(ZARIP)             debugged [TRACE] :: 1 of 2\n");
    EXPECT_TRUE(replaced.Messages().empty());
}

}  // namespace
}  // namespace zarip::core
