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

/// The device's security service, "com.brelk.system.security": authenticates users, answers what they may do,
/// keeps the user list and the pass phrases.
///
/// A service derives from it, overrides the members it serves and hands itself to `CreateServer`; a member
/// that it does not override throws `osa::Exception` "unimplemented", also across the bus. Its members are
/// then *called on MsgBusListenThread*, one at a time. Every other process calls the same members on what
/// `CreateClient` returns. There they wait up to `_timeout` for the reply and throw what
/// `IMsgBus::SendMsgWaitForReply` throws; `Invalidate` is one-way and reports nothing.
///
/// The notation of user and pass-phrase lists, the meaning of flags and of int results are the service's.
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

    /// @param result  filled from the reply; what it held before is not sent.
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

    /// How long a client waits for a reply, in milliseconds: 5000 unless the caller changes it.
    int _timeout;

    /// The user list changed. Fired by the service on any thread, and in clients when the signal arrives, on
    /// MsgBusListenThread.
    core::Event1<bool> UsersChanged;

    /// A proxy to the service, *caller owns*. @param bus  *not owned*, must outlive the proxy.
    static ISecurityProvider* CreateClient(msgbus::IMsgBus* bus);

    /// Serves an implementation on the bus, *caller owns*. Both arguments are *not owned* and must outlive
    /// the server. Throws what `IMsgBus::RegisterDestinationName` throws. Call `IMsgBus::StartServer` after
    /// it.
    static InterfaceServer* CreateServer(msgbus::IMsgBus* bus, ISecurityProvider* implementation);
};

}  // namespace zarip::interfaces
