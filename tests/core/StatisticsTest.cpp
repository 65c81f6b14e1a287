// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "zarip/core/BooleanStats.h"
#include "zarip/core/DataStats.h"
#include "zarip/core/FrequencyStats.h"
#include "zarip/core/Profiler.h"
#include "zarip/core/TimeStats.h"
#include "zarip/osa/Exception.h"

namespace {

/// What the calling thread's monotonic clock shows, in microseconds; 0 for the real one.
thread_local long long t_clock = 0;

}  // namespace

// Stands in front of the C library's for the whole program.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    if (t_clock != 0 && clock == CLOCK_MONOTONIC) {
        time->tv_sec = static_cast<time_t>(t_clock / 1'000'000);
        time->tv_nsec = static_cast<long>(t_clock % 1'000'000) * 1'000;
        return 0;
    }
#ifdef SYS_clock_gettime64
    return static_cast<int>(::syscall(SYS_clock_gettime64, clock, time));
#else
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
#endif
}

namespace zarip::core {
namespace {

using std::string;

string FailureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const osa::Exception& e) {
        return e.ToString();
    }
    return "";
}

string Printed(const Statistics& statistics, const char* title) {
    testing::internal::CaptureStdout();
    const string failure = FailureOf([&] { statistics.PrintToStdout(title); });
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout() + failure;
}

class StatisticsTest : public testing::Test {
protected:
    ~StatisticsTest() override { t_clock = 0; }
};

TEST_F(StatisticsTest, KeepsTheNewestSamplesAndTheExtremesOfAll) {
    DataStats statistics(3);
    for (int i = 1; i <= 4; ++i) {
        statistics.AddData(i);
    }
    EXPECT_EQ(statistics.GetLastSample(), 4);
    EXPECT_EQ(Printed(statistics, "frames"),
              "+- BEGIN STATISTICS: - frames\n|- LIFETIME\n| SIZE: 4\n| RANGE: [1, 4]\n|- SAMPLE SET\n"
              "| SIZE: 3\n| RANGE: [2, 4]\n| SUM: 9\n| MEAN: 3.000000\n| VARIANCE: 0.666667\n"
              "| STD DEV: 0.816497\n+- END STATISTICS\n");
    Statistics none(0);
    none.AddData(-5);
    const string text =
        "+- BEGIN STATISTICS:\n|- LIFETIME\n| SIZE: 1\n| RANGE: [-5, -5]\n|- SAMPLE SET\n| SIZE: 0\n"
        "No samples in statistics";
    EXPECT_EQ(Printed(none, nullptr), text);
    none.swap(statistics);
    EXPECT_EQ(none.GetSum(), 9);
    none.AddData(5);
    EXPECT_EQ(none.GetMinimum(), 3);  // the capacity has come along
    EXPECT_EQ(Printed(statistics, nullptr), text);
    none.Reset();
    EXPECT_EQ(Printed(none, nullptr),
              "+- BEGIN STATISTICS:\n|- LIFETIME\n| SIZE: 0\n| RANGE: [2147483647, -2147483648]\n"
              "|- SAMPLE SET\n| SIZE: 0\nNo samples in statistics");
}

TEST_F(StatisticsTest, SumsWrapAndNothingCanBeReadWithoutSamples) {
    BooleanStats statistics(10);
    const std::function<void()> readers[] = {
        [&] { statistics.GetLastSample(); }, [&] { statistics.GetMinimum(); },
        [&] { statistics.GetMaximum(); },    [&] { statistics.GetSum(); },
        [&] { statistics.GetVariance(); },
    };
    for (const auto& reader : readers) {
        EXPECT_EQ(FailureOf(reader), "No samples in statistics");
    }
    statistics.AddData(2);
    statistics.AddData(4);
    EXPECT_EQ(statistics.GetVariance(), 1.0F);
    statistics.Reset();
    statistics.AddData(INT_MAX);
    statistics.AddData(1);
    EXPECT_EQ(statistics.GetSum(), INT_MIN);
}

TEST_F(StatisticsTest, TripsAndPulsesMeasureTheTimeBetween) {
    const struct {
        long long microseconds;
        int trip;
        int pulse;
    } cases[] = {{250'000, 250'000, 4},
                 {0, 0, 1'000'000},
                 {3, 3, 333'333},
                 {2'147'483'648, INT_MIN, 0},
                 {4'294'967'298, 2, 0}};
    for (const auto& c : cases) {
        TimeStats trips(1);
        FrequencyStats pulses(1);
        t_clock = 5'999'999;
        trips.Trip();
        pulses.Pulse();
        EXPECT_THROW(trips.GetSum(), osa::Exception);
        t_clock += c.microseconds;
        trips.Trip();
        pulses.Pulse();
        EXPECT_EQ(trips.GetSum(), c.trip);
        EXPECT_EQ(pulses.GetSum(), c.pulse);
        t_clock += 10;
        trips.Trip();
        EXPECT_EQ(trips.GetSum(), 10);
    }
}

TEST_F(StatisticsTest, AStopwatchIsReadBetweenTheEndsThatAreSet) {
    EXPECT_EQ(FailureOf([] { Stopwatch(false).Read(); }), "Stopwatch Never Started");
    t_clock = 1'900'000;
    Stopwatch watch(true);
    EXPECT_EQ(watch.start, osa::TimeStruct(1, 900'000));
    EXPECT_EQ(FailureOf([&] { watch.Read(); }), "Invalid parameter");
    watch.stop = osa::TimeStruct(4, 150'000);
    osa::TimeStruct elapsed;
    watch.Read(elapsed);
    EXPECT_EQ(elapsed, osa::TimeStruct(2, 250'000));
    EXPECT_DOUBLE_EQ(watch.Read(), 2.25);
}

TEST_F(StatisticsTest, AProfilerLogsAtTraceLevelOnly) {
    using Texts = std::vector<string>;
    const Logger* const logger = Logger::GetLogger("profiled");
    test::LogCapture log(Logger::kDebug);
    t_clock = 1'000'000;
    {
        const Profiler silent(nullptr, "silent");
        const Profiler off(logger, "off");
        const Profiler late(logger, "late");
        Logger::SetLevelDefault(Logger::kTrace, true);
        const Profiler work(logger, "work");
        t_clock += 1'500'000;
        { const Profiler inner(logger, "inner"); }
    }
    const Texts messages = log.Messages();
    const Texts expected = {"{BEGIN: work}",
                            "{BEGIN: inner}",
                            "{END: inner | 0.000000 sec}",
                            "{END: work | 1.500000 sec}",
                            "{END: late | Failed to read stopwatch",
                            "{END: off | Failed to read stopwatch"};
    ASSERT_EQ(messages.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NE(messages[i].find(expected[i]), string::npos) << messages[i];
        EXPECT_EQ(messages[i].find("stopwatch}"), string::npos);
    }
}

}  // namespace
}  // namespace zarip::core
