// SPDX-License-Identifier: MIT

#pragma once

#include <functional>

/// The next call of gettimeofday on the calling thread returns a time of 1970.
void SetClockBackForOneLook();

/// Makes one call of the C library fail for the calling thread, for the length of a scope. The functions that
/// can fail so are listed in FailingCalls.cpp.
class FailingCall {
public:
    /// @param function  the name of the function.
    /// @param result  what it returns instead of doing anything.
    /// @param meanwhile  runs inside the call. For pthread_cond_clockwait the mutex is free meanwhile.
    FailingCall(const char* function, int result, std::function<void()> meanwhile = nullptr);
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    ~FailingCall();

    /// The scope that makes `function` fail on the calling thread, or null.
    static const FailingCall* Find(const char* function);
    int Result() const;

private:
    const char* _function;
    int _result;
    std::function<void()> _meanwhile;
    FailingCall* _outer;
};

/// For the length of a scope, the first time that the calling thread reads from the real-time clock is an
/// hour ahead of the later ones, as if the clock had been set back in between.
class ClockSetBack {
public:
    ClockSetBack();
    ClockSetBack(const ClockSetBack&) = delete;
    ClockSetBack& operator=(const ClockSetBack&) = delete;
    ~ClockSetBack();
};
