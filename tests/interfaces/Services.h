// SPDX-License-Identifier: MIT

#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zarip/core/Delegate.h"
#include "zarip/core/Event.h"
#include "zarip/interfaces/IAudioLineOutProvider.h"
#include "zarip/interfaces/IBrelkServicesProvider.h"
#include "zarip/interfaces/INetworkingV2Provider.h"
#include "zarip/interfaces/IPtzSerialProvider.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/ISmRegistrationProvider.h"
#include "zarip/interfaces/IStreamInfoProvider.h"

// Tables of the members and signals of every service, and implementations that record their arguments.

namespace zarip::interfaces {

using std::string;
using std::vector;

template <class T>
string Show(const T& value) {
    return testing::PrintToString(value);
}

/// A member and its messages on the bus.
template <class Provider>
struct Member {
    const char* name;
    const char* arguments;  // the signature of the call
    const char* reply;      // the signature of the reply; null for a one-way member
    const char* received;   // the arguments of the implementation
    const char* returned;   // the result at the caller
    std::function<string(Provider&)> call;
    bool variesInSignature = false;  // then it is not in the description
};

/// Collects what has arrived, on any thread.
class Arrivals {
public:
    void Add(const string& text) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _texts.push_back(text);
    }
    vector<string> Get() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _texts;
    }

private:
    mutable std::mutex _mutex;
    vector<string> _texts;
};

template <class Provider>
struct Signal {
    const char* name;
    const char* signature;
    string value;
    std::function<void(Provider&)> fire;
    std::function<void(Provider&, Arrivals&)> listen;  // adds "<name> <value>" whenever the event fires
};

template <class Provider, class A>
Signal<Provider> MakeSignal(const char* name, const char* signature, core::Event1<A> Provider::*event,
                            A value) {
    class Listener final : public core::IVoidDelegate1<A> {
    public:
        Listener(const char* name, Arrivals& arrivals) : _name(name), _arrivals(arrivals) {}
        void Call(const A& value) override { _arrivals.Add(_name + " " + Show(value)); }

    private:
        string _name;
        Arrivals& _arrivals;
    };
    return {name, signature, Show(value), [=](Provider& source) { (source.*event).FireEvent(value); },
            [=](Provider& client, Arrivals& arrivals) {
                (client.*event).AddDelegate(new Listener(name, arrivals));
            }};
}

/// The last call as one string.
class Recorder {
public:
    mutable string _last;

protected:
    static string Text(const string& value) { return value; }
    static string Text(bool value) { return value ? "true" : "false"; }
    static string Text(int value) { return std::to_string(value); }
    static string Text(unsigned int value) { return std::to_string(value); }

    template <class... A>
    string Keep(const char* member, const A&... argument) const {
        _last = member;
        ((_last += "|" + Text(argument)), ...);
        return _last;
    }
};

struct Security {
    using Provider = ISecurityProvider;
    static constexpr const char* kName = "com.brelk.system.security";
    static constexpr const char* kPath = "/com/brelk/system/security";

    class Implementation : public Provider, public Recorder {
    public:
        string Authenticate(bool a, const string& b, const string& c) override {
            return Keep("Authenticate", a, b, c);
        }
        string AuthenticateHttp(bool a, const string& b, const string& c, const string& d, bool e,
                                const string& f, const string& g, const string& h, const string& i) override {
            return Keep("AuthenticateHttp", a, b, c, d, e, f, g, h, i);
        }
        string AuthenticateWsse(bool a, const string& b, const string& c, const string& d,
                                const string& e) override {
            return Keep("AuthenticateWsse", a, b, c, d, e);
        }
        bool TestLdap(const string& a, const string& b, const string& c, int d, const string& e,
                      const string& f, const string& g, const string& h, const string& i, const string& j,
                      const string& k) const override {
            Keep("TestLdap", a, b, c, d, e, f, g, h, i, j, k);
            return true;
        }
        void Invalidate(const string& a) override { Keep("Invalidate", a); }
        bool IsAuthenticated(const string& a) override { return !Keep("IsAuthenticated", a).empty(); }
        bool IsProtected(const string& a) const override { return Keep("IsProtected", a).empty(); }
        vector<string> GetAllowedPaths(const string& a) const override {
            return {Keep("GetAllowedPaths", a), "/"};
        }
        vector<string> GetAllowedPermissions(const string& a) const override {
            Keep("GetAllowedPermissions", a);
            return {};
        }
        string GetCredentials(const string& a) const override { return Keep("GetCredentials", a); }
        int GetExpiration(const string& a, string& b) const override {
            Keep("GetExpiration", a, b);
            b = "filled";
            return -42;
        }
        bool Authorize(const string& a, const string& b) override { return Keep("Authorize", a, b).empty(); }
        bool Logout(const string& a) override { return !Keep("Logout", a).empty(); }
        bool AllowHttpDigest() const override { return !Keep("AllowHttpDigest").empty(); }
        string GetNonce() override { return Keep("GetNonce"); }
        string GetUsers() const override { return Keep("GetUsers"); }
        int AddUsers(const string& a) override { return static_cast<int>(Keep("AddUsers", a).size()); }
        int ModifyUsers(const string& a) override { return -static_cast<int>(Keep("ModifyUsers", a).size()); }
        int DeleteUsers(const vector<string>& a) override {
            _last = "DeleteUsers";
            for (const auto& name : a) {
                _last += "|" + name;
            }
            return static_cast<int>(a.size());
        }
        int ValidatePassword(const string& a, const string& b, const string& c) const override {
            Keep("ValidatePassword", a, b, c);
            return 2147483647;
        }
        string AddPassphrase(const string& a, const string& b) override {
            return Keep("AddPassphrase", a, b);
        }
        string GetPassphrases() const override { return Keep("GetPassphrases"); }
        string GetPassphrase(const string& a) const override { return Keep("GetPassphrase", a); }
        bool DeletePassphrase(const string& a) override {
            ++_deletions;
            return !Keep("DeletePassphrase", a).empty();
        }

        std::atomic<int> _deletions{0};
    };

    static string ShowExpiration(Provider& provider) {
        string result = "never sent";
        const int expiration = provider.GetExpiration("x", result);
        return Show(expiration) + " " + result;
    }
    static vector<Member<Provider>> Members() {
        return {
            {"Authenticate", "bss", "s", "true|u|p", "\"Authenticate|true|u|p\"",
             [](auto& p) { return Show(p.Authenticate(true, "u", "p")); }},
            {"AuthenticateHttp", "bsssbssss", "s", "false|1|2|3|true|4|5|6|7",
             "\"AuthenticateHttp|false|1|2|3|true|4|5|6|7\"",
             [](auto& p) {
                 return Show(p.AuthenticateHttp(false, "1", "2", "3", true, "4", "5", "6", "7"));
             }},
            {"AuthenticateWsse", "bssss", "s", "true|1|2|3|4", "\"AuthenticateWsse|true|1|2|3|4\"",
             [](auto& p) { return Show(p.AuthenticateWsse(true, "1", "2", "3", "4")); }},
            {"TestLdap", "sssisssssss", "b", "1|2|3|-636|4|5|6|7|8|9|10", "true",
             [](auto& p) {
                 return Show(p.TestLdap("1", "2", "3", -636, "4", "5", "6", "7", "8", "9", "10"));
             }},
            {"Invalidate", "s", nullptr, "x", "", [](auto& p) { return p.Invalidate("x"), string(); }},
            {"IsAuthenticated", "s", "b", "x", "true", [](auto& p) { return Show(p.IsAuthenticated("x")); }},
            {"IsProtected", "s", "b", "/x", "false", [](auto& p) { return Show(p.IsProtected("/x")); }},
            {"GetAllowedPaths", "s", "as", "x", "{ \"GetAllowedPaths|x\", \"/\" }",
             [](auto& p) { return Show(p.GetAllowedPaths("x")); }},
            {"GetAllowedPermissions", "s", "as", "x", "{}",
             [](auto& p) { return Show(p.GetAllowedPermissions("x")); }},
            {"GetCredentials", "s", "s", "", "\"GetCredentials|\"",
             [](auto& p) { return Show(p.GetCredentials("")); }},
            {"GetExpiration", "s", "is", "x|", "-42 filled", [](auto& p) { return ShowExpiration(p); }},
            {"Authorize", "ss", "b", "x|/y", "false", [](auto& p) { return Show(p.Authorize("x", "/y")); }},
            {"Logout", "s", "b", "x", "true", [](auto& p) { return Show(p.Logout("x")); }},
            {"AllowHttpDigest", "", "b", nullptr, "true", [](auto& p) { return Show(p.AllowHttpDigest()); }},
            {"GetNonce", "", "s", nullptr, "\"GetNonce\"", [](auto& p) { return Show(p.GetNonce()); }},
            {"GetUsers", "", "s", nullptr, "\"GetUsers\"", [](auto& p) { return Show(p.GetUsers()); }},
            {"AddUsers", "s", "i", "xy", "11", [](auto& p) { return Show(p.AddUsers("xy")); }},
            {"ModifyUsers", "s", "i", "xy", "-14", [](auto& p) { return Show(p.ModifyUsers("xy")); }},
            {"DeleteUsers", "as", "i", "x|y", "2",
             [](auto& p) {
                 return Show(p.DeleteUsers({"x", "y"}));
             }},
            {"ValidatePassword", "sss", "i", "1|2|3", "2147483647",
             [](auto& p) { return Show(p.ValidatePassword("1", "2", "3")); }},
            {"AddPassphrase", "ss", "s", "1|2", "\"AddPassphrase|1|2\"",
             [](auto& p) { return Show(p.AddPassphrase("1", "2")); }},
            {"GetPassphrases", "", "s", nullptr, "\"GetPassphrases\"",
             [](auto& p) { return Show(p.GetPassphrases()); }},
            {"GetPassphrase", "s", "s", "x", "\"GetPassphrase|x\"",
             [](auto& p) { return Show(p.GetPassphrase("x")); }},
            {"DeletePassphrase", "s", "b", "x", "true",
             [](auto& p) { return Show(p.DeletePassphrase("x")); }},
        };
    }
    static vector<Signal<Provider>> Signals() {
        return {MakeSignal("UsersChanged", "b", &Provider::UsersChanged, true)};
    }
};

struct Networking {
    using Provider = INetworkingV2Provider;
    static constexpr const char* kName = "com.brelk.networkingV2";
    static constexpr const char* kPath = "/com/brelk/networkingV2";

    class Implementation : public Provider, public Recorder {
    public:
        string Get(const string& a) override { return Keep("Get", a); }
        string Set(const string& a) override { return Keep("Set", a); }
    };

    static vector<Member<Provider>> Members() {
        return {{"Get", "s", "s", "mtu", "\"Get|mtu\"", [](auto& p) { return Show(p.Get("mtu")); }},
                {"Set", "s", "s", "x", "\"Set|x\"", [](auto& p) { return Show(p.Set("x")); }}};
    }
    static vector<Signal<Provider>> Signals() {
        return {MakeSignal("IPv4AddressChange", "s", &Provider::IPv4AddressChange, string("10.0.0.7")),
                MakeSignal("MTUChange", "u", &Provider::MTUChange, 1500U),
                MakeSignal("HostnameChange", "s", &Provider::HostnameChange, string("camera")),
                MakeSignal("IPv6AddressAdded", "s", &Provider::IPv6AddressAdded, string("fe80::1")),
                MakeSignal("IPv6AddressRemoved", "s", &Provider::IPv6AddressRemoved, string()),
                MakeSignal("NTPConfigChanged", "u", &Provider::NTPConfigChanged, 0U),
                MakeSignal("LighttpdConfigChanged", "u", &Provider::LighttpdConfigChanged, 4294967295U)};
    }
};

struct StreamInfo {
    using Provider = IStreamInfoProvider;
    static constexpr const char* kName = "com.brelk.video.streamInfo";
    static constexpr const char* kPath = "/com/brelk/video/streamInfo";

    class Implementation : public Provider, public Recorder {
    public:
        int GetCurrentVideoConnections(const string& a) const override {
            Keep("GetCurrentVideoConnections", a);
            return -7;
        }
        int GetGuaranteedVideoConnections(const string& a) const override {
            Keep("GetGuaranteedVideoConnections", a);
            return 3;
        }
    };

    static vector<Member<Provider>> Members() {
        return {{"GetCurrentVideoConnections", "s", "i", "x", "-7",
                 [](auto& p) { return Show(p.GetCurrentVideoConnections("x")); }},
                {"GetGuaranteedVideoConnections", "s", "i", "y", "3",
                 [](auto& p) { return Show(p.GetGuaranteedVideoConnections("y")); }}};
    }
    static vector<Signal<Provider>> Signals() { return {}; }
};

struct PtzSerial {
    using Provider = IPtzSerialProvider;
    static constexpr const char* kName = "com.brelk.hardware.ptzSerial";
    static constexpr const char* kPath = "/com/brelk/hardware/ptzSerial";

    class Implementation : public Provider, public Recorder {
    public:
        void SetPtzSerialSettingsAndInitialize(unsigned int a, int b, unsigned int c, bool d) override {
            Keep("SetPtzSerialSettingsAndInitialize", a, b, c, d);
        }
        unsigned int GetPtzSerialSettingsAndInitialize(int& a, unsigned int& b, bool& c) override {
            Keep("GetPtzSerialSettingsAndInitialize", a, b, c);
            a = -2;
            b = 4294967295U;
            c = true;
            return 9600;
        }
        void SetPtzPollingState(bool a) override { Keep("SetPtzPollingState", a); }
        bool GetPtzPollingState() override { return !Keep("GetPtzPollingState").empty(); }
    };

    static vector<Member<Provider>> Members() {
        return {
            {"SetPtzSerialSettingsAndInitialize", "uiub", nullptr, "4294967295|-1|2|true", "",
             [](auto& p) { return p.SetPtzSerialSettingsAndInitialize(4294967295U, -1, 2, true), string(); }},
            {"GetPtzSerialSettingsAndInitialize", "", "uiub", "0|0|false", "9600 -2 4294967295 true",
             [](auto& p) {
                 int a = 1;
                 unsigned int b = 1;
                 bool c = false;
                 const unsigned int result = p.GetPtzSerialSettingsAndInitialize(a, b, c);
                 return Show(result) + " " + Show(a) + " " + Show(b) + " " + Show(c);
             }},
            {"SetPtzPollingState", "b", nullptr, "true", "",
             [](auto& p) { return p.SetPtzPollingState(true), string(); }},
            {"GetPtzPollingState", "", "b", nullptr, "true",
             [](auto& p) { return Show(p.GetPtzPollingState()); }}};
    }
    static vector<Signal<Provider>> Signals() { return {}; }
};

struct AudioLineOut {
    using Provider = IAudioLineOutProvider;
    static constexpr const char* kName = "com.brelk.audio.lineout";
    static constexpr const char* kPath = "/com/brelk/audio/lineout";

    class Implementation : public Provider, public Recorder {
    public:
        ConnectResult Connect(const string& a, int b, int c) override {
            return {Keep("Connect", a, b, c), -5};
        }
        string Disconnect(int a) override { return Keep("Disconnect", a); }
        string KeepAlive(int a) override { return Keep("KeepAlive", a); }
        vector<QueryResult> Query() override {
            Keep("Query");
            return vector<QueryResult>(_connections, {"who", 6});
        }

        std::atomic<std::size_t> _connections{0};
    };

    static string ShowQuery(Provider& provider) {
        string text;
        for (const auto& result : provider.Query()) {
            text += result.client + " " + std::to_string(result.connection) + ";";
        }
        return text;
    }

    static vector<Member<Provider>> Members() {
        return {{"Connect", "sii", "si", "x|-1|2", "Connect|x|-1|2 -5",
                 [](auto& p) {
                     const auto result = p.Connect("x", -1, 2);
                     return result.status + " " + std::to_string(result.connection);
                 }},
                {"Disconnect", "i", "s", "-3", "\"Disconnect|-3\"",
                 [](auto& p) { return Show(p.Disconnect(-3)); }},
                {"KeepAlive", "i", "s", "4", "\"KeepAlive|4\"", [](auto& p) { return Show(p.KeepAlive(4)); }},
                {"Query", "", "i", nullptr, "", &ShowQuery, true}};
    }
    static vector<Signal<Provider>> Signals() { return {}; }
};

struct SmRegistration {
    using Provider = ISmRegistrationProvider;
    static constexpr const char* kName = "com.brelk.mirase.smRegistration";
    static constexpr const char* kPath = "/com/brelk/mirase/smRegistration";

    class Implementation : public Provider, public Recorder {
    public:
        bool IsRegistered() override { return !Keep("IsRegistered").empty(); }
        bool IsSynced() override { return Keep("IsSynced").empty(); }
        void ResetSecurity() override { Keep("ResetSecurity"); }
        void ResetSynced() override { Keep("ResetSynced"); }
        void ForceRegister(const string& a) override { Keep("ForceRegister", a); }
    };

    static vector<Member<Provider>> Members() {
        return {
            {"IsRegistered", "", "b", nullptr, "true", [](auto& p) { return Show(p.IsRegistered()); }},
            {"IsSynced", "", "b", nullptr, "false", [](auto& p) { return Show(p.IsSynced()); }},
            {"ResetSecurity", "", nullptr, nullptr, "", [](auto& p) { return p.ResetSecurity(), string(); }},
            {"ResetSynced", "", nullptr, nullptr, "", [](auto& p) { return p.ResetSynced(), string(); }},
            {"ForceRegister", "s", nullptr, "", "", [](auto& p) { return p.ForceRegister(""), string(); }}};
    }
    static vector<Signal<Provider>> Signals() { return {}; }
};

struct BrelkServices {
    using Provider = IBrelkServicesProvider;
    static constexpr const char* kName = "com.brelk.brelkServices";
    static constexpr const char* kPath = "/com/brelk/brelkServices";

    class Implementation : public Provider, public Recorder {
    public:
        string GetAllServices() const override { return Keep("GetAllServices"); }
        string GetServicesByDeviceType(const string& a) const override {
            return Keep("GetServicesByDeviceType", a);
        }
        vector<string> GetCameraDeviceNames() const override {
            Keep("GetCameraDeviceNames");
            return {};
        }
    };

    class StateListener final : public core::IVoidDelegate0 {
    public:
        explicit StateListener(Arrivals& arrivals) : _arrivals(arrivals) {}
        void Call() override { _arrivals.Add("StateChange "); }

    private:
        Arrivals& _arrivals;
    };

    static vector<Member<Provider>> Members() {
        return {{"GetAllServices", "", "s", nullptr, "\"GetAllServices\"",
                 [](auto& p) { return Show(p.GetAllServices()); }},
                {"GetServicesByDeviceType", "s", "s", "camera", "\"GetServicesByDeviceType|camera\"",
                 [](auto& p) { return Show(p.GetServicesByDeviceType("camera")); }},
                {"GetCameraDeviceNames", "", "as", nullptr, "{}",
                 [](auto& p) { return Show(p.GetCameraDeviceNames()); }}};
    }
    static vector<Signal<Provider>> Signals() {
        return {{"StateChange", "", "", [](Provider& source) { source.StateChange.FireEvent(); },
                 [](Provider& client, Arrivals& arrivals) {
                     client.StateChange.AddDelegate(new StateListener(arrivals));
                 }}};
    }
};

using AllServices =
    testing::Types<Security, Networking, StreamInfo, PtzSerial, AudioLineOut, SmRegistration, BrelkServices>;

/// Names the tests of a typed suite.
struct ServiceNameOf {
    template <class Service>
    static string GetName(int /*index*/) {
        const string path = Service::kPath;
        return path.substr(path.rfind('/') + 1);
    }
};

}  // namespace zarip::interfaces
