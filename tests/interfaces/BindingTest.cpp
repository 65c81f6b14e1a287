// SPDX-License-Identifier: MIT

// A service of another maker, which only uses installed headers.

#include <gtest/gtest.h>

#include "support/ErrorOf.h"
#include "support/FakeBus.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {
namespace {

using std::string;
using test::ErrorOf;

/// A type that can be read but not appended.
struct Position {
    int x = 0;
};
msgbus::MsgBusMsgArgumentReader& operator>>(msgbus::MsgBusMsgArgumentReader& reader, Position& position) {
    return reader >> position.x;
}

/// Several interfaces may share a part.
class Resettable {
public:
    virtual ~Resettable() = default;
    virtual Record<> Reset() { Unimplemented(); }

    core::Event0 Stopped;
};

class Gadget : public Resettable {
public:
    virtual string Mix(int, const string&, bool) const { Unimplemented(); }
    virtual void Move(Position) { Unimplemented(); }
    virtual void Log(const string&, double) { Unimplemented(); }

    int _timeout = kDefaultTimeout;
    core::Event1<std::vector<string>> Changed;
};

constexpr char kXml[] = R"(<interface name="com.example.Gadget">
  <!-- A comment. --><annotation name="org.freedesktop.DBus.Deprecated" value="true"/>
  <signal name="Stopped"/>
  <signal name="Changed"><arg name="names" type="as"/></signal>
  <method name="Mix">
    <arg name="a" type="i" direction="in"/><arg name="b" type="s" direction="in"/>
    <arg name="a" type="s" direction="out"/><arg name="c" type="b" direction="in"/>
  </method>
  <method name="Reset"/>
  <method name="Log"><arg name="a" type="s" direction="in"/><arg name="b" type="d" direction="in"/>
    <annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/></method>
</interface>)";

class Client final : public Gadget {
public:
    explicit Client(msgbus::IMsgBus* bus) : _remote(bus, {"com.example.Gadget", "/a"}, _timeout) {
        _remote.Subscribe("Stopped", Stopped);
        _remote.Subscribe("Changed", Changed);
    }
    string Mix(int a, const string& b, bool c) const override { return _remote.Call<string>("Mix", a, b, c); }
    Record<> Reset() override { return _remote.Call<Record<>>("Reset"); }
    void Log(const string& a, double b) override { _remote.Send("Log", a, b); }

private:
    RemoteService _remote;
};

class Server final : public ServiceServer<Gadget> {
public:
    Server(msgbus::IMsgBus* bus, Gadget* implementation, const char* xml = kXml, const char* more = nullptr)
        : ServiceServer(bus, {"com.example.Gadget", "/a", xml}, implementation) {
        Forward("Stopped", &Gadget::Stopped);
        Forward("Changed", &Gadget::Changed);
        Serve("Mix", &Gadget::Mix);
        Serve("Reset", &Gadget::Reset);
        Serve("Move", &Gadget::Move);
        Serve("Log", &Gadget::Log);
        if (more != nullptr) {
            Serve(more, &Gadget::Reset);
        }
    }
};

struct Implementation final : Gadget {
    string Mix(int a, const string& b, bool c) const override {
        return std::to_string(a) + b + (c ? "yes" : "no");
    }
    Record<> Reset() override {
        ++resets;
        Stopped.FireEvent();
        return {};
    }
    void Log(const string& a, double b) override { Changed.FireEvent({a, std::to_string(b)}); }

    int resets = 0;
};

TEST(ServiceBinding, AServiceOfOnesOwnIsCalledAndHeard) {
    test::FakeBus bus;
    Implementation implementation;
    const Server server(&bus, &implementation);
    Client client(&bus);
    int stops = 0;
    std::vector<string> heard;
    client.Stopped.AddDelegate(core::MakeDelegate([&] { ++stops; }));
    client.Changed.AddDelegate(core::MakeDelegate([&](const std::vector<string>& names) { heard = names; }));
    EXPECT_EQ(client.Mix(7, "x", true), "7xyes");
    client.Reset();
    EXPECT_EQ(implementation.resets, 1);
    EXPECT_EQ(stops, 1);
    client.Log("a", 0.5);
    EXPECT_EQ(heard, (std::vector<string>{"a", "0.500000"}));
}

/// Returns the description with one part replaced.
string With(const string& part, const string& replacement) {
    string xml = kXml;
    return xml.replace(xml.find(part), part.size(), replacement);
}

TEST(CheckDescription, NamesEveryMismatchOfTheTable) {
    const struct {
        string xml;
        const char* more;
        std::vector<string> leftOut;
        const char* mismatches;
    } cases[] = {
        {kXml, nullptr, {"Move"}, ""},
        {kXml, nullptr, {}, "method Move is in the table and not described\n"},
        {kXml, nullptr, {"Move", "Nothing"}, "Nothing is left out on purpose, but not in the table\n"},
        {kXml, "Reset", {"Move"}, "method Reset is in the table twice\n"},
        {kXml, "More", {"Move"}, "method More is in the table and not described\n"},
        {With("</interface>", R"(<method name="Move"><arg name="to" type="i" direction="in"/></method>
         </interface>)"),
         nullptr,
         {},
         "method Move is described as (i) -> () and is (?) one-way\n"},
    };
    Implementation implementation;
    for (const auto& row : cases) {
        test::FakeBus bus;
        const Server server(&bus, &implementation, row.xml.c_str(), row.more);
        EXPECT_EQ(CheckDescription(server, row.leftOut), row.mismatches);
    }
}

TEST(CheckDescription, NamesEveryMismatchOfTheDescription) {
    const std::pair<string, const char*> cases[] = {
        {With("\"Reset\"/>", "\"Reset\"/><method name=\"Other\"/>"),
         "method Other is described and not in the table\n"},
        {With("\"Reset\"/>", "\"Reset\"/><method name=\"Reset\"/>"), "method Reset is described twice\n"},
        {With("\"Reset\"/>",
              "\"Reset\"><annotation name=\"org.freedesktop.DBus.Method.NoReply\" "
              "value=\"true\"/></method>"),
         "method Reset is described as () one-way and is () -> ()\n"},
        {With("\"d\" direction=\"in\"", "\"d\" direction=\"out\""),
         "method Log: a one-way method returns nothing\n"
         "method Log is described as (s) one-way and is (sd) one-way\n"},
        {With("type=\"b\"", "type=\"i\""), "method Mix is described as (isi) -> (s) and is (isb) -> (s)\n"},
        {With("name=\"c\"", "name=\"b\""), "method Mix: an argument has no name of its own\n"},
        {With("name=\"b\"", ""), "method Mix: an argument has no name of its own\n"},
        {With(" direction=\"out\"", ""),
         "method Mix: an argument has the direction ''\n"
         "method Mix is described as (isb) -> () and is (isb) -> (s)\n"},
        {With("type=\"as\"", "type=\"s\""), "signal Changed is described as (s) and is (as)\n"},
        {With("<signal name=\"Stopped\"/>", "<method name=\"Stopped\"/>"),
         "method Stopped is described and not in the table\n"
         "signal Stopped is in the table and not described\n"},
        {With("<method name=\"Reset\"/>", "<method name=\"Reset\"/><property name=\"Size\" type=\"i\"/>"),
         "property Size is described and not in the table\n"},
        {With("com.example", "com.other"), "the description is not that of com.example.Gadget\n"},
    };
    Implementation implementation;
    for (const auto& [xml, mismatches] : cases) {
        test::FakeBus bus;
        EXPECT_EQ(CheckDescription(Server(&bus, &implementation, xml.c_str()), {"Move"}), mismatches);
    }
    test::FakeBus bus;
    const string found = CheckDescription(Server(&bus, &implementation, ""));
    EXPECT_EQ(found.rfind("the description is not XML: ", 0), 0U) << found;
    EXPECT_EQ(ErrorOf([&] { CheckDescription(InterfaceServer(&bus, "com.example.Other")); }),
              "CheckDescription: the server has no table");
}

}  // namespace
}  // namespace zarip::interfaces
