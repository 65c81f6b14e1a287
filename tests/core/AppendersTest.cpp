// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdarg>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <zarip/core/CompositeAppender.h>
#include <zarip/core/FileAppender.h>
#include <zarip/core/IniFile.h>
#include <zarip/core/MemoryAppender.h>
#include <zarip/core/NullAppender.h>
#include <zarip/core/StderrAppender.h>
#include <zarip/core/StringUtil.h>
#include <zarip/core/SyslogAppender.h>
#include <zarip/osa/Exception.h>

#include "support/ErrorOf.h"
#include "support/InThreads.h"
#include "support/TempDir.h"

namespace {

/// The calls of the system logger. These functions replace those of the C library.
struct SystemLog {
    const char* ident = nullptr;  // the pointer that was given, as the C library keeps it
    int option = -1;
    int facility = -1;
    std::string record;
    int priority = -1;
};
SystemLog s_systemLog;

void Record(int priority, const char* format, va_list args) ZARIP_PRINTF(2, 0);
void Record(int priority, const char* format, va_list args) {
    char buffer[4096];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    s_systemLog.priority = priority;
    s_systemLog.record = buffer;
}

}  // namespace

extern "C" {

void openlog(const char* ident, int option, int facility) {
    s_systemLog = {ident, option, facility, {}, -1};
}

void closelog() {
    s_systemLog.ident = nullptr;
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) ZARIP_PRINTF(3, 4);
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}
}

namespace zarip::core {
namespace {

using test::ErrorOf;

using test::TempDir;

void Append(const ILogAppender& appender, int level, const char* thread, const char* logger,
            const char* format, ...) ZARIP_PRINTF(5, 6);
void Append(const ILogAppender& appender, int level, const char* thread, const char* logger,
            const char* format, ...) {
    va_list args;
    va_start(args, format);
    appender.AppendV(static_cast<Logger::LogLevel>(level), thread, logger, format, args);
    va_end(args);
}

TEST(FileAppenderTest, RecordsAreWholeLines) {
    const TempDir folder;
    const FileAppender appender(folder.Write("log", "kept\n").c_str());
    Append(appender, 3, "main", "net", "%d items in %s", 3, "queue");
    EXPECT_EQ(folder.Read("log"), "kept\n( main)                  net [ERROR] :: 3 items in queue\n");
    Append(appender, 9, "MsgBusListenThread", "a.logger.with.a.very.long.name", "100 %%");
    Append(appender, 2, "", "", "%s", "");
    Append(appender, 4, "12345", "12345678901234567890", "two\nlines");
    Append(appender, 4, "t", "l", "<%lc>",
           static_cast<wint_t>(0x20AC));  // not in the C locale's character set
    EXPECT_EQ(folder.Read("log"),
              "kept\n"
              "( main)                  net [ERROR] :: 3 items in queue\n"
              "(MsgBusListenThread) a.logger.with.a.very.long.name [UNKNOWN] :: 100 %\n"
              "(     )                      [ CRIT] :: \n"
              "(12345) 12345678901234567890 [ WARN] :: two\nlines\n"
              "(    t)                    l [ WARN] :: \n");
}

TEST(FileAppenderTest, LongRecordsAreNotCut) {
    const TempDir folder;
    const FileAppender appender(folder.File("log").c_str());
    std::string expected;
    for (const std::size_t length : {982U, 983U, 984U, 985U, 4095U, 4096U, 100'000U}) {
        const std::string text(length, static_cast<char>('a' + length % 26));
        Append(appender, 7, "t", "l", "%s", text.c_str());
        expected += "(    t)                    l [DEBUG] :: " + text + "\n";
    }
    const std::string name(2000, 'n');
    Append(appender, 7, "t", name.c_str(), "%s", "short");
    expected += "(    t) " + name + " [DEBUG] :: short\n";
    EXPECT_EQ(folder.Read("log"), expected);
}

void ExpectAsPrintf(const char* format, ...) ZARIP_PRINTF(1, 2);
void ExpectAsPrintf(const char* format, ...) {
    const TempDir folder;
    char expected[2048];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    std::vsnprintf(expected, sizeof expected, format, copy);
    va_end(copy);
    FileAppender(folder.File("log").c_str()).AppendV(Logger::kError, "t", "l", format, args);
    va_end(args);
    EXPECT_EQ(folder.Read("log"), std::string("(    t)                    l [ERROR] :: ") + expected + "\n");
}

// Simple conversions do not go through printf.
TEST(FileAppenderTest, FormatsAsPrintfDoes) {
    const char* const volatile none = nullptr;
    ExpectAsPrintf("%d,%i,%u,%x", INT_MIN, INT_MAX, UINT_MAX, 0xABCDEFU);
    ExpectAsPrintf("%ld %li %lu %lx", LONG_MIN, LONG_MAX, ULONG_MAX, ULONG_MAX);
    ExpectAsPrintf("%lld %lli %llu %llx", LLONG_MIN, LLONG_MAX, ULLONG_MAX, 0ULL);
    ExpectAsPrintf("%d%s%d", 0, "", -1);
    ExpectAsPrintf("%s", none);
    ExpectAsPrintf("%s and %ls", "narrow", L"wide");
    ExpectAsPrintf("%d %s %5d|%-5s|%05u|%+d|%.2s|%#x|%X|%o", 1, "then", 2, "x", 3U, 4, "cut", 5U, 0xABU, 8U);
    ExpectAsPrintf("%s %zu %hhd %c %p %f %g %%", "rest", sizeof(int), static_cast<signed char>(-3), 'x',
                   static_cast<const void*>(none), 1.5, 1e9);
    ExpectAsPrintf("%s%d", std::string(975, 'x').c_str(), 12345678);
    ExpectAsPrintf("%s%d", std::string(975, 'x').c_str(), 123456789);
    ExpectAsPrintf("%d%s", 1, std::string(984, 'x').c_str());
}

TEST(FileAppenderTest, OwnedStreamsAreClosedAndOthersStay) {
    const TempDir folder;
    EXPECT_EQ(ErrorOf([&] { FileAppender(folder.File("no/log").c_str()); }),
              "Failed to open file " + folder.File("no/log") + "for modea");
    EXPECT_EQ(ErrorOf([] { FileAppender(nullptr, true); }), "pFile must not be NULL");

    FILE* const file = std::fopen(folder.File("log").c_str(), "w");
    ASSERT_NE(file, nullptr);
    {
        const FileAppender appender(file, false);
        std::fputs("before ", file);
        Append(appender, 3, "t", "l", "record");
        std::fputs("after", file);
    }
    EXPECT_EQ(std::fflush(file), 0);
    EXPECT_EQ(folder.Read("log"), "before (    t)                    l [ERROR] :: record\nafter");
    const int fd = ::fileno(file);
    { const FileAppender appender(file, true); }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);

    // Programs that the process starts do not inherit a log file.
    const FileAppender appender(folder.File("private").c_str());
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == folder.File("private")) {
            ++found;
            EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST(FileAppenderTest, ThreadsDoNotMixTheirRecords) {
    const TempDir folder;
    const FileAppender appender(folder.File("log").c_str());
    test::InThreads(4, [&](int i) {
        const std::string text(static_cast<std::size_t>(100 + 1000 * i), static_cast<char>('a' + i));
        for (int n = 0; n < 100; ++n) {
            Append(appender, 3, "t", "l", "%s", text.c_str());
        }
    });
    std::size_t lines = 0;
    for (const std::string& line : StringUtil::Split(folder.Read("log"), '\n')) {
        if (line.empty()) {
            continue;
        }
        ++lines;
        const std::string text = line.substr(line.find(":: ") + 3);
        ASSERT_EQ(text, std::string(static_cast<std::size_t>(100 + 1000 * (text[0] - 'a')), text[0]));
    }
    EXPECT_EQ(lines, 400U);
}

TEST(FileAppenderTest, AReaderThatHasGoneDoesNoHarm) {
    struct sigaction ignore {};
    struct sigaction old {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old), 0);
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    {
        const FileAppender appender(::fdopen(ends[1], "w"), true);
        ::close(ends[0]);
        for (int i = 0; i < 200; ++i) {
            Append(appender, 3, "t", "l", "%s", std::string(100, 'x').c_str());
        }
    }
    EXPECT_EQ(::fcntl(ends[1], F_GETFD), -1);
    ::sigaction(SIGPIPE, &old, nullptr);
}

TEST(FileAppenderTest, StandardErrorHasAnAppender) {
    testing::internal::CaptureStderr();
    Append(StderrAppender(), 0, "t", "l", "%c", 'x');
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "(    t)                    l [FATAL] :: x\n");
}

TEST(MemoryAppenderTest, KeepsMessagesOnly) {
    MemoryAppender appender;
    Append(appender, 3, "t", "l", "%s %d", "first", 1);
    Append(appender, 3, "t", "l", "%s", std::string(2000, 'x').c_str());
    Append(appender, 3, "t", "l", "<%lc>", static_cast<wint_t>(0x20AC));
    EXPECT_EQ(appender.GetMessageCount(), 3);
    EXPECT_EQ(appender.GetMessage(0), "first 1");
    EXPECT_EQ(appender.GetMessage(1), std::string(1023, 'x'));
    EXPECT_EQ(appender.GetMessage(2), "");
    for (const int index : {3, INT_MAX, -1}) {
        EXPECT_THROW(appender.GetMessage(index), std::out_of_range);
    }
    appender.Clear();
    EXPECT_EQ(appender.GetMessageCount(), 0);
    EXPECT_THROW(appender.GetMessage(0), std::out_of_range);
}

TEST(MemoryAppenderTest, CanBeReadWhileOthersLog) {
    MemoryAppender appender;
    std::thread thread([&] {
        for (int i = 0; i < 2000; ++i) {
            Append(appender, 3, "t", "l", "%d", i);
        }
    });
    int read = 0;
    while (read < 2000) {
        if (read < appender.GetMessageCount()) {
            ASSERT_EQ(appender.GetMessage(read), std::to_string(read));
            ++read;
        }
    }
    thread.join();
}

class CountedAppender : public MemoryAppender {
public:
    explicit CountedAppender(int& alive) : _alive(alive) { ++_alive; }
    ~CountedAppender() override { --_alive; }

private:
    int& _alive;
};

TEST(CompositeAppenderTest, OwnsWhatItWasTold) {
    int alive = 0;
    auto composite = std::make_unique<CompositeAppender>();
    CountedAppender outside(alive);
    auto* const removed = new CountedAppender(alive);
    auto* const twice = new CountedAppender(alive);
    composite->AddAppender(&outside, false);
    composite->AddAppender(removed, true);
    composite->AddAppender(nullptr, true);
    composite->AddAppender(twice, true);
    composite->AddAppender(twice, true);
    Append(*composite, 3, "t", "l", "%s", "both");
    EXPECT_EQ(twice->GetMessageCount(), 2);
    EXPECT_TRUE(composite->RemoveAppender(removed));
    EXPECT_FALSE(composite->RemoveAppender(removed));
    Append(*composite, 3, "t", "l", "one");
    EXPECT_EQ(removed->GetMessageCount(), 1);
    EXPECT_EQ(outside.GetMessageCount(), 2);
    EXPECT_EQ(alive, 3);
    composite->Clear();
    EXPECT_EQ(alive, 2);
    Append(*composite, 3, "t", "l", "none");
    EXPECT_EQ(outside.GetMessageCount(), 2);
    composite->AddAppender(removed, true);
    composite.reset();
    EXPECT_EQ(alive, 1);
}

TEST(CompositeAppenderTest, AppendersNeedNoLockOfTheirOwn) {
    class Unlocked : public ILogAppender {
    public:
        void AppendV(Logger::LogLevel /*level*/, const char* /*threadName*/, const char* /*loggerName*/,
                     const char* /*format*/, va_list /*args*/) const override ZARIP_PRINTF(5, 0) {
            ++count;
        }
        mutable int count = 0;
    } unlocked;
    CompositeAppender composite;
    composite.AddAppender(&unlocked, false);
    std::thread thread([&] {
        for (int i = 0; i < 1000; ++i) {
            Append(composite, 3, "t", "l", "x");
        }
    });
    for (int i = 0; i < 1000; ++i) {
        Append(composite, 3, "t", "l", "x");
    }
    thread.join();
    EXPECT_EQ(unlocked.count, 2000);
}

TEST(NullAppenderTest, TakesAnything) {
    int written = 0;
    Append(NullAppender(), 3, "t", "l", "%s%n", "x", &written);
    EXPECT_EQ(written, 0);  // not even formatted
}

TEST(SyslogAppenderTest, RecordHasFixedFieldsAndPriority) {
    IniFile ini;
    ini.SetValue("camera", "log.syslog.ident", "streamer");
    const SyslogAppender appender(ini, "camera");
    EXPECT_STREQ(s_systemLog.ident, "streamer");
    EXPECT_EQ(s_systemLog.option, 2);
    EXPECT_EQ(s_systemLog.facility, 24);

    const struct {
        int level;
        const char* name;
        int priority;
    } rows[] = {
        {0, "FATAL", 24}, {1, "ALERT", 25}, {2, " CRIT", 26},  {3, "ERROR", 27},
        {4, " WARN", 28}, {5, "NOTIC", 29}, {6, " INFO", 30},  {7, "DEBUG", 31},
        {8, "TRACE", 31}, {9, "UNKNO", 31}, {-1, "UNKNO", 31}, {INT_MIN, "UNKNO", 31},
    };
    for (const auto& row : rows) {
        Append(appender, row.level, "MsgBusListenThread", "a", "%s", "text");
        EXPECT_EQ(s_systemLog.priority, row.priority) << row.level;
        EXPECT_EQ(s_systemLog.record,
                  std::string("(MsgBu)                    a [") + row.name + "] :: text\n");
    }
    Append(appender, 3, "t", "123456789012345678901", "%s%%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(s_systemLog.record, "(    t) 12345678901234567890 [ERROR] :: " + std::string(983, 'x') + "\n");
}

TEST(SyslogAppenderTest, IdentificationsOutliveTheirAppenders) {
    const IniFile ini;
    {
        auto first = std::make_unique<SyslogAppender>(ini, "first-identification-on-the-heap");
        auto second = std::make_unique<SyslogAppender>(ini, "second-identification-on-the-heap");
        EXPECT_STREQ(s_systemLog.ident, "second-identification-on-the-heap");
        second.reset();
        EXPECT_STREQ(s_systemLog.ident, "first-identification-on-the-heap");
        second = std::make_unique<SyslogAppender>(ini, "second-identification-on-the-heap");
        first.reset();
        EXPECT_STREQ(s_systemLog.ident, "second-identification-on-the-heap");
    }
    EXPECT_EQ(s_systemLog.ident, nullptr);
}

}  // namespace
}  // namespace zarip::core
