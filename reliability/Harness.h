// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstdarg>
#include <string>

/// The parts that all rows share. A row is a function in one of the sources:
///
///     ROW(Tasks, "A million tasks leave no thread and no descriptor", 60) {
///         const Usage before = Usage::Now();
///         ...
///         run.Expect(done == count, "%d of %d tasks ran", done, count);
///         run.Figure("%d tasks, memory %+ld KiB", count, Usage::Now().memory - before.memory);
///     }
///
/// `Harness.cpp` runs each row in a process of its own, ends it at its limit and makes the table.
namespace zarip::reliability {

/// The resources that the process uses.
struct Usage {
    long memory;  ///< resident, KiB
    int descriptors;
    int threads;

    static Usage Now();
};

/// One run of one row. *Thread-safe*.
class Run {
public:
    explicit Run(bool isLong) : _isLong(isLong) {}

    bool IsLong() const { return _isLong; }
    /// Returns the first number in the long form and the second in the short form.
    int Count(int inLong, int inShort) const { return _isLong ? inLong : inShort; }

    /// If the condition is false, prints the message, and the row fails at its end.
    void Expect(bool holds, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Expects the descriptors of `before` and no more threads, at once or within 20 seconds.
    void ExpectNothingLeft(const Usage& before);
    /// Adds a figure to the row's line in the table.
    void Figure(const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    bool _isLong;
};

/// A row of the table; made by `ROW` only.
struct Row {
    Row(const char* rowName, const char* rowClaim, unsigned int rowLimit, void (*function)(Run&));

    const char* name;
    const char* claim;
    unsigned int limit;  ///< seconds of the short form; the long form has 60 times as much
    void (*run)(Run&);
    const Row* next = nullptr;
};

inline long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace zarip::reliability

#define ROW(name, claim, seconds)                                                         \
    static void Run##name(::zarip::reliability::Run& run);                                \
    static const ::zarip::reliability::Row s_row##name(#name, claim, seconds, Run##name); \
    static void Run##name([[maybe_unused]] ::zarip::reliability::Run& run)
