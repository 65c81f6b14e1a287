// SPDX-License-Identifier: MIT

#include "com.brelk.system.security.h"
#include "zarip/interfaces/ISecurityProvider.h"
#include "zarip/interfaces/ServiceBinding.h"

namespace zarip::interfaces {

namespace {

using std::string;
using Strings = std::vector<string>;

constexpr const ServiceDescription& kService = descriptions::com_brelk_system_security;

using AuthenticateInputParms = Record<bool, string, string>;
using AuthenticateHttpInputParms = Record<bool, string, string, string, bool, string, string, string, string>;
using AuthenticateWsseInputParms = Record<bool, string, string, string, string>;
using TestLdapInputParms =
    Record<string, string, string, int, string, string, string, string, string, string, string>;
using AuthorizeInputParms = Record<string, string>;
using ValidatePasswordInputParms = Record<string, string, string>;
using AddPassphraseInputParms = Record<string, string>;
using GetExpirationOutputParms = Record<int, string>;  // the result, then the output parameter

class MsgBusSecurityProvider final : public ISecurityProvider {
public:
    explicit MsgBusSecurityProvider(msgbus::IMsgBus* bus) : _remote(bus, kService, _timeout) {
        _remote.Subscribe("UsersChanged", UsersChanged);
    }

    string Authenticate(bool flag, const string& user, const string& password) override {
        return _remote.Call<string>("Authenticate", flag, user, password);
    }
    string AuthenticateHttp(bool digest, const string& user, const string& realm, const string& nonce,
                            bool hasQop, const string& nonceCount, const string& clientNonce,
                            const string& uri, const string& response) override {
        return _remote.Call<string>("AuthenticateHttp", digest, user, realm, nonce, hasQop, nonceCount,
                                    clientNonce, uri, response);
    }
    string AuthenticateWsse(bool digest, const string& user, const string& password, const string& nonce,
                            const string& created) override {
        return _remote.Call<string>("AuthenticateWsse", digest, user, password, nonce, created);
    }
    bool TestLdap(const string& server, const string& bindName, const string& password, int port,
                  const string& baseName, const string& filter, const string& userAttribute,
                  const string& groupAttribute, const string& group, const string& testUser,
                  const string& testPassword) const override {
        return _remote.Call<bool>("TestLdap", server, bindName, password, port, baseName, filter,
                                  userAttribute, groupAttribute, group, testUser, testPassword);
    }
    void Invalidate(const string& session) override { _remote.Send("Invalidate", session); }
    bool IsAuthenticated(const string& session) override {
        return _remote.Call<bool>("IsAuthenticated", session);
    }
    bool IsProtected(const string& path) const override { return _remote.Call<bool>("IsProtected", path); }
    Strings GetAllowedPaths(const string& session) const override {
        return _remote.Call<Strings>("GetAllowedPaths", session);
    }
    Strings GetAllowedPermissions(const string& session) const override {
        return _remote.Call<Strings>("GetAllowedPermissions", session);
    }
    string GetCredentials(const string& session) const override {
        return _remote.Call<string>("GetCredentials", session);
    }
    int GetExpiration(const string& session, string& result) const override {
        int expiration = 0;
        std::tie(expiration, result) = _remote.Call<GetExpirationOutputParms>("GetExpiration", session);
        return expiration;
    }
    bool Authorize(const string& session, const string& path) override {
        return _remote.Call<bool>("Authorize", session, path);
    }
    bool Logout(const string& session) override { return _remote.Call<bool>("Logout", session); }
    bool AllowHttpDigest() const override { return _remote.Call<bool>("AllowHttpDigest"); }
    string GetNonce() override { return _remote.Call<string>("GetNonce"); }
    string GetUsers() const override { return _remote.Call<string>("GetUsers"); }
    int AddUsers(const string& users) override { return _remote.Call<int>("AddUsers", users); }
    int ModifyUsers(const string& users) override { return _remote.Call<int>("ModifyUsers", users); }
    int DeleteUsers(const Strings& names) override { return _remote.Call<int>("DeleteUsers", names); }
    int ValidatePassword(const string& user, const string& oldPassword,
                         const string& newPassword) const override {
        return _remote.Call<int>("ValidatePassword", user, oldPassword, newPassword);
    }
    string AddPassphrase(const string& name, const string& passphrase) override {
        return _remote.Call<string>("AddPassphrase", name, passphrase);
    }
    string GetPassphrases() const override { return _remote.Call<string>("GetPassphrases"); }
    string GetPassphrase(const string& name) const override {
        return _remote.Call<string>("GetPassphrase", name);
    }
    bool DeletePassphrase(const string& name) override {
        return _remote.Call<bool>("DeletePassphrase", name);
    }

private:
    RemoteService _remote;
};

class SecurityServer final : public ServiceServer<ISecurityProvider> {
public:
    SecurityServer(msgbus::IMsgBus* bus, ISecurityProvider* implementation)
        : ServiceServer(bus, kService, implementation) {
        using I = ISecurityProvider;
        Forward("UsersChanged", &I::UsersChanged);

        Serve<AuthenticateInputParms>("Authenticate", &I::Authenticate);
        Serve<AuthenticateHttpInputParms>("AuthenticateHttp", &I::AuthenticateHttp);
        Serve<AuthenticateWsseInputParms>("AuthenticateWsse", &I::AuthenticateWsse);
        Serve<TestLdapInputParms>("TestLdap", &I::TestLdap);
        Serve("Invalidate", &I::Invalidate);
        Serve("IsAuthenticated", &I::IsAuthenticated);
        Serve("IsProtected", &I::IsProtected);
        Serve("GetAllowedPaths", &I::GetAllowedPaths);
        Serve("GetAllowedPermissions", &I::GetAllowedPermissions);
        Serve("GetCredentials", &I::GetCredentials);
        Add("GetExpiration", core::MakeDelegate(this, &SecurityServer::GetExpiration));
        Serve<AuthorizeInputParms>("Authorize", &I::Authorize);
        Serve("Logout", &I::Logout);
        Serve("AllowHttpDigest", &I::AllowHttpDigest);
        Serve("GetNonce", &I::GetNonce);
        Serve("GetUsers", &I::GetUsers);
        Serve("AddUsers", &I::AddUsers);
        Serve("ModifyUsers", &I::ModifyUsers);
        Serve("DeleteUsers", &I::DeleteUsers);
        Serve<ValidatePasswordInputParms>("ValidatePassword", &I::ValidatePassword);
        Serve<AddPassphraseInputParms>("AddPassphrase", &I::AddPassphrase);
        Serve("GetPassphrases", &I::GetPassphrases);
        Serve("GetPassphrase", &I::GetPassphrase);
        Serve("DeletePassphrase", &I::DeletePassphrase);
    }
    ~SecurityServer() override { Close(); }

private:
    GetExpirationOutputParms GetExpiration(const string& session) {
        string text;
        const int expiration = GetImplementation().GetExpiration(session, text);
        return {expiration, text};
    }
};

}  // namespace

ISecurityProvider::ISecurityProvider() : _timeout(kDefaultTimeout) {}
ISecurityProvider::~ISecurityProvider() = default;

ISecurityProvider* ISecurityProvider::CreateClient(msgbus::IMsgBus* bus) {
    return new MsgBusSecurityProvider(bus);
}

InterfaceServer* ISecurityProvider::CreateServer(msgbus::IMsgBus* bus, ISecurityProvider* implementation) {
    return new SecurityServer(bus, implementation);
}

string ISecurityProvider::Authenticate(bool, const string&, const string&) {
    Unimplemented();
}
string ISecurityProvider::AuthenticateHttp(bool, const string&, const string&, const string&, bool,
                                           const string&, const string&, const string&, const string&) {
    Unimplemented();
}
string ISecurityProvider::AuthenticateWsse(bool, const string&, const string&, const string&, const string&) {
    Unimplemented();
}
bool ISecurityProvider::TestLdap(const string&, const string&, const string&, int, const string&,
                                 const string&, const string&, const string&, const string&, const string&,
                                 const string&) const {
    Unimplemented();
}
void ISecurityProvider::Invalidate(const string&) {
    Unimplemented();
}
bool ISecurityProvider::IsAuthenticated(const string&) {
    Unimplemented();
}
bool ISecurityProvider::IsProtected(const string&) const {
    Unimplemented();
}
Strings ISecurityProvider::GetAllowedPaths(const string&) const {
    Unimplemented();
}
Strings ISecurityProvider::GetAllowedPermissions(const string&) const {
    Unimplemented();
}
string ISecurityProvider::GetCredentials(const string&) const {
    Unimplemented();
}
int ISecurityProvider::GetExpiration(const string&, string&) const {
    Unimplemented();
}
bool ISecurityProvider::Authorize(const string&, const string&) {
    Unimplemented();
}
bool ISecurityProvider::Logout(const string&) {
    Unimplemented();
}
bool ISecurityProvider::AllowHttpDigest() const {
    Unimplemented();
}
string ISecurityProvider::GetNonce() {
    Unimplemented();
}
string ISecurityProvider::GetUsers() const {
    Unimplemented();
}
int ISecurityProvider::AddUsers(const string&) {
    Unimplemented();
}
int ISecurityProvider::ModifyUsers(const string&) {
    Unimplemented();
}
int ISecurityProvider::DeleteUsers(const Strings&) {
    Unimplemented();
}
int ISecurityProvider::ValidatePassword(const string&, const string&, const string&) const {
    Unimplemented();
}
string ISecurityProvider::AddPassphrase(const string&, const string&) {
    Unimplemented();
}
string ISecurityProvider::GetPassphrases() const {
    Unimplemented();
}
string ISecurityProvider::GetPassphrase(const string&) const {
    Unimplemented();
}
bool ISecurityProvider::DeletePassphrase(const string&) {
    Unimplemented();
}

}  // namespace zarip::interfaces
