// SPDX-License-Identifier: MIT

// Log records that are flushed and records of a level that is off, beside write(2), stdio and spdlog.

#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <zarip/core/FileAppender.h>
#include <zarip/core/Logger.h>

#include "Rounds.h"

using zarip::core::Logger;

namespace {

constexpr char kClient[] = "192.168.1.10";
constexpr char kRecord[] = "(ZARIP)           HttpServer [ERROR] :: request 12345 from 192.168.1.10\n";

/// The contestants, each with a file of its own in a temporary folder.
class Logs {
public:
    Logs()
        : _fd(::open((_folder + "/write").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)),
          _file(std::fopen((_folder + "/fprintf").c_str(), "a")),
          _spd(spdlog::basic_logger_mt("HttpServer", _folder + "/spdlog")) {
        if (_fd < 0 || _file == nullptr) {
            throw std::runtime_error("the log files cannot be opened");
        }
        _spd->set_pattern("(ZARIP) %20n [%5l] :: %v");
        _spd->flush_on(spdlog::level::trace);
        Logger::AddAppender(new zarip::core::FileAppender((_folder + "/zarip").c_str()), true);
        _logger = Logger::GetLogger("HttpServer");
    }
    Logs(const Logs&) = delete;
    Logs& operator=(const Logs&) = delete;
    ~Logs() {
        Logger::Shutdown();
        spdlog::shutdown();
        std::fclose(_file);
        ::close(_fd);
        std::filesystem::remove_all(_folder);
    }

    void CompareFlushed(const bench::Options& options) {
        bench::Rounds rounds("log record, flushed", options);
        rounds.Add("write(2), same text", [this] { Write(); });
        rounds.Add("fprintf and fflush", [this] {
            std::fprintf(_file, "(%5s) %20s [%5s] :: request %d from %s\n", "ZARIP", "HttpServer", "ERROR",
                         12345, kClient);
            std::fflush(_file);
        });
        rounds.Add("spdlog", [this] { _spd->error("request {} from {}", 12345, kClient); });
        rounds.Add("zarip", [this] { _logger->Error("request %d from %s", 12345, kClient); });
        rounds.Run();
    }

    /// The library does not know the name of such a thread.
    void CompareForeign(const bench::Options& options) {
        bench::Rounds rounds("log record, flushed, on a thread made without osa::Thread", options);
        rounds.Add("write(2), same text", [this] { Write(); });
        rounds.Add("zarip", [this] { _logger->Error("request %d from %s", 12345, kClient); });
        std::thread([&rounds] { rounds.Run(); }).join();
    }

    /// Hides the logger from the compiler before each record. Otherwise the level would be tested only once.
    void CompareOff(const bench::Options& options) {
        bench::Rounds rounds("log record whose level is off", options);
        rounds.Add("nothing", [hidden = _logger]() mutable { asm volatile("" : "+r"(hidden) : : "memory"); });
        rounds.Add("spdlog", [hidden = _spd.get()]() mutable {
            asm volatile("" : "+r"(hidden) : : "memory");
            hidden->debug("request {} from {}", 12345, kClient);
        });
        rounds.Add("zarip", [hidden = _logger]() mutable {
            asm volatile("" : "+r"(hidden) : : "memory");
            hidden->Debug("request %d from %s", 12345, kClient);
        });
        rounds.Run();
    }

private:
    static std::string MakeFolder() {
        std::string folder = (std::filesystem::temp_directory_path() / "zarip-bench-XXXXXX").string();
        if (::mkdtemp(folder.data()) == nullptr) {
            throw std::runtime_error("the folder " + folder + " cannot be made");
        }
        return folder;
    }

    void Write() const {
        if (::write(_fd, kRecord, sizeof(kRecord) - 1) < 0) {
            std::abort();
        }
    }

    const std::string _folder = MakeFolder();
    const int _fd;
    FILE* const _file;
    const std::shared_ptr<spdlog::logger> _spd;
    const Logger* _logger = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    Logs logs;
    logs.CompareFlushed(options);
    logs.CompareForeign(options);
    logs.CompareOff(options);
    return EXIT_SUCCESS;
}
