// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <string>

/// One end of a bus conversation. Every library has a program of its own, which defines the functions below;
/// `Peer.cpp` is the rest of it. All speak the same: the method "GetCredentials" from string to string, which
/// the server answers with its argument, the method "AuthenticateHttp" with nine arguments (bsssbssss), which
/// it answers with the last of them, and the signal "UsersChanged" with a boolean.
namespace peer {

constexpr char kService[] = "com.brelk.system.security";  // also the interface
constexpr char kPath[] = "/com/brelk/system/security";
constexpr char kMethod[] = "GetCredentials";
constexpr char kLongMethod[] = "AuthenticateHttp";
inline const std::string kTexts[] = {"operator", "camera",   "dcd98b7102dd2f0e",
                                     "00000001", "0a4f113b", "/index.html"};
constexpr char kSignal[] = "UsersChanged";
constexpr char kRule[] =
    "type='signal',interface='com.brelk.system.security',member='UsersChanged',path='/com/brelk/system/"
    "security'";

/// Serves the methods until the process is killed. @param ready  called when calls can come
[[noreturn]] void Serve(const std::function<void()>& ready);

struct Caller {
    std::function<std::string(const std::string&)> call;
    /// Passes true, three of kTexts, true, the other three and the text.
    std::function<std::string(const std::string&)> authenticate;
};
/// Functions that call the methods and return the answers.
Caller MakeCaller();

struct Emitter {
    std::function<void(bool)> emit;
    std::function<void()> flush;  // returns when all signals have left the process
};
/// The emitter owns the service's name, since some subscribers only listen to its owner.
Emitter MakeEmitter();

/// Receives the signal until the process is killed. @param ready  called when signals can come
[[noreturn]] void Listen(const std::function<void()>& ready, const std::function<void(bool)>& receive);

/// Ends the program.
[[noreturn]] void Fail(const std::string& message);

}  // namespace peer
