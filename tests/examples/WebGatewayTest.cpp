#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/PrivateBus.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "zarip/osa/Process.h"
#include "zarip/osa/TcpSocket.h"

namespace zarip {
namespace {

using std::string;
using Strings = std::vector<string>;

/// A program of the camera on the private bus, with its output in a file.
class Program {
public:
    Program(const char* path, const Strings& arguments) {
        osa::Process::Options options;
        options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = test::PrivateBus::Get().GetAddress();
        options.output = osa::Process::Redirect::File(_folder.File("output"));
        options.error = osa::Process::Redirect::Output();
        _process = std::make_unique<osa::Process>(path, arguments, options);
    }
    string GetOutput() const { return _folder.Read("output"); }

private:
    test::TempDir _folder;
    std::unique_ptr<osa::Process> _process;
};

class WebGatewayTest : public testing::Test {
protected:
    void SetUp() override {
        const string page = _folder.Write("index.html", "<!DOCTYPE html><script>1</script>");
        const string device = _folder.Write("device.ini", _device);
        _gateway = std::make_unique<Program>(WEB_GATEWAY, Strings{page, "0", device});
        const string mark = "http://127.0.0.1:";
        ASSERT_TRUE(test::WaitUntil([&] {
            const string output = _gateway->GetOutput();
            const std::size_t at = output.find(mark);
            const std::size_t end = at != string::npos ? output.find("/\n", at) : at;
            _port = end != string::npos ? output.substr(at + mark.size(), end - at - mark.size()) : "";
            return !_port.empty();
        })) << _gateway->GetOutput();
    }

    /// Returns the whole answer. "PORT" in the headers becomes the port of the gateway.
    string Ask(const string& line, string headers, const string& form = "") const {
        for (std::size_t at; (at = headers.find("PORT")) != string::npos;) {
            headers.replace(at, 4, _port);
        }
        const string request = line + " HTTP/1.1\r\n" + headers +
                               "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                               std::to_string(form.size()) + "\r\n\r\n" + form;
        osa::TcpSocket socket;
        socket.Connect("127.0.0.1", static_cast<unsigned short>(std::stoi(_port)), 10);
        socket.SendAll(request.data(), static_cast<unsigned int>(request.size()));
        string answer;
        char buffer[4'096];
        while (const unsigned int count = socket.Recv(buffer, sizeof(buffer), 60)) {
            answer.append(buffer, count);
        }
        return answer;
    }

    int CodeOf(const string& line, const string& headers, const string& form = "") const {
        const string answer = Ask(line, headers, form);
        return answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0;
    }

    test::TempDir _folder;
    string _device = "[device]\nfriendlyName = Yard\n[web]\nnames = camera.local Yard\n";
    std::unique_ptr<Program> _gateway;
    string _port;
};

TEST_F(WebGatewayTest, RefusesWhatAnotherSiteSends) {
    const string host = "Host: 127.0.0.1:PORT\r\n";
    const struct {
        const char* headers;
        bool isRefused;
    } rows[] = {
        {"", false},
        {"Origin: http://127.0.0.1:PORT\r\n", false},
        {"Origin: https://127.0.0.1:PORT\r\n", false},
        {"Origin: http://127.0.0.1:1\r\n", true},
        {"Origin: http://127.0.0.1\r\n", true},
        {"Origin: http://127.0.0.1:PORT.example.com\r\n", true},
        {"Origin: http://example.com\r\n", true},
        {"Origin: 127.0.0.1:PORT\r\n", true},
        {"Origin: null\r\n", true},
        {"Origin:\r\n", true},
        {"Sec-Fetch-Site: same-origin\r\n", false},
        {"Sec-Fetch-Site: same-site\r\n", true},
        {"Sec-Fetch-Site: cross-site\r\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.headers);
        // Without a security service these are answered 503 or 401 when they get through.
        for (const char* line : {"POST /login", "POST /logout", "POST /api/users", "DELETE /api/users?name=a",
                                 "POST /", "DELETE /device.xml"}) {
            EXPECT_EQ(CodeOf(line, host + row.headers, "user=a&password=b") == 403, row.isRefused) << line;
        }
        EXPECT_EQ(CodeOf("GET /", host + row.headers), 200);
    }
    EXPECT_NE(CodeOf("POST /login", "Host: LocalHost:80\r\nOrigin: http://localhost\r\n"), 403);
}

TEST_F(WebGatewayTest, ServesOnlyTheNamesItKnows) {
    const struct {
        const char* host;
        bool isKnown;
    } rows[] = {
        {"127.0.0.1", true},
        {"192.0.2.7:8080", true},
        {"[::1]:PORT", true},
        {"[2001:db8::7]", true},
        {"LOCALHOST:1", true},
        {"Camera.local", true},
        {"yard:PORT", true},
        {"example.com", false},
        {"1.2.3.4.com", false},
        {"127.1", false},
        {"[::1", false},
        {"[]", false},
        {"::1", false},
        {"", false},
        {":80", false},
        {"localhost:x", false},
        {"local.host", false},
        {"camera", false},
        {"[1.2.3.4]", false},
        {"camera.local.evil", false},
        {"localhost.evil", false},
        {"localhost@evil", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host);
        for (const char* line : {"GET /", "GET /device.xml", "GET /health", "POST /login"}) {
            EXPECT_EQ(CodeOf(line, string("Host: ") + row.host + "\r\n") != 421, row.isKnown) << line;
        }
    }
    EXPECT_EQ(CodeOf("GET /", ""), 421);
}

}  // namespace
}  // namespace zarip
