// SPDX-License-Identifier: MIT

// Small strings that leave through a pipe at once, beside write(2) and stdio.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <zarip/osa/PipeStream.h>

#include "Rounds.h"

namespace {

constexpr std::size_t kCapacity = 1U << 20U;

/// A pipe with much room, which is emptied when it is full: that costs a small part of what is measured.
class RoomyPipe {
public:
    RoomyPipe() {
        if (::pipe2(_fds, O_CLOEXEC) != 0) {
            std::abort();
        }
        const int size = ::fcntl(_fds[1], F_SETPIPE_SZ, kCapacity);
        _capacity = size > 0 ? static_cast<std::size_t>(size) : 65'536;
    }
    RoomyPipe(const RoomyPipe&) = delete;
    RoomyPipe& operator=(const RoomyPipe&) = delete;
    ~RoomyPipe() { ::close(_fds[0]); }

    /// The end for writing, which the caller owns.
    int GetWriteFd() const { return _fds[1]; }

    void MakeRoom(std::size_t size) {
        _used += size;
        if (_used + size > _capacity / 2) {
            for (std::size_t left = _used - size; left > 0;) {
                const ssize_t length = ::read(_fds[0], _block.get(), left);
                if (length <= 0) {
                    std::abort();
                }
                left -= static_cast<std::size_t>(length);
            }
            _used = size;
        }
    }

private:
    int _fds[2] = {-1, -1};
    std::size_t _capacity = 0;
    std::size_t _used = 0;
    std::unique_ptr<char[]> _block{new char[kCapacity]};
};

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    for (const std::size_t size : {64U, 4'096U}) {
        const std::string text(size, 'x');
        RoomyPipe plain;
        RoomyPipe buffered;
        RoomyPipe ours;
        FILE* const file = ::fdopen(buffered.GetWriteFd(), "w");
        zarip::osa::PipeStream stream(-1, ours.GetWriteFd());

        const std::string title = std::to_string(size) + " bytes through a pipe, flushed";
        bench::Rounds rounds(title.c_str(), options);
        rounds.Add("write(2)", [&] {
            plain.MakeRoom(size);
            if (::write(plain.GetWriteFd(), text.data(), size) < 0) {
                std::abort();
            }
        });
        rounds.Add("fwrite and fflush", [&] {
            buffered.MakeRoom(size);
            std::fwrite(text.data(), 1, size, file);
            std::fflush(file);
        });
        rounds.Add("zarip", [&] {
            ours.MakeRoom(size);
            stream.write(text.data(), static_cast<std::streamsize>(size)).flush();
        });
        rounds.Run();
        std::fclose(file);
        ::close(plain.GetWriteFd());
    }
    return EXIT_SUCCESS;
}
