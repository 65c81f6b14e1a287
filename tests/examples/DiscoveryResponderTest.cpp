// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "../../examples/common/SearchQueue.h"
#include "WebClient.h"
#include "support/OwnNetwork.h"
#include "support/Program.h"
#include "support/TempDir.h"
#include "zarip/osa/SocketException.h"
#include "zarip/osa/UdpSocket.h"

namespace zarip {
namespace {

using osa::UdpSocket;
using std::string;
using Texts = std::vector<string>;
using Clock = std::chrono::steady_clock;

constexpr const char* kGroup = "239.255.255.250";
constexpr const char* kNear = "127.0.0.1";
constexpr const char* kFar = "198.51.100.7";

const string kUuid = "uuid:00000000-0000-0000-0000-000000000001";
const string kType = "urn:schemas-upnp-org:device:Basic:1";
const string kRoot = "upnp:rootdevice";

/// The program, in the network of the calling thread.
class Responder {
public:
    /// Returns when it receives.
    explicit Responder(const char* maxAge)
        : _program(DISCOVERY_RESPONDER, {_folder.Write("device.ini", "[device]\nUDN = " + kUuid +
                                                                         "\ndeviceType = " + kType + "\n"),
                                         "8080", maxAge}) {
        test::WaitUntil([this] { return _program.GetOutput().find('\n') != string::npos; });
        EXPECT_EQ(_program.GetOutput(),
                  "answering searches at 127.0.0.1, location http://127.0.0.1:8080/device.xml\n");
    }

    void Freeze() {
        _program.GetProcess().Kill(SIGSTOP);
        ::waitpid(_program.GetProcess().GetPid(), nullptr, WUNTRACED);
    }
    void Thaw() { _program.GetProcess().Kill(SIGCONT); }
    /// Asks it to, and returns its exit status.
    int End() {
        _program.GetProcess().Kill();
        return _program.Wait();
    }

private:
    test::TempDir _folder;
    test::Program _program;
};

void Send(const UdpSocket& from, const string& text, const char* host = kGroup) {
    from.SendTo(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()),
                host, 1900);
}

/// A datagram; "" when none comes.
string Receive(const UdpSocket& socket, unsigned int seconds = 10) {
    unsigned char buffer[2000];
    UdpSocket::Info info{};
    try {
        const unsigned int length = socket.RecvFrom(buffer, sizeof(buffer), info, seconds);
        return string(reinterpret_cast<const char*>(buffer), length);
    } catch (const osa::SocketException&) {
        return "";
    }
}

/// All that has come.
Texts ReceiveAll(const UdpSocket& socket) {
    Texts texts;
    for (string text; !(text = Receive(socket, 0)).empty();) {
        texts.push_back(text);
    }
    return texts;
}

/// With what differs from machine to machine, and from time to time, as "*".
string Mask(const string& text) {
    static const std::regex server("\r\nSERVER: Linux/[0-9]+\\.[0-9]+ UPnP/1\\.0 zarip-demo/1\\.0\r\n");
    static const std::regex date(
        "\r\nDATE: (Sun|Mon|Tue|Wed|Thu|Fri|Sat), [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} "
        "GMT\r\n");
    return std::regex_replace(std::regex_replace(text, server, "\r\nSERVER: *\r\n"), date, "\r\nDATE: *\r\n");
}

string Search(const string& type, const string& most = "MX: 1\r\n",
              const string& what = "MAN: \"ssdp:discover\"\r\n",
              const string& first = "M-SEARCH * HTTP/1.1\r\n") {
    return first + "HOST: 239.255.255.250:1900\r\n" + what + most + "ST: " + type + "\r\n\r\n";
}

string Answer(const string& type, const string& name) {
    return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nDATE: *\r\nEXT: \r\n"
           "LOCATION: http://127.0.0.1:8080/device.xml\r\nSERVER: *\r\nST: " +
           type + "\r\nUSN: " + name + "\r\n\r\n";
}

/// Searches until there is an answer: it may be busy with others.
bool Ask(const UdpSocket& socket) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        Send(socket, Search(kRoot));
        if (!Receive(socket, 2).empty()) {
            return true;
        }
    }
    return false;
}

/// Waits until all is answered that was asked before, which takes at most a second. Answers are given in
/// the order in which they become due, so one to what is asked after that second comes after the others.
bool WaitForAnswers() {
    const UdpSocket socket(kNear, 0, 0);
    if (!Ask(socket)) {
        return false;
    }
    const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
    Clock::time_point asked;
    do {
        asked = Clock::now();
        if (!Ask(socket)) {
            return false;
        }
    } while (asked <= end);
    return true;
}

class DiscoveryResponderTest : public testing::Test {
protected:
    void SetUp() override {
        string refusal;
        if (!test::EnterOwnNetwork(refusal)) {
            GTEST_SKIP() << "no network of its own: " << refusal;
        }
        ASSERT_TRUE(test::OpenLoopback());
    }
};

TEST_F(DiscoveryResponderTest, AnnouncesTheDeviceAgainAndAgainAndThatItGoes) {
    const UdpSocket listener("0.0.0.0", 1900, 1);
    listener.AddMembership(kGroup);
    Responder responder("2");
    const struct {
        string type;
        string name;
    } targets[] = {{kRoot, kUuid + "::" + kRoot}, {kUuid, kUuid}, {kType, kUuid + "::" + kType}};
    // Three times because datagrams get lost, then because it would be forgotten.
    for (int time = 0; time < 5; ++time) {
        for (const auto& target : targets) {
            EXPECT_EQ(Mask(Receive(listener)),
                      "NOTIFY * HTTP/1.1\r\nCACHE-CONTROL: max-age=2\r\nHOST: 239.255.255.250:1900\r\n"
                      "LOCATION: http://127.0.0.1:8080/device.xml\r\nNT: " +
                          target.type + "\r\nNTS: ssdp:alive\r\nSERVER: *\r\nUSN: " + target.name +
                          "\r\n\r\n");
        }
    }
    EXPECT_EQ(responder.End(), 0);
    Texts last = ReceiveAll(listener);
    ASSERT_GE(last.size(), 3U);
    last.erase(last.begin(), last.end() - 3);
    for (const auto& target : targets) {
        EXPECT_EQ(last.front(), "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: " + target.type +
                                    "\r\nNTS: ssdp:byebye\r\nUSN: " + target.name + "\r\n\r\n");
        last.erase(last.begin());
    }
}

TEST_F(DiscoveryResponderTest, AnswersNothingButSearchesForTheDevice) {
    Responder responder("1800");
    ASSERT_TRUE(test::AddAddress(kFar));
    const UdpSocket stranger(kFar, 0, 0);
    Send(stranger, Search(kRoot));
    const UdpSocket wrong(kNear, 0, 0);
    Send(wrong, Search(kRoot), kNear);
    for (const string& text :
         {Search(kRoot, ""),
          Search(kRoot, "MX:\r\n"),
          Search(kRoot, "MX: -1\r\n"),
          Search(kRoot, "MX: 1.5\r\n"),
          Search(kRoot, "MX: 0x1\r\n"),
          Search(kRoot, "MX: 1 2\r\n"),
          Search(kRoot, "MX: 0\r\n"),
          Search(kRoot, "MX: 1\r\n", ""),
          Search(kRoot, "MX: 1\r\n", "MAN: ssdp:discover\r\n"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:other\"\r\n"),
          Search(""),
          Search("ssdp:al"),
          Search("uuid:00000000-0000-0000-0000-000000000002"),
          Search("urn:schemas-upnp-org:device:Basic:2"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:discover\"\r\n", "NOTIFY * HTTP/1.1\r\n"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:discover\"\r\n", "GET * HTTP/1.1\r\n"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:discover\"\r\n", "M-SEARCH / HTTP/1.1\r\n"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:discover\"\r\n", "M-SEARCH *%zz HTTP/1.1\r\n"),
          Search(kRoot, "MX: 1\r\n", "MAN: \"ssdp:discover\"\r\n", "M-SEARCH * HTTP/1.0\r\n"),
          Search(kRoot + "\r\nX: " + string(1400, 'x'))}) {
        Send(wrong, text);
    }
    // The target ends the search, so all these lack a part of it.
    const string whole = Search(kRoot);
    for (std::size_t size = 0; size + 4 < whole.size(); ++size) {
        Send(wrong, whole.substr(0, size));
    }
    ASSERT_TRUE(Ask(UdpSocket(kNear, 0, 0)));  // the responder has read what is in its buffer
    std::mt19937 random(1);
    for (int i = 0; i < 100; ++i) {
        string noise = i % 2 == 0 ? "M-SEARCH * HTTP/1.1\r\n" : "";
        for (int length = i; length > 0; --length) {
            noise += static_cast<char>(random());
        }
        Send(wrong, noise);
    }
    ASSERT_TRUE(WaitForAnswers());
    EXPECT_EQ(ReceiveAll(stranger), Texts());
    EXPECT_EQ(ReceiveAll(wrong), Texts());
    EXPECT_EQ(responder.End(), 0);
}

TEST_F(DiscoveryResponderTest, AnswersASearchOnce) {
    Responder responder("1800");
    const struct {
        string request;
        Texts answers;
        UdpSocket socket{kNear, 0, 0};
    } searches[] = {
        {Search(kRoot), {Answer(kRoot, kUuid + "::" + kRoot)}},
        {Search(kUuid, "MX: 1\r\n"), {Answer(kUuid, kUuid)}},
        {Search(kType, "mx: 1 \r\n"), {Answer(kType, kUuid + "::" + kType)}},
        // The answers have at most four times the bytes of the search.
        {Search("ssdp:all"), {Answer(kRoot, kUuid + "::" + kRoot)}},
        {Search("ssdp:all", "MX: 1\r\nUSER-AGENT: " + string(200, 'x') + "\r\n"),
         {Answer(kRoot, kUuid + "::" + kRoot), Answer(kUuid, kUuid), Answer(kType, kUuid + "::" + kType)}},
    };
    for (const auto& search : searches) {
        Send(search.socket, search.request);
    }
    for (const auto& search : searches) {
        for (const string& answer : search.answers) {
            EXPECT_EQ(Mask(Receive(search.socket)), answer) << search.request;
        }
    }

    const UdpSocket impatient(kNear, 0, 0);
    responder.Freeze();
    for (int i = 0; i < 6; ++i) {
        Send(impatient, Search("ssdp:all"));
    }
    responder.Thaw();
    ASSERT_TRUE(WaitForAnswers());
    // Sometimes the first search is answered at once, and the others count as a new one.
    const std::size_t answers = ReceiveAll(impatient).size();
    EXPECT_TRUE(answers == 1 || answers == 2) << answers;
    EXPECT_EQ(responder.End(), 0);
}

TEST_F(DiscoveryResponderTest, MakesLittleOutOfAFlood) {
    Responder responder("1800");
    std::list<UdpSocket> ports;
    std::list<UdpSocket> hosts;
    responder.Freeze();
    for (int i = 1; i <= 40; ++i) {
        Send(ports.emplace_back("127.0.0.9", static_cast<unsigned short>(0), static_cast<signed char>(0)),
             Search(kRoot));
    }
    for (int i = 1; i <= 100; ++i) {
        const string address = "127.0.1." + std::to_string(i);
        Send(hosts.emplace_back(address.c_str(), static_cast<unsigned short>(0), static_cast<signed char>(0)),
             Search(kRoot));
    }
    responder.Thaw();
    ASSERT_TRUE(WaitForAnswers());
    std::size_t answers[] = {0, 0};
    for (const UdpSocket& socket : ports) {
        answers[0] += ReceiveAll(socket).size();
    }
    for (const UdpSocket& socket : hosts) {
        answers[1] += ReceiveAll(socket).size();
    }
    // Eight of one host at a time, twenty in a second; some more should the machine be slow.
    EXPECT_LE(answers[0], 20U);
    EXPECT_GE(answers[1], 1U);
    EXPECT_LE(answers[0] + answers[1], 40U);
    EXPECT_EQ(responder.End(), 0);
}

TEST_F(DiscoveryResponderTest, AnnouncesWhereTheGatewayListensOrNothing) {
    const struct {
        const char* web;
        const char* output;
    } rows[] = {
        {"", "answering searches at 127.0.0.1, location http://127.0.0.1:8080/device.xml\n"},
        {"address = 0.0.0.0\nport = 81\n", "location http://127.0.0.1:81/device.xml\n"},
        {"address = 127.0.0.2\n", "web-gateway listens at 127.0.0.2 and not at 127.0.0.1"},
        {"address = camera\n", "[web] has a bad address or port: \"camera\", 8080"},
        {"port = 65536\n", "[web] has a bad address or port: \"127.0.0.1\", 65536"},
    };
    for (const auto& row : rows) {
        const test::TempDir folder;
        const string device = folder.Write(
            "device.ini", "[device]\nUDN = " + kUuid + "\ndeviceType = " + kType + "\n[web]\n" + row.web);
        const test::Program program(DISCOVERY_RESPONDER, {device});
        EXPECT_TRUE(test::WaitUntil([&] {
            return (program.GetOutput() + program.GetErrors()).find(row.output) != string::npos;
        })) << program.GetOutput()
            << program.GetErrors();
    }
}

/// A queue in which searches are due at once, with a clock of its own.
struct Flooded {
    static constexpr std::chrono::milliseconds kStep{50};  // as long as an answer takes at 20 a second

    void Search(const string& address, int port = 1) {
        queue.Add({address, static_cast<unsigned short>(port), "type", 100}, now,
                  now + std::chrono::hours(1));
    }
    /// The address that gets the next answer after the time of one answer; "" if no address waits.
    string Answer() {
        now += kStep;
        const auto search = queue.Take(now);
        return search ? search->address : "";
    }
    /// How many answers it takes until this address, which searches once, gets one while others search.
    template <class Others>
    int AnswersUntil(const string& address, Others others) {
        Search(address);
        for (int answers = 1; answers < 1'000; ++answers) {
            others();
            if (Answer() == address) {
                return answers;
            }
        }
        return -1;
    }

    SearchQueue queue;
    Clock::time_point now = Clock::now();
};

TEST(SearchQueueTest, AFloodDoesNotSilenceTheOthers) {
    Flooded flooded;
    int invented = 0;
    const auto invent = [&] { flooded.Search("new" + std::to_string(++invented)); };
    const auto searchFromWholeNetwork = [&] {
        for (int host = 1; host <= 60; ++host) {
            flooded.Search("host" + std::to_string(host));
        }
    };
    flooded.Search("honest");
    EXPECT_EQ(flooded.Answer(), "honest");
    for (int i = 0; i < 500; ++i) {
        invent();
        flooded.Answer();
    }
    EXPECT_LE(flooded.AnswersUntil("honest", [&] { invent(), invent(), invent(); }), 2 + 32);
    for (int answers = 0; answers < 200; ++answers) {
        searchFromWholeNetwork();
        flooded.Answer();
    }
    EXPECT_LE(flooded.AnswersUntil("newcomer", searchFromWholeNetwork), 2 + 32);
    const int left = flooded.AnswersUntil("honest", searchFromWholeNetwork);
    EXPECT_TRUE(left >= 1 && left <= 4) << left;  // no address has waited longer
    // One address with many ports takes no place of another.
    Flooded greedy;
    for (int port = 1; port <= 100; ++port) {
        greedy.Search("greedy", port);
        greedy.Search("other" + std::to_string(port % 20));
    }
    std::map<string, int> answers;
    for (string next; !(next = greedy.Answer()).empty();) {
        ++answers[next];
    }
    EXPECT_EQ(answers.size(), 21U);
    EXPECT_EQ(answers["greedy"], 8);
}

TEST(SearchQueueTest, AnswersTwentyInASecondAndNoAddressThatHasGone) {
    SearchQueue queue;
    const Clock::time_point now = Clock::now();
    using std::chrono::seconds;
    for (int host = 1; host <= 40; ++host) {
        const bool isLate = host > 30;
        queue.Add({std::to_string(host), 1, "type", 100}, now + seconds(isLate ? 3 : 0), now + seconds(5));
    }
    const auto takeAll = [&](int second) {
        int count = 0;
        while (queue.Take(now + seconds(second))) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(takeAll(0), 20);
    EXPECT_EQ(takeAll(0), 0);
    EXPECT_LE(takeAll(1), 10);
    EXPECT_EQ(takeAll(7), 0);
    EXPECT_TRUE(queue.IsEmpty());
}

}  // namespace
}  // namespace zarip
