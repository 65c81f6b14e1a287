// Log records: one that is written and flushed, and one whose level is off.

#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <zarip/core/FileAppender.h>
#include <zarip/core/Logger.h>

#include "Rounds.h"

namespace {

using zarip::bench::RunRounds;
using zarip::core::Logger;

constexpr const char* kClient = "192.168.1.10";

}  // namespace

int main(int argc, char** argv) {
    std::string folder = (std::filesystem::temp_directory_path() / "zarip-bench-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    const long records = argc > 1 ? std::atol(argv[1]) : 20'000;
    const std::string text = "(ZARIP)           HttpServer [ERROR] :: request 12345 from 192.168.1.10\n";
    const int fd = ::open((folder + "/write").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    FILE* const file = std::fopen((folder + "/fprintf").c_str(), "a");

    const auto spd = spdlog::basic_logger_mt("HttpServer", folder + "/spdlog");
    spd->set_pattern("(ZARIP) %20n [%5l] :: %v");
    spd->flush_on(spdlog::level::trace);

    Logger::AddAppender(new zarip::core::FileAppender((folder + "/zarip").c_str()), true);
    const Logger* const logger = Logger::GetLogger("HttpServer");

    RunRounds("log record, flushed",
              {
                  {"write(2) of the same text",
                   [&](long n) {
                       for (long i = 0; i < n; ++i) {
                           if (::write(fd, text.data(), text.size()) < 0) {
                               std::abort();
                           }
                       }
                   }},
                  {"zarip",
                   [&](long n) {
                       for (long i = 0; i < n; ++i) {
                           logger->Error("request %d from %s", 12345, kClient);
                       }
                   }},
                  {"fprintf and fflush",
                   [&](long n) {
                       for (long i = 0; i < n; ++i) {
                           std::fprintf(file, "(%5s) %20s [%5s] :: request %d from %s\n", "ZARIP",
                                        "HttpServer", "ERROR", 12345, kClient);
                           std::fflush(file);
                       }
                   }},
                  {"spdlog",
                   [&](long n) {
                       for (long i = 0; i < n; ++i) {
                           spd->error("request {} from {}", 12345, kClient);
                       }
                   }},
              },
              records);

    // The loop hides both loggers from the compiler each time, or it would test the level once.
    RunRounds("log record whose level is off",
              {
                  {"empty loop",
                   [&](long n) {
                       const Logger* hidden = logger;
                       for (long i = 0; i < n; ++i) {
                           asm volatile("" : "+r"(hidden) : : "memory");
                       }
                   }},
                  {"zarip",
                   [&](long n) {
                       const Logger* hidden = logger;
                       for (long i = 0; i < n; ++i) {
                           asm volatile("" : "+r"(hidden) : : "memory");
                           hidden->Debug("request %d from %s", 12345, kClient);
                       }
                   }},
                  {"spdlog",
                   [&](long n) {
                       spdlog::logger* hidden = spd.get();
                       for (long i = 0; i < n; ++i) {
                           asm volatile("" : "+r"(hidden) : : "memory");
                           hidden->debug("request {} from {}", 12345, kClient);
                       }
                   }},
              },
              records * 100);

    Logger::Shutdown();
    spdlog::shutdown();
    std::fclose(file);
    ::close(fd);
    std::filesystem::remove_all(folder);
    return EXIT_SUCCESS;
}
