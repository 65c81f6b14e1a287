// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "WebClient.h"
#include "zarip/core/StringUtil.h"
#include "zarip/crypto/Digests.h"

namespace zarip {
namespace {

using osa::TcpSocket;
using std::string;

class LiveViewTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(_folder.File("public").c_str(), S_IRWXU), 0);
        _program = std::make_unique<test::Program>(LIVE_VIEW, std::vector<string>{"0", _folder.Path()});
        _port = test::WaitForPort(*_program);
        ASSERT_NE(_port, "") << _program->GetErrors();
    }

    string Ask(const string& request, const string& body = "") const {
        TcpSocket socket;
        test::Send(socket, _port, request + "\r\n\r\n");
        socket.SendAll(body.data(), static_cast<unsigned int>(body.size()));
        return test::ReceiveAll(socket);
    }

    static string DigestOf(const string& bytes) {
        crypto::SHA256 sum;
        sum.Update(bytes);
        string hex;
        for (const char byte : sum.Finish()) {
            constexpr const char* digits = "0123456789abcdef";
            hex += {digits[static_cast<unsigned char>(byte) >> 4U], digits[byte & 15]};
        }
        return hex;
    }

    /// Returns the code of the answer.
    string Upload(const string& digest, const string& length, const string& bytes) const {
        return Ask("PUT /firmware?sha256=" + digest + " HTTP/1.1\r\nContent-Length: " + length, bytes)
            .substr(9, 3);
    }

    test::TempDir _folder;
    std::unique_ptr<test::Program> _program;
    string _port;
};

TEST_F(LiveViewTest, ServesFilesOfItsFolderOnly) {
    _folder.Write("secret.txt", "secret");
    _folder.Write("public/index.html", "<p>0123456789");
    _folder.Write("public/.hidden", "hidden");
    _folder.Write("public/data.bin", "");
    ASSERT_EQ(::symlink("../secret.txt", _folder.File("public/link.txt").c_str()), 0);
    ASSERT_EQ(::symlink("..", _folder.File("public/up").c_str()), 0);
    ASSERT_EQ(::mkfifo(_folder.File("public/pipe").c_str(), S_IRWXU), 0);
    const string whole = Ask("GET / HTTP/1.1");
    const std::size_t at = whole.find("ETag: ");
    ASSERT_NE(at, string::npos) << whole;
    const string tag = whole.substr(at + 6, whole.find('\r', at) - at - 6);
    struct Row {
        const char* path;
        string header;
        const char* code;
        const char* part = "";
    };
    const Row rows[] = {
        {"/", "", "200", "Content-Type: text/html; charset=UTF-8\r\n"},
        {"/index.html", "Range: bytes=3-5", "206", "\r\n\r\n012"},
        {"/index.html", "Range: bytes=3-5", "206", "Content-Range: bytes 3-5/13\r\n"},
        {"/index.html", "Range: bytes=11-", "206", "\r\n\r\n89"},
        {"/index.html", "Range: bytes=-3", "206", "\r\n\r\n789"},
        {"/index.html", "Range: bytes=-99", "206", "Content-Range: bytes 0-12/13\r\n"},
        {"/index.html", "Range: bytes=12-99", "206", "\r\n\r\n9"},
        {"/index.html", "Range: bytes=13-", "416", "Content-Range: bytes */13\r\n"},
        {"/index.html", "Range: bytes=-0", "416", ""},
        {"/index.html", "Range: bytes=5-3", "200", ""},
        {"/index.html", "Range: bytes=0-1,3-4", "200", ""},
        {"/index.html", "Range: bytes=3-5\r\nIf-Range: \"other\"", "200", "\r\n\r\n<p>0"},
        {"/index.html", "Range: bytes=3-5\r\nIf-Range: " + tag, "206", ""},
        {"/index.html", "If-None-Match: \"a\", " + tag, "304", ""},
        {"/index.html", "If-None-Match: \"a\"", "200", ""},
        {"/data.bin", "", "200", "Content-Type: application/octet-stream\r\n"},
    };
    const auto expect = [this](const Row& row) {
        SCOPED_TRACE(row.path + (" " + row.header));
        const string answer = Ask(string("GET ") + row.path + " HTTP/1.1\r\n" + row.header);
        EXPECT_EQ(answer.substr(9, 3), row.code);
        EXPECT_NE(answer.find(row.part), string::npos) << answer;
        EXPECT_EQ(answer.find("secret"), string::npos);
    };
    std::for_each(std::begin(rows), std::end(rows), expect);
    for (const char* path : {"/../secret.txt", "/%2e%2e/secret.txt", "//secret.txt", "/link.txt",
                             "/up/secret.txt", "/.hidden", "/pipe", "/data.bin/x"}) {
        expect({path, "", "404"});
    }
    EXPECT_NE(Ask("PUT / HTTP/1.1").find("405 "), string::npos);
}

/// A viewer of the live picture, which checks what it gets.
class Viewer {
public:
    explicit Viewer(const string& port) {
        _socket.SetBufferSize(16 << 10);
        test::Send(_socket, port, "GET /live HTTP/1.1\r\n\r\n");
    }
    /// Reads a part of the stream and returns its number; 0 for something else than a picture.
    int ReadFrame() {
        const string head = ReadUntil("\r\n\r\n");
        if (head.find("multipart/x-mixed-replace; boundary=frame\r\n") != string::npos) {
            return ReadUntil("--frame\r\n") == "--frame\r\n" ? ReadFrame() : 0;
        }
        const string picture = ReadUntil("\r\n--frame\r\n");
        const bool isWhole = picture.compare(0, 2, "\xFF\xD8") == 0 &&
                             picture.compare(picture.size() - 13, 2, "\xFF\xD9") == 0 &&
                             NumberIn(head, "Content-Length: ") + 11 == static_cast<int>(picture.size());
        return isWhole ? NumberIn(head, "X-Frame: ") : 0;
    }

private:
    static int NumberIn(const string& head, const string& name) {
        const std::size_t at = head.find(name);
        return at != string::npos ? std::atoi(head.c_str() + at + name.size()) : 0;
    }
    string ReadUntil(const string& end) {
        std::size_t at = 0;
        char buffer[4'096];
        while ((at = _held.find(end)) == string::npos) {
            const unsigned int count = _socket.Recv(buffer, sizeof(buffer), 60);
            if (count == 0) {
                return "";
            }
            _held.append(buffer, count);
        }
        const string part = _held.substr(0, at + end.size());
        _held.erase(0, part.size());
        return part;
    }

    TcpSocket _socket;
    string _held;
};

TEST_F(LiveViewTest, ASlowViewerMissesFramesAndDelaysNoOther) {
    std::list<Viewer> viewers;
    for (int i = 0; i < 10; ++i) {
        viewers.emplace_back(_port);
    }
    Viewer slow(_port);
    const int first = slow.ReadFrame();
    EXPECT_GT(first, 0);
    for (Viewer& viewer : viewers) {
        int last = 0;
        for (int i = 0; i < 5; ++i) {
            const int frame = viewer.ReadFrame();
            EXPECT_GT(frame, last);
            last = frame;
        }
    }
    while (viewers.front().ReadFrame() < first + 35) {
    }
    // What waited in the kernel comes first; then a gap.
    int last = first;
    int gap = 1;
    while (gap == 1 && last < first + 35) {
        const int frame = slow.ReadFrame();
        ASSERT_GT(frame, last);
        gap = frame - last;
        last = frame;
    }
    EXPECT_GT(gap, 1);
    for (int i = 0; i < 5; ++i) {
        viewers.emplace_back(_port);
    }
    EXPECT_GT(viewers.back().ReadFrame(), 0);
    EXPECT_NE(Ask("GET /live HTTP/1.1").find(" 503 "), string::npos);
    viewers.clear();  // when these are noticed there is room again
    EXPECT_TRUE(test::WaitUntil([&] { return Viewer(_port).ReadFrame() > 0; }));
    _program->GetProcess().Kill(SIGTERM);
    ASSERT_TRUE(_program->GetProcess().Wait(60'000));
    EXPECT_EQ(_program->GetProcess().GetExitStatus(), 0);
}

TEST_F(LiveViewTest, KeepsAnUploadOnlyIfItIsWhole) {
    const string body = "firmware";
    const auto files = [&] {
        return _folder.Read("firmware.bin") + "|" +
               (::access(_folder.File("firmware.bin.part").c_str(), F_OK) == 0 ? "part" : "");
    };
    const string right = DigestOf(body);
    EXPECT_EQ(Upload(right, "8", "otherone"), "400");
    EXPECT_EQ(files(), "|");
    string upper = right;
    core::StringUtil::ToUpper(upper);
    EXPECT_EQ(Upload(upper, "8", body), "200");
    EXPECT_EQ(files(), "firmware|");
    EXPECT_EQ(Upload(right, "8", "firmwarf"), "400");
    EXPECT_EQ(Upload("", "8", ""), "400");
    EXPECT_EQ(Upload(right, "0", ""), "411");
    EXPECT_EQ(Upload(right, "268435457", ""), "413");
    EXPECT_NE(Ask("GET /firmware HTTP/1.1").find("405 "), string::npos);
    {
        TcpSocket socket;
        const string begin = "PUT /firmware?sha256=" + right + " HTTP/1.1\r\nContent-Length: 8\r\n\r\n";
        test::Send(socket, _port, begin + "fir");
        EXPECT_TRUE(test::WaitUntil([&] { return files() == "firmware|part"; }));
        EXPECT_EQ(Upload(right, "8", body), "409");
    }
    EXPECT_TRUE(test::WaitUntil([&] { return files() == "firmware|"; }));
}

TEST_F(LiveViewTest, TakesAnUploadLargerThanItsMemory) {
    const auto peak = [&] {
        std::ifstream status("/proc/" + std::to_string(_program->GetProcess().GetPid()) + "/status");
        string word;
        while (status >> word && word != "VmHWM:") {
        }
        int kilobytes = 0;
        status >> kilobytes;
        return kilobytes;
    };
    const int before = peak();
    const string large(64U << 20U, 'x');
    EXPECT_EQ(Upload(DigestOf(large), std::to_string(large.size()), large), "200");
    EXPECT_EQ(_folder.Read("firmware.bin").size(), large.size());
    EXPECT_GT(before, 0);
    EXPECT_LT(peak() - before, 32 << 10);
}

}  // namespace
}  // namespace zarip
