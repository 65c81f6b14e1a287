// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include <zarip/core/Event.h>
#include <zarip/osa/Export.h>

namespace zarip::msgbus {
class IMsgBus;
}

namespace zarip::interfaces {

class InterfaceServer;

/// The device's security service, "com.brelk.system.security". It authenticates users, decides what they may
/// do, and manages the user list and the pass phrases.
///
/// A service derives from this class, overrides the members that it serves, and passes itself to
/// `CreateServer`. Its members are then *called on MsgBusListenThread*, one at a time. A member that is not
/// overridden throws `osa::Exception` "unimplemented", also for callers on the bus. Other processes call the
/// same members on the object that `CreateClient` returns. There they wait up to `_timeout` for the reply and
/// throw what `IMsgBus::SendMsgWaitForReply` throws. `Invalidate` is one-way and reports no errors.
///
/// The service defines the notation of the lists and the meaning of the flags and of the int results.
class ZARIP_EXPORT ISecurityProvider {
public:
    ISecurityProvider();
    ISecurityProvider(const ISecurityProvider&) = delete;
    ISecurityProvider& operator=(const ISecurityProvider&) = delete;
    virtual ~ISecurityProvider();

    virtual std::string Authenticate(bool flag, const std::string& user, const std::string& password);
    virtual std::string AuthenticateHttp(bool digest, const std::string& user, const std::string& realm,
                                         const std::string& nonce, bool hasQop, const std::string& nonceCount,
                                         const std::string& clientNonce, const std::string& uri,
                                         const std::string& response);
    virtual std::string AuthenticateWsse(bool digest, const std::string& user, const std::string& password,
                                         const std::string& nonce, const std::string& created);
    virtual bool TestLdap(const std::string& server, const std::string& bindName, const std::string& password,
                          int port, const std::string& baseName, const std::string& filter,
                          const std::string& userAttribute, const std::string& groupAttribute,
                          const std::string& group, const std::string& testUser,
                          const std::string& testPassword) const;
    virtual void Invalidate(const std::string& session);
    virtual bool IsAuthenticated(const std::string& session);
    virtual bool IsProtected(const std::string& path) const;
    virtual std::vector<std::string> GetAllowedPaths(const std::string& session) const;
    virtual std::vector<std::string> GetAllowedPermissions(const std::string& session) const;
    virtual std::string GetCredentials(const std::string& session) const;

    /// @param result  is set from the reply; its previous value is not sent.
    virtual int GetExpiration(const std::string& session, std::string& result) const;
    virtual bool Authorize(const std::string& session, const std::string& path);
    virtual bool Logout(const std::string& session);
    virtual bool AllowHttpDigest() const;
    virtual std::string GetNonce();
    virtual std::string GetUsers() const;
    virtual int AddUsers(const std::string& users);
    virtual int ModifyUsers(const std::string& users);
    virtual int DeleteUsers(const std::vector<std::string>& names);
    virtual int ValidatePassword(const std::string& user, const std::string& oldPassword,
                                 const std::string& newPassword) const;
    virtual std::string AddPassphrase(const std::string& name, const std::string& passphrase);
    virtual std::string GetPassphrases() const;
    virtual std::string GetPassphrase(const std::string& name) const;
    virtual bool DeletePassphrase(const std::string& name);

    /// The time for which a client waits for a reply, in milliseconds. It is 5000 unless the caller changes
    /// it.
    int _timeout;

    /// The user list has changed. The service fires it on any thread. In clients it is fired on
    /// MsgBusListenThread when the signal arrives.
    core::Event1<bool> UsersChanged;

    /// Makes a proxy of the service, which the *caller owns*.
    /// @param bus  *not owned*, must outlive the proxy.
    static ISecurityProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Makes a server that serves an implementation on the bus; the *caller owns* it. Both arguments are *not
    /// owned* and must outlive the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call
    /// `IMsgBus::StartServer` afterwards.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, ISecurityProvider* implementation);
};

}  // namespace zarip::interfaces
