// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <memory>
#include <thread>

#include "osa/FailingCalls.h"
#include "support/ErrorOf.h"
#include "support/WaitUntil.h"
#include "zarip/osa/DateTime.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/ITimeSource.h"
#include "zarip/osa/ITimerCallback.h"
#include "zarip/osa/Semaphore.h"
#include "zarip/osa/Thread.h"
#include "zarip/osa/Time.h"
#include "zarip/osa/TimeSpan.h"
#include "zarip/osa/Timer.h"

namespace zarip::osa {
namespace {

using test::ErrorOf;

constexpr unsigned int kMax = 0xFFFFFFFFU;

TEST(TimeStruct, CarriesMicrosecondsAndStaysInItsRange) {
    EXPECT_EQ(TimeStruct(), TimeStruct(0, 0));
    EXPECT_EQ(TimeStruct(5, 2'500'000), TimeStruct(7, 500'000));
    struct Row {
        TimeStruct start;
        long long change;
        TimeStruct result;
        bool fails;
    };
    const TimeStruct latest(kMax, 999'999);
    const Row rows[] = {
        {TimeStruct(1, 0), -3, TimeStruct(0, 999'997), false},
        {TimeStruct(1, 999'999), 1, TimeStruct(2, 0), false},
        {TimeStruct(), -1, TimeStruct(), true},
        {TimeStruct(), 4'294'967'295'999'999, latest, false},
        {TimeStruct(), 4'294'967'296'000'000, TimeStruct(), true},
        {latest, 1, latest, true},
        {latest, -4'294'967'295'999'999, TimeStruct(), false},
        {TimeStruct(3, 4), LLONG_MIN, TimeStruct(3, 4), true},
        {TimeStruct(3, 4), LLONG_MAX, TimeStruct(3, 4), true},
    };
    for (const auto& row : rows) {
        TimeStruct sum = row.start;
        EXPECT_EQ(ErrorOf([&] { sum += row.change; }), row.fails ? "Invalid parameter" : "no exception")
            << row.change;
        EXPECT_EQ(sum, row.result) << row.change;
        if (row.change != LLONG_MIN) {
            TimeStruct difference = row.start;
            EXPECT_EQ(ErrorOf([&] { difference -= -row.change; }),
                      row.fails ? "Invalid parameter" : "no exception");
            EXPECT_EQ(difference, row.result) << row.change;
        }
    }
    EXPECT_EQ(TimeStruct(1, 600'000) + TimeStruct(2, 600'000), TimeStruct(4, 200'000));
    EXPECT_EQ(TimeStruct(2, 100'000) - TimeStruct(0, 200'000), TimeStruct(1, 900'000));
    EXPECT_EQ(ErrorOf([&] { latest + TimeStruct(0, 1); }), "Invalid parameter");
    EXPECT_EQ(ErrorOf([&] { TimeStruct(kMax, 1'000'000); }), "Invalid parameter");
}

TEST(TimeStruct, DeliberatelyHasNoText) {
    EXPECT_EQ(TimeStruct(true).ToString(), "");
}

TEST(TimeSources, FollowTheirClocks) {
    TimeStruct before(true);
    TimeStruct time;
    SystemTimeSource().GetTime(time);
    EXPECT_LE(before, time);
    MonotonicTimeSource monotonic;
    monotonic.GetTime(before);
    TimeMonotonic(time);
    EXPECT_LE(before, time);
    EXPECT_LT(time.microseconds, 1'000'000U);
    EXPECT_EQ(SetTimeMonotonic(time), -1);
}

TEST(TimeSpan, CountsSignedMicroseconds) {
    const TimeSpan span = TimeSpan::FromDays(1) + TimeSpan::FromHours(2) - TimeSpan::FromMinutes(3) +
                          TimeSpan::FromSeconds(4) + TimeSpan::FromMilliseconds(5) +
                          TimeSpan::FromMicroseconds(6);
    EXPECT_EQ(span.GetTotalMicroseconds(), 93'424'005'006);
    EXPECT_EQ((-span).GetTotalMilliseconds(), -93'424'005);
    EXPECT_EQ(span.GetTotalSeconds(), 93'424);
    EXPECT_LT(-span, TimeSpan());
    constexpr TimeSpan kLongest = TimeSpan::FromDays(LLONG_MAX);
    constexpr TimeSpan kShortest = TimeSpan::FromMilliseconds(LLONG_MIN);
    static_assert(kLongest.GetTotalMicroseconds() == LLONG_MAX);
    static_assert(kShortest.GetTotalMicroseconds() == LLONG_MIN);
    static_assert(kLongest + TimeSpan::FromMicroseconds(1) == kLongest && kLongest - kShortest == kLongest);
    static_assert(-kShortest == kLongest && kShortest - kLongest == kShortest &&
                  kShortest - kShortest == TimeSpan());
    EXPECT_EQ(TimeSpan(), TimeSpan::FromSeconds(0));
}

TEST(DateTime, ReadsAndWritesTheCalendar) {
    struct Row {
        const char* text;
        const char* utc;
        long long seconds;
        int dayOfWeek;
        int dayOfYear;
    };
    const Row rows[] = {
        {"1970-01-01T00:00:00Z", "1970-01-01T00:00:00Z", 0, 4, 1},
        {"2000-02-29T23:59:59.999999Z", "2000-02-29T23:59:59.999999Z", 951'868'799, 2, 60},
        {"2026-11-21T21:10:07.25+01:00", "2026-11-21T20:10:07.250000Z", 1'795'291'807, 6, 325},
        {"2026-12-31T20:00:00-04:30", "2027-01-01T00:30:00Z", 1'798'763'400, 5, 1},
        {"2106-02-07T06:28:15Z", "2106-02-07T06:28:15Z", 4'294'967'295, 0, 38},
    };
    for (const auto& row : rows) {
        const DateTime time = DateTime::Parse(row.text);
        EXPECT_EQ(time.ToString(), row.utc);
        EXPECT_EQ(time.ToTimeStruct().seconds, row.seconds);
        EXPECT_EQ(DateTime(time.ToTimeStruct()), time);
        EXPECT_EQ(time.GetFields().dayOfWeek, row.dayOfWeek) << row.utc;
        EXPECT_EQ(time.GetFields().dayOfYear, row.dayOfYear) << row.utc;
    }
    EXPECT_EQ(DateTime(1, 1, 1).ToString(), "0001-01-01T00:00:00Z");
    EXPECT_EQ(DateTime(1, 1, 1).GetFields().dayOfWeek, 1);
    EXPECT_EQ((DateTime(9999, 12, 31) - DateTime(1, 1, 1)), TimeSpan::FromDays(3'652'058));
    EXPECT_EQ(DateTime(2024, 2, 28) + TimeSpan::FromDays(2), DateTime(2024, 3, 1));
    EXPECT_LT(DateTime(2024, 3, 1) - TimeSpan::FromMicroseconds(1), DateTime(2024, 3, 1));
    // Every day of four centuries in turn.
    DateTime day(1899, 12, 31);
    for (int i = 0; i < 146'097; ++i) {
        const DateTime::Fields fields = (day = day + TimeSpan::FromDays(1)).GetFields();
        ASSERT_EQ(DateTime(fields.year, fields.month, fields.day), day) << i;
    }
    EXPECT_EQ(day, DateTime(2299, 12, 31));
}

TEST(DateTime, RefusesTextAndDatesThatAreNone) {
    for (const char* text : {"", "2026-11-21", "2026-11-21T20:10:07", "2026-11-21 20:10:07Z",
                             "2026-11-21T20:10:07.Z", "2026-11-21T20:10:07.1234567Z", "2026-02-29T00:00:00Z",
                             "2026-13-01T00:00:00Z", "2026-11-21T24:00:00Z", "2026-11-21T20:60:00Z",
                             "2026-11-21T20:10:60Z", "2026-11-21T20:10:07+24:00", "2026-11-21T20:10:07Zx",
                             "0000-01-01T00:00:00Z", "0001-01-01T00:00:00+01:00", "+026-11-21T20:10:07Z"}) {
        EXPECT_EQ(ErrorOf([&] { DateTime::Parse(text); }), "Invalid date text '" + std::string(text) + "'");
    }
    EXPECT_EQ(ErrorOf([] { DateTime(2100, 2, 29); }), "Invalid date");
    EXPECT_EQ(ErrorOf([] { DateTime(9999, 12, 31) + TimeSpan::FromDays(1); }), "Invalid date");
    EXPECT_EQ(ErrorOf([] { DateTime(1, 1, 1) - TimeSpan::FromMicroseconds(1); }), "Invalid date");
    EXPECT_EQ(ErrorOf([] { DateTime() + TimeSpan::FromMicroseconds(LLONG_MAX); }), "Invalid date");
    EXPECT_EQ(ErrorOf([] { DateTime(1969, 12, 31).ToTimeStruct(); }), "Invalid parameter");
}

TEST(DateTime, TellsLocalTime) {
    const char* const zone = ::getenv("TZ");
    const std::string old = zone != nullptr ? zone : "";
    ::setenv("TZ", "ABC-01:00", 1);
    EXPECT_EQ(DateTime(2026, 1, 1, 2).ToLocalString(), "2026-01-01T03:00:00+01:00");
    ::setenv("TZ", "XYZ+03:30", 1);  // the device was moved
    EXPECT_EQ(DateTime(2026, 1, 1, 2).ToLocalString(), "2025-12-31T22:30:00-03:30");
    EXPECT_EQ(DateTime(2026, 1, 1, 2).GetLocalFields().dayOfYear, 365);
    if (zone != nullptr) {
        ::setenv("TZ", old.c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
}

class Callback : public ITimerCallback {
public:
    void OnTimer(const TimeStruct& expiry, void* userData) override {
        _late = TimeStruct(true) >= expiry;
        _expiry = expiry;
        _userData = userData;
        if (_block != nullptr) {
            _entered.Release();
            _block->Lock();
        }
        if (_setsClockBack) {
            SetClockBackForOneLook();
        }
        ++_calls;
        _called.Release();
    }
    TimeStruct _expiry;
    void* _userData = nullptr;
    bool _late = false;
    std::atomic<int> _calls{0};
    Semaphore* _block = nullptr;
    bool _setsClockBack = false;
    Semaphore _entered{"entered", 1, 0};
    Semaphore _called{"called", 1000, 0};
};

TimeStruct In(long long microseconds) {
    TimeStruct time(true);
    return time += microseconds;
}

TEST(Timer, CallsBackOnceAtItsTimeAndNeverEarly) {
    EXPECT_EQ(ErrorOf([] { Timer timer(nullptr); }), "Illegal NULL callback");
    Callback callback;
    Timer timer(&callback);
    int data = 0;
    for (const TimeStruct& expiry : {In(5'000), TimeStruct(), TimeStruct(1, 0)}) {
        timer.Start(expiry, &data);
        callback._called.Lock();
        EXPECT_EQ(callback._expiry, expiry);
        EXPECT_EQ(callback._userData, &data);
        EXPECT_TRUE(callback._late);
    }
    EXPECT_EQ(callback._calls, 3);
}

TEST(Timer, StoppedOrSetAnewItForgetsItsOldTime) {
    Callback callback;
    Callback marker;
    Timer timer(&callback);
    Timer after(&marker);
    for (int i = 0; i < 50; ++i) {
        timer.Start(In(i * 20), nullptr);
        timer.Stop();
        const int calls = callback._calls;
        after.Start(In(0), nullptr);
        marker._called.Lock();
        EXPECT_EQ(callback._calls, calls);
    }
    const int calls = callback._calls;
    timer.Start(In(60'000'000), nullptr);
    timer.Start(In(1'000), nullptr);
    EXPECT_TRUE(test::WaitUntil([&] { return callback._calls == calls + 1; }));
    timer.Start(In(60'000'000), &timer);
    timer.Expire();
    EXPECT_EQ(callback._calls, calls + 2);
    EXPECT_EQ(callback._userData, &timer);
}

TEST(Timer, StoppingAndDestroyingWaitForARunningCallback) {
    Semaphore block("block", 1, 0);
    Callback callback;
    callback._block = &block;
    auto timer = std::make_unique<Timer>(&callback);
    for (const bool destroys : {false, true}) {
        timer->Start(TimeStruct(), nullptr);
        callback._entered.Lock();
        std::atomic<bool> returned{false};
        int calls = callback._calls;
        std::thread stopper([&] {
            if (destroys) {
                timer.reset();
            } else {
                timer->Stop();
            }
            EXPECT_EQ(callback._calls, calls + 1);
            returned = true;
        });
        EXPECT_FALSE(returned);
        block.Release();
        stopper.join();
    }
}

TEST(Timer, SignalsThatWaitForALongCallbackFindTheirTimerOrNothing) {
    Semaphore block("block", 1, 0);
    Callback busy;
    Callback gone;
    Callback due;
    busy._block = &block;
    busy._setsClockBack = true;
    Timer timer(&busy);
    auto destroyed = std::make_unique<Timer>(&gone);
    Timer after(&due);
    timer.Start(TimeStruct(), nullptr);
    busy._entered.Lock();
    destroyed->Start(TimeStruct(), nullptr);
    after.Start(In(0), nullptr);
    destroyed.reset();
    block.Release();
    EXPECT_TRUE(due._called.TryLock(10'000));
    EXPECT_EQ(gone._calls, 0);
}

TEST(Timer, StoppingEndsACallbackThatStartsItsTimerAgainAndAgain) {
    class Endless : public ITimerCallback {
    public:
        void OnTimer(const TimeStruct&, void*) override {
            ++_calls;
            std::this_thread::yield();
            _timer.Start(TimeStruct(), nullptr);
        }
        std::atomic<int> _calls{0};
        Timer _timer{this};
    };
    Endless endless;
    Callback marker;
    Timer after(&marker);
    for (int i = 0; i < 100; ++i) {
        const int before = endless._calls;
        endless._timer.Start(TimeStruct(), nullptr);
        EXPECT_TRUE(test::WaitUntil([&] { return endless._calls > before; }));
        endless._timer.Stop();
        const int calls = endless._calls;
        after.Start(TimeStruct(), nullptr);
        marker._called.Lock();
        EXPECT_EQ(endless._calls, calls);
    }
}

TEST(Timer, ACallbackMayStartStopAndDestroyItsTimer) {
    class Chain : public ITimerCallback {
    public:
        void OnTimer(const TimeStruct&, void*) override {
            if (++_calls < 20) {
                _timer->Start(In(100), nullptr);
            } else {
                _timer->Stop();
                _timer.reset();
                _done.Release();
            }
        }
        std::unique_ptr<Timer> _timer = std::make_unique<Timer>(this);
        int _calls = 0;
        Semaphore _done{"done", 1, 0};
    };
    Chain chain;
    chain._timer->Start(TimeStruct(), nullptr);
    chain._done.Lock();
    EXPECT_EQ(chain._calls, 20);
}

TEST(Timer, ACopySharesTheAlarmOfItsOriginal) {
    Callback callback;
    auto original = std::make_unique<Timer>(&callback);
    Timer copy(*original);
    copy.Start(TimeStruct(), nullptr);
    callback._called.Lock();
    *original = copy;
    original->Start(TimeStruct(), nullptr);
    callback._called.Lock();
    original.reset();
    EXPECT_EQ(ErrorOf([&] { copy.Start(TimeStruct(), nullptr); }), "Invalid timer ID");
}

TEST(Timer, SignalsInterruptNobodyAndSignalsFromOutsideDoNoHarm) {
    Callback callback;
    Timer timer(&callback);
    std::atomic<bool> over{false};
    std::thread busy([&] {
        while (!over) {
            timer.Start(TimeStruct(), nullptr);
            callback._called.Lock();
            ::kill(::getpid(), SIGUSR1);
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_NO_THROW(Thread::CurrentThread::MicroSleep(1'000));
    }
    over = true;
    busy.join();
    EXPECT_GT(callback._calls, 0);
}

}  // namespace
}  // namespace zarip::osa
