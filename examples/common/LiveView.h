// SPDX-License-Identifier: MIT

#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <zarip/core/Logger.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpConnection.h>
#include <zarip/inet/IHttpStreamHandler.h>
#include <zarip/osa/TcpSocket.h>

#include "Failure.h"

/// Shows a live picture: a stream of JPEG pictures ("multipart/x-mixed-replace") that every browser shows in
/// an <img>, at 10 frames a second for up to 16 viewers. *Thread-safe.*
///
/// A thread takes a picture 10 times a second while there are viewers. Each viewer has a thread of its own,
/// which sends the newest picture as soon as the one before has left. So a slow viewer gets fewer pictures
/// and delays no other viewer, and one that takes nothing for 5 seconds is cut.
class LiveView final : public zarip::inet::IHttpStreamHandler {
public:
    using Clock = std::chrono::steady_clock;
    /// Takes a picture, as a JPEG file. *Called on the thread of the pictures.*
    using Take = std::function<std::string()>;
    /// Decides about a viewer: throws `Failure` to refuse it, and returns what says later on whether it may
    /// still watch, which is called on the viewer's thread every 10 seconds.
    using Admit = std::function<std::function<bool()>(const zarip::inet::HttpRequest&)>;

    static constexpr std::chrono::milliseconds kFrame{100};
    static constexpr std::chrono::seconds kAdmission{10};
    static constexpr std::size_t kMostViewers = 16;
    static constexpr unsigned int kPatienceMs = 5'000;
    /// The buffer of the kernel is small, because a picture that waits there for a slow viewer is old when it
    /// arrives.
    static constexpr unsigned int kSocketBuffer = 64U << 10U;

    LiveView(Take take, Admit admit) : _take(std::move(take)), _admit(std::move(admit)) {
        _camera = std::thread(&LiveView::TakePictures, this);
    }
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    /// Cuts all viewers. The server that it was added to has stopped by then.
    ~LiveView() override {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _isEnding = true;
            for (const Viewer& viewer : _viewers) {
                ::shutdown(viewer.socket->getHandle(), SHUT_RDWR);  // ends a send that waits
            }
        }
        _changed.notify_all();
        _ended.notify_all();
        for (Viewer& viewer : _viewers) {
            viewer.thread.join();
        }
        _camera.join();
    }

    void HandleHead(const zarip::inet::HttpRequest& head, zarip::inet::HttpResponse& response,
                    zarip::inet::IHttpConnection& connection) override {
        response.SetHeader("Cache-Control", "no-store");
        try {
            if (head.GetMethodName() != "GET") {
                response.SetHeader("Allow", "GET");
                throw Failure{405, "This method does not fit here."};
            }
            const std::function<bool()> mayWatch = _admit(head);
            const std::lock_guard<std::mutex> lock(_mutex);
            _viewers.remove_if([](Viewer& viewer) {
                if (viewer.hasGone) {
                    viewer.thread.join();
                }
                return viewer.hasGone.load();
            });
            if (_viewers.size() >= kMostViewers) {
                response.SetHeader("Retry-After", "10");
                throw Failure{503, "Too many are watching already."};
            }
            Viewer& viewer = _viewers.emplace_back(connection.Take());
            viewer.socket->SetBufferSize(kSocketBuffer);
            try {
                viewer.thread = std::thread([this, &viewer, mayWatch] { Show(viewer, mayWatch); });
            } catch (...) {
                _viewers.pop_back();
                throw;
            }
            _changed.notify_all();
        } catch (const Failure& failure) {
            Answer(response, failure);
        }
    }

private:
    struct Viewer {
        explicit Viewer(std::unique_ptr<zarip::osa::TcpSocket> connection) : socket(std::move(connection)) {}
        const std::unique_ptr<zarip::osa::TcpSocket> socket;
        std::thread thread;
        std::atomic<bool> hasGone{false};
    };

    struct Frame {
        std::uint64_t number = 0;
        std::shared_ptr<const std::string> part;
    };

    static void Send(Viewer& viewer, const std::string& bytes) {
        viewer.socket->SetTimeLimit(kPatienceMs);
        viewer.socket->SendAll(bytes.data(), static_cast<unsigned int>(bytes.size()));
    }

    void Show(Viewer& viewer, const std::function<bool()>& mayWatch) {
        try {
            Send(viewer,
                 "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=frame\r\n"
                 "Cache-Control: no-store\r\nConnection: close\r\nX-Content-Type-Options: nosniff\r\n\r\n"
                 "--frame\r\n");
            Clock::time_point admission = Clock::now() + kAdmission;
            Frame frame;
            while (WaitForFrame(frame)) {
                if (Clock::now() >= admission) {
                    if (!mayWatch()) {
                        break;
                    }
                    admission = Clock::now() + kAdmission;
                }
                Send(viewer, *frame.part);
            }
        } catch (const std::exception& e) {
            _logger->Debug("A viewer has gone: %s", e.what());
        }
        ::shutdown(viewer.socket->getHandle(), SHUT_RDWR);
        viewer.hasGone = true;
        _changed.notify_all();
    }

    /// Replaces the frame by the newest one when that is another; false at the end.
    bool WaitForFrame(Frame& frame) {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [&] { return _isEnding || _newest.number > frame.number; });
        frame = _newest;
        return !_isEnding;
    }

    /// Needs the lock.
    bool IsWatched() const {
        for (const Viewer& viewer : _viewers) {
            if (!viewer.hasGone) {
                return true;
            }
        }
        return false;
    }

    void TakePictures() {
        std::unique_lock<std::mutex> lock(_mutex);
        Clock::time_point next = Clock::now();
        while (!_isEnding) {
            if (!IsWatched()) {
                _changed.wait(lock, [this] { return _isEnding || IsWatched(); });
                next = Clock::now();
                continue;
            }
            lock.unlock();
            auto part = MakePart();
            lock.lock();
            if (part != nullptr) {
                _newest = {_newest.number + 1, std::move(part)};
                _changed.notify_all();
            }
            next = std::max(next + kFrame, Clock::now());
            _ended.wait_until(lock, next, [this] { return _isEnding; });
        }
    }

    /// A part of the stream with the boundary after it, which has browsers show the picture at once. Null if
    /// there is no picture.
    std::shared_ptr<const std::string> MakePart() {
        try {
            const std::string picture = _take();
            return std::make_shared<const std::string>(
                "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(picture.size()) +
                "\r\nX-Frame: " + std::to_string(++_taken) + "\r\n\r\n" + picture + "\r\n--frame\r\n");
        } catch (const std::exception& e) {
            _logger->Error("No picture: %s", e.what());
            return nullptr;
        }
    }

    zarip::core::Logger* const _logger = zarip::core::Logger::GetLogger("LiveView");
    const Take _take;
    const Admit _admit;
    std::uint64_t _taken = 0;  // used by the thread of the pictures alone
    std::mutex _mutex;         // guards what follows, except what viewers' threads use of their own
    std::condition_variable _changed;
    std::condition_variable _ended;
    bool _isEnding = false;
    Frame _newest;
    std::list<Viewer> _viewers;
    std::thread _camera;
};
