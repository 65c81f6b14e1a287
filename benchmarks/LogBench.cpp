// SPDX-License-Identifier: MIT

// Log records that are flushed and records of a level that is off, beside write(2), stdio and spdlog.

#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <zarip/core/FileAppender.h>
#include <zarip/core/Logger.h>

#include "Rounds.h"

using zarip::core::Logger;

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    std::string folder = (std::filesystem::temp_directory_path() / "zarip-bench-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    const char* const client = "192.168.1.10";
    const std::string text = "(ZARIP)           HttpServer [ERROR] :: request 12345 from 192.168.1.10\n";
    const int fd = ::open((folder + "/write").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    FILE* const file = std::fopen((folder + "/fprintf").c_str(), "a");

    const auto spd = spdlog::basic_logger_mt("HttpServer", folder + "/spdlog");
    spd->set_pattern("(ZARIP) %20n [%5l] :: %v");
    spd->flush_on(spdlog::level::trace);

    Logger::AddAppender(new zarip::core::FileAppender((folder + "/zarip").c_str()), true);
    const Logger* const logger = Logger::GetLogger("HttpServer");

    bench::Rounds record("log record, flushed", options);
    record.Add("write(2), same text", [&] {
        if (::write(fd, text.data(), text.size()) < 0) {
            std::abort();
        }
    });
    record.Add("fprintf and fflush", [&] {
        std::fprintf(file, "(%5s) %20s [%5s] :: request %d from %s\n", "ZARIP", "HttpServer", "ERROR", 12345,
                     client);
        std::fflush(file);
    });
    record.Add("spdlog", [&] { spd->error("request {} from {}", 12345, client); });
    record.Add("zarip", [&] { logger->Error("request %d from %s", 12345, client); });
    record.Run();

    // Whose name is not known to the library.
    std::thread([&] {
        bench::Rounds foreign("log record, flushed, on a thread made without osa::Thread", options);
        foreign.Add("write(2), same text", [&] {
            if (::write(fd, text.data(), text.size()) < 0) {
                std::abort();
            }
        });
        foreign.Add("zarip", [&] { logger->Error("request %d from %s", 12345, client); });
        foreign.Run();
    }).join();

    // The loggers are hidden from the compiler each time, or it would test the level once.
    bench::Rounds off("log record whose level is off", options);
    off.Add("nothing", [hidden = logger]() mutable { asm volatile("" : "+r"(hidden) : : "memory"); });
    off.Add("spdlog", [hidden = spd.get(), client]() mutable {
        asm volatile("" : "+r"(hidden) : : "memory");
        hidden->debug("request {} from {}", 12345, client);
    });
    off.Add("zarip", [hidden = logger, client]() mutable {
        asm volatile("" : "+r"(hidden) : : "memory");
        hidden->Debug("request %d from %s", 12345, client);
    });
    off.Run();

    Logger::Shutdown();
    spdlog::shutdown();
    std::fclose(file);
    ::close(fd);
    std::filesystem::remove_all(folder);
    return EXIT_SUCCESS;
}
