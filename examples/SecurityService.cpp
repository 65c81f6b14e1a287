// SPDX-License-Identifier: MIT

// A security service on the bus: keeps users, sessions and pass phrases in an INI file.
//
//   security-service FILE        security.ini shows what the file holds
//
// Lists are lines of text. GetUsers gives "name:role"; AddUsers and ModifyUsers take "name:role:password",
// where ModifyUsers keeps the old password if none is given. Either all lines of a call are carried out or
// none. GetPassphrases gives names. The file holds passwords as salted digests and pass phrases as they are,
// so it is readable by its owner only.

#include <sys/stat.h>

#include <zarip/core/IniFile.h>
#include <zarip/core/Logger.h>
#include <zarip/core/StringUtil.h>
#include <zarip/crypto/CryptoUtils.h>
#include <zarip/crypto/SecureBuffer.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/msgbus/MsgBus.h>
#include <zarip/msgbus/StopSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/FileUtils.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using zarip::core::IniFile;
using zarip::core::Logger;
using zarip::core::StringUtil;
using zarip::crypto::CryptoUtils;
using zarip::crypto::SecureBuffer;
using zarip::interfaces::ISecurityProvider;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

/// What the members that return an int return.
enum Result {
    kDone = 0,
    kPasswordTooShort = 1,
    kMalformed = 2,
    kUnknownRole = 3,
    kUserExists = 4,
    kNoSuchUser = 5,
    kWrongPassword = 6,
    kLastAdministrator = 7,
    kTooManyPasswords = 8,
};

constexpr std::size_t kMinPassword = 8;
constexpr std::size_t kMaxText = 256;
constexpr std::size_t kMaxUsersInCall = 16;  // a digest takes its time on purpose
constexpr int kPasswordsAtOnce = 16;
constexpr std::chrono::milliseconds kPasswordPause(250);  // after those, one more each time
constexpr std::size_t kMaxSessions = 1000;
constexpr std::size_t kMaxSessionsOfUser = 16;
constexpr unsigned int kIterations = 20'000;

std::string ToHex(const unsigned char* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += "0123456789abcdef"[bytes[i] >> 4];
        text += "0123456789abcdef"[bytes[i] & 15];
    }
    return text;
}

std::string Random() {
    unsigned char bytes[16];
    CryptoUtils::Randomize(bytes, sizeof bytes);
    return ToHex(bytes, sizeof bytes);
}

/// Of the file's own number of iterations, which an administrator may have made smaller.
std::string Digest(const std::string& password, const std::string& salt, unsigned int iterations) {
    const SecureBuffer digest =
        CryptoUtils::DeriveWeakKey(password.data(), static_cast<unsigned int>(password.size()), salt.data(),
                                   static_cast<unsigned int>(salt.size()), iterations, 32);
    return ToHex(digest.GetData(), digest.GetSize());
}

/// Takes the same time wherever the texts differ.
bool AreEqual(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           CryptoUtils::AreEqual(a.data(), b.data(), static_cast<unsigned int>(a.size()));
}

/// Whether a text may be a key of the file: nothing in it has a meaning there, in our lists or in a log.
bool IsName(const std::string& text) {
    return !text.empty() && text.size() <= 64 && text.find_first_of("._-") != 0 &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
               std::string::npos;
}

/// Whether a text comes back from the file as it went in.
bool IsValue(const std::string& text) {
    return !text.empty() && text.size() <= kMaxText && text.front() != ' ' && text.back() != ' ' &&
           std::none_of(text.begin(), text.end(),
                        [](unsigned char character) { return character < 0x20 || character == 0x7F; });
}

bool Holds(const std::string& words, const std::string& word) {
    const Strings all = StringUtil::Split(words, ' ');
    return std::find(all.begin(), all.end(), word) != all.end();
}

class SecurityService final : public ISecurityProvider {
public:
    explicit SecurityService(const char* path) : _path(path), _ini(path) {
        Logger::ConfigureLogging(_ini, "log");
        _logger = Logger::GetLogger("Security");
        _sessionLength = std::chrono::seconds(_ini.GetIntOrDefault("sessions", "seconds", 1'800));
        _keptSessionLength = std::chrono::seconds(_ini.GetIntOrDefault("sessions", "kept", 86'400));
    }

    // Sessions

    /// @param keep  asks for a long session.
    /// Returns the session, or "" when name or password is wrong.
    std::string Authenticate(bool keep, const std::string& name, const std::string& password) override {
        // An unknown name costs the same time as a wrong password, so that nobody can ask which names exist.
        User user;
        const bool isKnown = IsName(name) && FindUser(name, user);
        if (!HasPassword(user, password) || !isKnown) {
            _logger->Warning("Refused user %s", IsName(name) ? name.c_str() : "(no valid name)");
            return "";
        }
        DropSessions([](const Session& session) { return session.end <= Clock::now(); });
        // A user with too many loses the oldest of them and takes nothing from others.
        DropOldestSession(kMaxSessionsOfUser,
                          [&name](const Session& session) { return session.user == name; });
        DropOldestSession(kMaxSessions, [](const Session& /*session*/) { return true; });
        const std::string id = Random();
        const Clock::duration length = keep ? _keptSessionLength : _sessionLength;
        _sessions[id] = {name, length, Clock::now() + length, ++_sessionsMade};
        _logger->Information("User %s is authenticated", name.c_str());
        return id;
    }

    bool IsAuthenticated(const std::string& id) override { return UseSession(id) != nullptr; }
    bool Logout(const std::string& id) override { return _sessions.erase(id) > 0; }
    void Invalidate(const std::string& id) override { _sessions.erase(id); }

    /// Returns the seconds that are left, and the user's name; 0 and "" for what is no session.
    int GetExpiration(const std::string& id, std::string& name) const override {
        const Session* session = FindSession(id);
        name = session != nullptr ? session->user : "";
        using std::chrono::seconds;
        return session != nullptr
                   ? static_cast<int>(
                         std::chrono::duration_cast<seconds>(session->end - Clock::now()).count())
                   : 0;
    }

    /// Returns "name:role".
    std::string GetCredentials(const std::string& id) const override {
        const Session* session = FindSession(id);
        return session != nullptr ? session->user + ":" + RoleOf(id) : "";
    }

    std::string GetNonce() override { return Random(); }
    // HTTP digests need the password in clear, which is nowhere.
    bool AllowHttpDigest() const override { return false; }

    // Rights

    bool IsProtected(const std::string& path) const override {
        std::string roles;
        return !IsPlain(path) || FindRoles(path, roles);
    }

    bool Authorize(const std::string& id, const std::string& path) override {
        std::string roles;
        return IsPlain(path) &&
               (!FindRoles(path, roles) || (UseSession(id) != nullptr && Holds(roles, RoleOf(id))));
    }

    Strings GetAllowedPaths(const std::string& id) const override {
        Strings allowed;
        const std::string role = RoleOf(id);
        for (const auto& [path, roles] : GroupOf("paths")) {
            if (!role.empty() && Holds(roles, role)) {
                allowed.push_back(path);
            }
        }
        return allowed;
    }

    Strings GetAllowedPermissions(const std::string& id) const override {
        const std::string& permissions = _ini.GetValueOrDefault("permissions", RoleOf(id));
        return permissions.empty() ? Strings() : StringUtil::Split(permissions, ' ');
    }

    // Users

    std::string GetUsers() const override {
        Strings lines;
        for (const auto& entry : GroupOf("users")) {
            User user;
            if (FindUser(entry.first, user)) {
                lines.push_back(entry.first + ":" + user.role);
            }
        }
        return StringUtil::Join(lines, '\n');
    }

    int AddUsers(const std::string& users) override { return SetUsers(users, false); }
    int ModifyUsers(const std::string& users) override { return SetUsers(users, true); }

    int DeleteUsers(const Strings& names) override {
        IniFile changed = _ini;
        for (const std::string& name : names) {
            if (changed["users"].erase(name) == 0) {
                return kNoSuchUser;
            }
        }
        if (names.empty()) {
            return kDone;
        }
        return KeepUsers(changed, names);
    }

    int ValidatePassword(const std::string& name, const std::string& oldPassword,
                         const std::string& newPassword) const override {
        User user;
        if (!FindUser(name, user) || !HasPassword(user, oldPassword)) {
            return kWrongPassword;
        }
        return newPassword.size() < kMinPassword ? kPasswordTooShort
               : IsValue(newPassword)            ? kDone
                                                 : kMalformed;
    }

    // Pass phrases

    /// Returns the name, or "" when name or text is not acceptable or the name is taken.
    std::string AddPassphrase(const std::string& name, const std::string& text) override {
        if (!IsName(name) || !IsValue(text) || _ini.HasValue("passphrases", name)) {
            return "";
        }
        IniFile changed = _ini;
        changed.SetValue("passphrases", name, text);
        Keep(changed);
        return name;
    }

    std::string GetPassphrases() const override {
        Strings names;
        for (const auto& entry : GroupOf("passphrases")) {
            names.push_back(entry.first);
        }
        return StringUtil::Join(names, '\n');
    }

    std::string GetPassphrase(const std::string& name) const override {
        return _ini.GetValueOrDefault("passphrases", name);
    }

    bool DeletePassphrase(const std::string& name) override {
        IniFile changed = _ini;
        const bool isThere = changed["passphrases"].erase(name) > 0;
        if (isThere) {
            Keep(changed);
        }
        return isThere;
    }

    // Not served here, so that callers get "unimplemented": AuthenticateHttp, AuthenticateWsse, TestLdap.

private:
    /// As in the file: "role iterations salt digest".
    struct User {
        std::string role;
        unsigned int iterations = kIterations;
        std::string salt = "-";
        std::string digest = "-";
    };
    struct Session {
        std::string user;
        Clock::duration length;
        Clock::time_point end;
        unsigned long long number;  // counts up
    };

    IniFile::Group GroupOf(const std::string& name) const {
        return _ini.HasGroup(name) ? _ini[name] : IniFile::Group();
    }

    bool FindUser(const std::string& name, User& user) const {
        std::istringstream fields(_ini.GetValueOrDefault("users", name));
        User found;
        if (!(fields >> found.role >> found.iterations >> found.salt >> found.digest)) {
            return false;
        }
        user = found;
        return true;
    }

    static bool HasPassword(const User& user, const std::string& password) {
        return !password.empty() && password.size() <= kMaxText &&
               AreEqual(Digest(password, user.salt, user.iterations), user.digest);
    }

    int SetUsers(const std::string& text, bool mustExist) {
        const Strings lines = StringUtil::Split(text, '\n');
        if (lines.size() > kMaxUsersInCall) {
            return kMalformed;
        }
        IniFile changed = _ini;
        std::map<std::string, std::string> passwords;
        for (const std::string& line : lines) {
            const int result = SetUser(line, mustExist, changed, passwords);
            if (result != kDone) {
                return result;
            }
        }
        if (!TakeTimeForPasswords(passwords.size())) {
            return kTooManyPasswords;
        }
        Strings names;
        for (const auto& [name, password] : passwords) {
            User user;
            user.role = changed.GetValueOrDefault("users", name);
            user.salt = Random();
            user.digest = Digest(password, user.salt, user.iterations);
            SetUser(changed, name, user);
            names.push_back(name);
        }
        return KeepUsers(changed, names);
    }

    /// Checks one line and puts its user into the file; one whose password is new gets the role only, and
    /// the password into `passwords`, since its digest takes time that a wrong line is not worth.
    int SetUser(const std::string& line, bool mustExist, IniFile& changed,
                std::map<std::string, std::string>& passwords) const {
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos) {
            return kMalformed;
        }
        const std::string name = line.substr(0, first);
        const std::string role = line.substr(first + 1, second - first - 1);
        const std::string password = line.substr(second + 1);
        if (!IsName(name) || (!password.empty() && !IsValue(password))) {
            return kMalformed;
        }
        if (changed.HasValue("users", name) != mustExist) {
            return mustExist ? kNoSuchUser : kUserExists;
        }
        if (!IsName(role) || !_ini.HasValue("permissions", role)) {
            return kUnknownRole;
        }
        if (mustExist && password.empty()) {
            User user;
            FindUser(name, user);
            user.role = role;
            passwords.count(name) != 0 ? changed.SetValue("users", name, role) : SetUser(changed, name, user);
            return kDone;
        }
        if (password.size() < kMinPassword) {
            return kPasswordTooShort;
        }
        changed.SetValue("users", name, role);
        passwords[name] = password;
        return kDone;
    }

    static void SetUser(IniFile& file, const std::string& name, const User& user) {
        file.SetValue(
            "users", name,
            user.role + " " + std::to_string(user.iterations) + " " + user.salt + " " + user.digest);
    }

    /// Digests of many passwords would keep all other callers waiting: some are made at once, and then one
    /// in each pause. False when the last ones are not paid for yet.
    bool TakeTimeForPasswords(std::size_t count) {
        const Clock::time_point now = Clock::now();
        if (count > 0 && _passwordsPaidUntil > now + (kPasswordsAtOnce - 1) * kPasswordPause) {
            return false;
        }
        _passwordsPaidUntil = std::max(_passwordsPaidUntil, now) + static_cast<int>(count) * kPasswordPause;
        return true;
    }

    /// Whether there is a user whose role may configure the camera.
    static bool HasAdministrator(const IniFile& file) {
        const IniFile::Group users = file.HasGroup("users") ? file["users"] : IniFile::Group();
        return std::any_of(users.begin(), users.end(), [&file](const auto& user) {
            const std::string role = user.second.substr(0, user.second.find(' '));
            return Holds(file.GetValueOrDefault("permissions", role), "configure");
        });
    }

    /// Without an administrator nobody could ever change the users again.
    int KeepUsers(const IniFile& changed, const Strings& endSessionsOf) {
        if (HasAdministrator(_ini) && !HasAdministrator(changed)) {
            return kLastAdministrator;
        }
        Keep(changed);
        EndSessionsOf(endSessionsOf);
        UsersChanged.FireEvent(true);
        return kDone;
    }

    /// The file first, and in one step: whatever happens, it and we hold all of a change or nothing of it.
    /// `Save` would write in place where the folder does not allow a new file; then this refuses the change.
    void Keep(const IniFile& changed) {
        zarip::osa::FileUtils::WriteAtomically(_path, changed.SaveToString());
        _ini = changed;
    }

    const Session* FindSession(const std::string& id) const {
        const auto found = _sessions.find(id);
        return found != _sessions.end() && found->second.end > Clock::now() ? &found->second : nullptr;
    }

    /// Finds a session and has it last its whole length again.
    const Session* UseSession(const std::string& id) {
        const Session* session = FindSession(id);
        if (session != nullptr) {
            _sessions[id].end = Clock::now() + session->length;
        }
        return session;
    }

    template <class Condition>
    void DropSessions(Condition condition) {
        for (auto session = _sessions.begin(); session != _sessions.end();) {
            session = condition(session->second) ? _sessions.erase(session) : std::next(session);
        }
    }

    /// Makes room for one more session of those that fit the condition.
    template <class Condition>
    void DropOldestSession(std::size_t most, Condition condition) {
        std::size_t count = 0;
        auto oldest = _sessions.end();
        for (auto session = _sessions.begin(); session != _sessions.end(); ++session) {
            if (condition(session->second)) {
                ++count;
                const bool isOlder =
                    oldest == _sessions.end() || session->second.number < oldest->second.number;
                oldest = isOlder ? session : oldest;
            }
        }
        if (count >= most) {
            _sessions.erase(oldest);
        }
    }

    void EndSessionsOf(const Strings& names) {
        DropSessions([&names](const Session& session) {
            return std::find(names.begin(), names.end(), session.user) != names.end();
        });
    }

    /// The present role of a session's user, or "".
    std::string RoleOf(const std::string& id) const {
        User user;
        const Session* session = FindSession(id);
        return session != nullptr && FindUser(session->user, user) ? user.role : "";
    }

    /// Whether a path is what it seems: one with detours could be read as another by whoever serves it.
    static bool IsPlain(const std::string& path) {
        return !path.empty() && path.front() == '/' && path.find("..") == std::string::npos &&
               path.find("//") == std::string::npos && path.find("/./") == std::string::npos;
    }

    /// Finds the roles of the longest protected path that holds this one.
    bool FindRoles(const std::string& path, std::string& roles) const {
        std::size_t longest = 0;
        for (const auto& [prefix, allowed] : GroupOf("paths")) {
            const bool isInside =
                StringUtil::StartsWith(path, prefix) &&
                (path.size() == prefix.size() || prefix.back() == '/' || path[prefix.size()] == '/');
            if (isInside && prefix.size() > longest) {
                longest = prefix.size();
                roles = allowed;
            }
        }
        return longest > 0;
    }

    std::string _path;
    IniFile _ini;
    Logger* _logger;
    Clock::duration _sessionLength;
    Clock::duration _keptSessionLength;
    std::map<std::string, Session> _sessions;
    unsigned long long _sessionsMade = 0;
    Clock::time_point _passwordsPaidUntil;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: security-service FILE\n");
        return 2;
    }
    try {
        const zarip::msgbus::StopSignal stop;
        ::umask(077);

        SecurityService service(argv[1]);
        zarip::msgbus::MsgBus bus;
        const std::unique_ptr<zarip::interfaces::InterfaceServer> server(
            ISecurityProvider::CreateServer(&bus, &service));
        bus.StartServer();  // last: from here on calls are answered
        return stop.Wait(bus) ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "security-service: %s\n", e.what());
        return 1;
    }
}
