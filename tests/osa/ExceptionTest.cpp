// SPDX-License-Identifier: MIT

#include <zarip/osa/Exception.h>
#include <zarip/osa/IOException.h>
#include <zarip/osa/LockException.h>
#include <zarip/osa/Signal.h>
#include <zarip/osa/SocketException.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "support/ErrorOf.h"

// The thread sanitizer defines these operators itself.
#if defined(__SANITIZE_THREAD__)
#define MEMORY_CAN_RUN_OUT 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MEMORY_CAN_RUN_OUT 0
#endif
#endif

#ifndef MEMORY_CAN_RUN_OUT
#define MEMORY_CAN_RUN_OUT 1

namespace {

thread_local bool t_memoryRanOut = false;

}  // namespace

void* operator new[](std::size_t size) {
    if (t_memoryRanOut) {
        throw std::bad_alloc();
    }
    return std::malloc(size);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

#endif

namespace zarip::osa {
namespace {

TEST(ExceptionTest, TheMessageIsBuiltAsPrintfDoes) {
    const std::string longText(100'000, 'x');
    const Exception filled("%s/%d/%5.2f|%%", "a", -7, 1.5);
    EXPECT_EQ(filled.ToString(), "a/-7/ 1.50|%");
    EXPECT_STREQ(filled.what(), "a/-7/ 1.50|%");
    EXPECT_EQ(filled.GetFile(), "");
    EXPECT_EQ(filled.GetLine(), 0U);
    EXPECT_STREQ(Exception("%s", "").what(), "");
    EXPECT_EQ(Exception("%s", longText.c_str()).ToString(), longText);
    EXPECT_EQ(Exception::kUnimplemented, "unimplemented");
}

TEST(ExceptionTest, AMessageGivenAsAStringIsNotAFormat) {
    const std::string hostile = "100%s %n %d";
    EXPECT_EQ(Exception(hostile).ToString(), hostile);
    EXPECT_EQ(IOException(hostile).ToString(), hostile);
    EXPECT_EQ(LockException(hostile, LockException::LockFailed).ToString(), hostile);
    EXPECT_EQ(SocketException(hostile, SocketException::SocketTimeout).ToString(), hostile);
}

TEST(ExceptionTest, AMessageThatCannotBeFormattedIsEmpty) {
    // The C locale does not have this character.
    const wchar_t unknown[] = {L'a', 0x20AC, 0};
    EXPECT_STREQ(Exception("%s%ls", "text", unknown).what(), "");
}

#if MEMORY_CAN_RUN_OUT
TEST(ExceptionTest, TheConstructorReportsLackOfMemoryAndDoesNotThrow) {
    testing::internal::CaptureStdout();
    t_memoryRanOut = true;
    const Exception exception("%s", "text");
    t_memoryRanOut = false;
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Exception::Exception");
    EXPECT_STREQ(exception.what(), "");
}
#endif

TEST(ExceptionTest, ACopyLosesTheLocationAndAnAssignmentKeepsIt) {
    Exception original("%s", "text");
    original.SetLocation("a", 7);
    EXPECT_EQ(original.GetFile(), "a");
    EXPECT_EQ(original.GetLine(), 7U);

    const Exception copy(original);
    EXPECT_EQ(copy.ToString(), "text");
    EXPECT_EQ(copy.GetFile(), "");
    EXPECT_EQ(copy.GetLine(), 0U);

    Exception assigned(std::string("other"));
    assigned = original;
    EXPECT_EQ(assigned.ToString(), "text");
    EXPECT_EQ(assigned.GetFile(), "a");
    EXPECT_EQ(assigned.GetLine(), 7U);

    // The subclasses copy and assign in the same way.
    LockException lock("lock", LockException::LockInvalid);
    lock.SetLocation("b", 8);
    EXPECT_EQ(LockException(lock).GetFile(), "");
    LockException other("other", LockException::LockFailed);
    other = lock;
    EXPECT_EQ(other.GetFile(), "b");
    EXPECT_EQ(other.GetError(), LockException::LockInvalid);
    EXPECT_EQ(other.ToString(), "lock");
}

// The codes are a part of the interface.
static_assert(LockException::LockFailed == 0 && LockException::LockTimeout == 1);
static_assert(LockException::LockInvalid == 2);
static_assert(SocketException::SocketTimeout == 0 && SocketException::SocketConfigError == 1);
static_assert(SocketException::SocketAddressError == 2 && SocketException::SocketGeneralError == 3);

/// The outcome of throwing a copy and catching it as the root and as std::exception.
template <class Thrown>
std::string Catch(const Thrown& exception) {
    const auto thrown = [&] { throw exception; };
    return test::ErrorOf<Exception>(thrown) + "/" + test::ErrorOf<std::exception>(thrown);
}

TEST(ExceptionTest, EveryClassIsCaughtAsTheRootAndAsStdException) {
    EXPECT_EQ(Catch(IOException("io")), "io/io");
    EXPECT_EQ(Catch(LockException("lock", LockException::LockFailed)), "lock/lock");
    EXPECT_EQ(Catch(SocketException("socket", SocketException::SocketTimeout)), "socket/socket");
    EXPECT_EQ(Catch(Signal(9)), "signal: 9/signal: 9");
}

TEST(ExceptionTest, CodesSurviveThrowing) {
    const auto lock = [] { throw LockException("text", LockException::LockInvalid); };
    EXPECT_EQ(test::OutcomeOf<LockException>(lock), (test::Outcome{"text", 2}));
    const auto socket = [] { throw SocketException("text", SocketException::SocketGeneralError); };
    EXPECT_EQ(test::OutcomeOf<SocketException>(socket), (test::Outcome{"text", 3}));
    const Signal signal(2);
    EXPECT_EQ(Signal(signal).GetSignal(), 2);
}

}  // namespace
}  // namespace zarip::osa
