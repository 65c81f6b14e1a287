// SPDX-License-Identifier: MIT

// Compiled once for each CASE: 0 holds what must compile, every other case one call that must not.
#include <cstddef>
#include <cstdint>
#include <string>

#include <zarip/core/Logger.h>

enum Colour { kRed };

void Log(const zarip::core::Logger& log, const char* text, void* pointer, std::size_t size) {
    struct {
        unsigned bits : 3;
    } record = {1};
    char array[4] = "abc";
#if CASE == 0
    static constexpr const char* kNamed = "named %s";
    log.Error("plain");
    log.Error("100 %%");
#ifdef __clang__  // g++ refuses it with -Wpedantic, as ISO C++ does not know it
    log.Error("%s: %m, %-20.5m", text);
#endif
    log.Error(kNamed, text);
    log.Warning("%d %u %5x %c %i", 1, 2U, record.bits, 'x', kRed);
    log.Information("%s %-10.3s %.*s", text, array, 2, "abc");
    log.Debug("%ld %lu %lld %llu %zu %td", 1L, 2UL, 3LL, 4ULL, size, array - array);
    log.Trace("%f %5.2f %g %Lf %p %*d %hd %hhu", 1.5F, 2.5, 3.5, 4.5L, pointer, 5, 6, short{7},
              std::uint8_t{8});
#elif CASE == 1
    log.Error("%s", size);
#elif CASE == 2
    log.Warning("%d");
#elif CASE == 3
    log.Information("none", text);
#elif CASE == 4
    log.Debug("%d", text);
#elif CASE == 5
    log.Trace("%s", std::string("text"));
#elif CASE == 6
    log.Error("%ld", 1);
#elif CASE == 7
    log.Error("%d", size);
#elif CASE == 8
    log.Error("%f", 1);
#elif CASE == 9
    log.Error("%.*s", size, text);
#elif CASE == 10
    log.Error("50% ", 1);
#elif CASE == 11
    log.Error("%Q", 1);
#elif CASE == 12
    log.Error(text);
#elif CASE == 13
    log.Error("format %m", 1);
#elif CASE == 14
    log.Error("%lm");
#endif
    static_cast<void>(log), static_cast<void>(text), static_cast<void>(pointer), static_cast<void>(size);
    static_cast<void>(record), static_cast<void>(array);
}
