// SPDX-License-Identifier: MIT

// The owner of the serial line to a pan-tilt-zoom head, which it talks to in Pelco-D.
//
//   ptz-service [LINE]           such as /dev/ttyS1; without it a made-up head on a pseudo-terminal
//
// The settings of the line: the speed in baud; the framing, 0 without parity, 1 even, 2 odd; the address of
// the head, 1 to 255; and whether there are two stop bits. Settings that cannot be are logged and change
// nothing. While polling is on, the head is asked twice a second where it looks. The made-up head has the
// address 1 and turns by a degree whenever it is asked; a pseudo-terminal takes no parity.

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <zarip/core/Delegate.h>
#include <zarip/core/Logger.h>
#include <zarip/core/ThreadPool.h>
#include <zarip/interfaces/IPtzSerialProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Thread.h>
#include <zarip/osa/TimeSpan.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "common/Fd.h"
#include "common/LogToStdout.h"

namespace {

using zarip::interfaces::IPtzSerialProvider;
using zarip::osa::Exception;
using zarip::osa::TimeSpan;
using Clock = std::chrono::steady_clock;

constexpr TimeSpan kPollPause = TimeSpan::FromMilliseconds(500);
constexpr std::chrono::milliseconds kPatience(200);

// Pelco-D ---------------------------------------------------------------------------------------------------

constexpr unsigned char kBegin = 0xFF;
constexpr unsigned char kAskPan = 0x51;
constexpr unsigned char kTellPan = 0x59;

/// Begin, address, two bytes that say what it is, two of data, and the sum of the five before.
using Frame = std::array<unsigned char, 7>;

Frame MakeFrame(unsigned int address, unsigned char what, unsigned int data) {
    Frame frame = {kBegin, static_cast<unsigned char>(address),   0,
                   what,   static_cast<unsigned char>(data >> 8), static_cast<unsigned char>(data),
                   0};
    for (std::size_t i = 1; i < 6; ++i) {
        frame[6] = static_cast<unsigned char>(frame[6] + frame[i]);
    }
    return frame;
}

unsigned int DataOf(const Frame& frame) {
    return frame[4] * 256U + frame[5];
}

/// Finds the frames in what a line brings.
class FrameReader {
public:
    /// Reads what is there; false when there was nothing.
    bool ReadFrom(int fd) {
        unsigned char bytes[64];
        const ssize_t count = ::read(fd, bytes, sizeof(bytes));
        if (count > 0) {
            _text.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    bool Take(Frame& frame) {
        for (; _text.size() >= frame.size(); _text.erase(0, 1)) {
            std::copy_n(_text.begin(), frame.size(), frame.begin());
            if (frame == MakeFrame(frame[1], frame[3], DataOf(frame))) {
                _text.erase(0, frame.size());
                return true;
            }
        }
        return false;
    }

private:
    std::string _text;  // less than a frame once they are taken
};

bool Send(int fd, const Frame& frame) {
    return ::write(fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size());
}

// The made-up head ------------------------------------------------------------------------------------------

class Head final : public zarip::osa::Runnable {
public:
    /// The name of the line to it.
    std::string GetLine() const {
        char name[64];
        if (::grantpt(_end.Get()) != 0 || ::unlockpt(_end.Get()) != 0 ||
            ::ptsname_r(_end.Get(), name, sizeof(name)) != 0) {
            throw Exception("there is no pseudo-terminal");
        }
        return name;
    }

    /// To be called when the line is open: before, the pseudo-terminal reports that it was closed.
    void Run() override {
        pollfd fds[] = {{_stop.Get(), POLLIN, 0}, {_end.Get(), POLLIN, 0}};
        FrameReader reader;
        while (::poll(fds, std::size(fds), -1) >= 0 || errno == EINTR) {
            if (fds[0].revents != 0 || (fds[1].revents != 0 && !reader.ReadFrom(_end.Get()))) {
                return;
            }
            Frame frame;
            while (reader.Take(frame)) {
                if (frame == MakeFrame(kAddress, kAskPan, 0)) {
                    _pan = (_pan + 100) % 36'000;
                    Send(_end.Get(), MakeFrame(kAddress, kTellPan, _pan));
                }
            }
        }
    }

    void Stop() override { ::eventfd_write(_stop.Get(), 1); }

private:
    static constexpr unsigned int kAddress = 1;

    const Fd _stop{Check(::eventfd(0, EFD_CLOEXEC), "eventfd")};
    const Fd _end{Check(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt")};
    unsigned int _pan = 0;  // hundredths of a degree
};

// The service -----------------------------------------------------------------------------------------------

constexpr struct {
    unsigned int baud;
    speed_t code;
} kSpeeds[] = {{2'400, B2400},   {4'800, B4800},   {9'600, B9600},    {19'200, B19200},
               {38'400, B38400}, {57'600, B57600}, {115'200, B115200}};

/// Its members come on the bus's thread, polls on the pool's; they take turns.
class PtzService final : public IPtzSerialProvider {
public:
    PtzService(const std::string& line, const zarip::core::Logger& logger)
        : _line(Check(::open(line.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), line.c_str())),
          _logger(logger) {
        Initialize(_settings);
    }

    void SetPtzSerialSettingsAndInitialize(unsigned int speed, int framing, unsigned int address,
                                           bool twoStopBits) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        const Settings settings = {speed, framing, address, twoStopBits};
        try {
            Initialize(settings);
            _settings = settings;
        } catch (const Exception&) {
            Initialize(_settings);
            throw;
        }
    }

    unsigned int GetPtzSerialSettingsAndInitialize(int& framing, unsigned int& address,
                                                   bool& twoStopBits) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        const termios line = Initialize(_settings);
        framing = _settings.framing;
        address = _settings.address;
        twoStopBits = (line.c_cflag & CSTOPB) != 0;
        return _settings.speed;
    }

    void SetPtzPollingState(bool on) override {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isPolling = on;
        _hasAnswered = kUnknown;
        _pool.GetTaskQueue()->DequeueTasksByTarget(this);
        if (on) {
            _pool.GetTaskQueue()->QueueTask(zarip::core::MakeDelegate(this, &PtzService::Poll));
        }
    }

    bool GetPtzPollingState() override {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _isPolling;
    }

private:
    struct Settings {
        unsigned int speed = 9'600;
        int framing = 0;
        unsigned int address = 1;
        bool twoStopBits = false;
    };
    enum Answered { kUnknown, kNo, kYes };

    /// Returns what the line has then. Throws when that is not all that was wanted.
    termios Initialize(const Settings& settings) const {
        const auto speed = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                                        [&](const auto& known) { return known.baud == settings.speed; });
        if (speed == std::end(kSpeeds) || settings.framing < 0 || settings.framing > 2 ||
            settings.address < 1 || settings.address > 255) {
            throw Exception("such settings cannot be");
        }
        termios line{};
        Check(::tcgetattr(_line.Get(), &line), "tcgetattr");
        ::cfmakeraw(&line);
        line.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD | CSTOPB | CRTSCTS);
        line.c_cflag |= CLOCAL | CREAD;
        line.c_cflag |= settings.framing == 0 ? 0 : settings.framing == 1 ? PARENB : PARENB | PARODD;
        line.c_cflag |= settings.twoStopBits ? CSTOPB : 0;
        ::cfsetispeed(&line, speed->code);
        ::cfsetospeed(&line, speed->code);
        Check(::tcsetattr(_line.Get(), TCSANOW, &line), "tcsetattr");
        ::tcflush(_line.Get(), TCIOFLUSH);
        // That succeeds when any of it could be done.
        termios is{};
        Check(::tcgetattr(_line.Get(), &is), "tcgetattr");
        constexpr tcflag_t framing = CSIZE | CSTOPB | PARENB | PARODD;
        if (::cfgetospeed(&is) != speed->code || (is.c_cflag & framing) != (line.c_cflag & framing)) {
            throw Exception("the line does not take such settings");
        }
        return line;
    }

    void Poll() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!_isPolling) {
            return;
        }
        unsigned int pan = 0;
        const bool hasAnswered = AskPan(pan);
        if (hasAnswered && _hasAnswered != kYes) {
            _logger.Information("The head answers: it looks at %u.%02u degrees", pan / 100, pan % 100);
        } else if (!hasAnswered && _hasAnswered != kNo) {
            _logger.Warning("The head does not answer");
        }
        _hasAnswered = hasAnswered ? kYes : kNo;
        // Switched off and on while this one waited for its turn, there is one already.
        _pool.GetTaskQueue()->DequeueTasksByTarget(this);
        _pool.GetTaskQueue()->QueueTask(kPollPause, zarip::core::MakeDelegate(this, &PtzService::Poll));
    }

    bool AskPan(unsigned int& pan) const {
        ::tcflush(_line.Get(), TCIFLUSH);
        if (!Send(_line.Get(), MakeFrame(_settings.address, kAskPan, 0))) {
            return false;
        }
        FrameReader reader;
        Frame frame;
        const Clock::time_point end = Clock::now() + kPatience;
        for (auto left = kPatience; left.count() > 0;
             left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now())) {
            pollfd fd = {_line.Get(), POLLIN, 0};
            if (::poll(&fd, 1, static_cast<int>(left.count())) > 0 && !reader.ReadFrom(_line.Get())) {
                return false;  // the line is gone
            }
            while (reader.Take(frame)) {
                if (frame[1] == _settings.address && frame[3] == kTellPan) {
                    pan = DataOf(frame);
                    return true;
                }
            }
        }
        return false;
    }

    const Fd _line;
    const zarip::core::Logger& _logger;
    std::mutex _mutex;
    Settings _settings;
    bool _isPolling = false;
    Answered _hasAnswered = kUnknown;
    zarip::core::ThreadPool _pool;  // last: its task needs the others
};

int Usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: ptz-service [LINE]\n"
                 "  LINE  the serial line to the head; without it there is a made-up one\n");
    return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        return Usage(stdout);
    }
    if (argc > 2) {
        return Usage(stderr);
    }
    try {
        const zarip::msgbus::StopSignal stop;
        const zarip::core::Logger* const logger = LogToStdout("PtzSerial");
        const std::unique_ptr<Head> head(argc < 2 ? new Head : nullptr);
        PtzService service(head ? head->GetLine() : argv[1], *logger);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            IPtzSerialProvider::CreateServer(&bus, &service));
        std::unique_ptr<zarip::osa::Thread> thread;
        if (head) {
            thread = std::make_unique<zarip::osa::Thread>("PtzHead", head.get(), 65'536, 0);
        }
        bus.StartServer();  // last: from here on calls are answered
        if (thread) {
            thread->Run();
        }
        const bool isAsked = stop.Wait(bus);
        if (thread) {
            head->Stop();
            thread->Join();
        }
        return isAsked ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ptz-service: %s\n", e.what());
        return 1;
    }
}
