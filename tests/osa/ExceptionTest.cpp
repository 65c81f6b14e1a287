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
#include <type_traits>
#include <utility>

// The thread sanitizer has these operators to itself.
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

TEST(ExceptionTest, AMessageGivenAsAStringIsNoFormat) {
    const std::string hostile = "100%s %n %d";
    EXPECT_EQ(Exception(hostile).ToString(), hostile);
    EXPECT_EQ(IOException(hostile).ToString(), hostile);
    EXPECT_EQ(LockException(hostile, LockException::LockFailed).ToString(), hostile);
    EXPECT_EQ(SocketException(hostile, SocketException::SocketTimeout).ToString(), hostile);
}

TEST(ExceptionTest, AMessageThatCannotBeFormattedIsEmpty) {
    // No character of the C locale.
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

TEST(ExceptionTest, CodesSurviveThrowingCopyingAndAssigning) {
    const std::pair<LockException::LockError, int> lockErrors[] = {
        {LockException::LockFailed, 0}, {LockException::LockTimeout, 1}, {LockException::LockInvalid, 2}};
    for (const auto& [code, value] : lockErrors) {
        EXPECT_EQ(static_cast<int>(code), value);
        try {
            throw LockException("text", code);
        } catch (const Exception& caught) {
            const auto copy = dynamic_cast<const LockException&>(caught);
            EXPECT_EQ(copy.GetError(), code);
            EXPECT_EQ(copy.ToString(), "text");
        }
    }
    const std::pair<SocketException::SocketError, int> socketErrors[] = {
        {SocketException::SocketTimeout, 0},
        {SocketException::SocketConfigError, 1},
        {SocketException::SocketAddressError, 2},
        {SocketException::SocketGeneralError, 3}};
    for (const auto& [code, value] : socketErrors) {
        EXPECT_EQ(static_cast<int>(code), value);
        const SocketException original("text", code);
        const SocketException copy(original);
        SocketException assigned("other", SocketException::SocketTimeout);
        assigned = original;
        EXPECT_EQ(copy.GetError(), code);
        EXPECT_EQ(assigned.GetError(), code);
        EXPECT_EQ(assigned.ToString(), "text");
    }
    const Signal signal(2);
    const Signal copy(signal);
    Signal assigned(15);
    EXPECT_STREQ(assigned.what(), "signal: 15");
    assigned = signal;
    EXPECT_EQ(copy.GetSignal(), 2);
    EXPECT_EQ(assigned.GetSignal(), 2);
    EXPECT_STREQ(copy.what(), "signal: 2");
    EXPECT_STREQ(assigned.what(), "signal: 2");
}

TEST(ExceptionTest, EveryClassIsCaughtAsTheRootAndAsStdException) {
    static_assert(std::is_base_of_v<std::exception, Exception>);
    static_assert(std::is_base_of_v<Exception, IOException>);
    static_assert(std::is_base_of_v<Exception, LockException>);
    static_assert(std::is_base_of_v<Exception, SocketException>);
    static_assert(std::is_base_of_v<Exception, Signal>);
    const auto caughtAs = [](auto&& exception) {
        std::string found;
        try {
            throw exception;
        } catch (const Exception& e) {
            found = e.ToString();
        }
        try {
            throw exception;
        } catch (const std::exception& e) {
            found += std::string("/") + e.what();
        }
        return found;
    };
    EXPECT_EQ(caughtAs(IOException("io")), "io/io");
    EXPECT_EQ(caughtAs(LockException("lock", LockException::LockFailed)), "lock/lock");
    EXPECT_EQ(caughtAs(SocketException("socket", SocketException::SocketTimeout)), "socket/socket");
    EXPECT_EQ(caughtAs(Signal(9)), "signal: 9/signal: 9");
}

}  // namespace
}  // namespace zarip::osa
