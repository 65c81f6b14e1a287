// SPDX-License-Identifier: MIT

// sdbus-c++ with its convenience interface and without extra threads.

#include <sdbus-c++/sdbus-c++.h>

#include "Peer.h"

namespace peer {

void Serve(const std::function<void()>& ready) {
    const auto connection = sdbus::createSystemBusConnection();
    const auto object = sdbus::createObject(*connection, kPath);
    object->registerMethod(kMethod).onInterface(kService).implementedAs(
        [](const std::string& text) { return text; });
    using Text = const std::string&;
    object->registerMethod(kLongMethod)
        .onInterface(kService)
        .implementedAs([](bool, Text, Text, Text, bool, Text, Text, Text, Text text) { return text; });
    object->finishRegistration();
    connection->requestName(kService);
    ready();
    connection->enterEventLoop();
    Fail("the event loop ended");
}

Caller MakeCaller() {
    const std::shared_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    const std::shared_ptr<sdbus::IProxy> proxy = sdbus::createProxy(*connection, kService, kPath);
    return {[connection, proxy](const std::string& text) {
                std::string answer;
                proxy->callMethod(kMethod).onInterface(kService).withArguments(text).storeResultsTo(answer);
                return answer;
            },
            [connection, proxy](const std::string& text) {
                std::string answer;
                proxy->callMethod(kLongMethod)
                    .onInterface(kService)
                    .withArguments(true, kTexts[0], kTexts[1], kTexts[2], true, kTexts[3], kTexts[4],
                                   kTexts[5], text)
                    .storeResultsTo(answer);
                return answer;
            }};
}

Emitter MakeEmitter() {
    const std::shared_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    const std::shared_ptr<sdbus::IObject> object = sdbus::createObject(*connection, kPath);
    object->registerSignal(kSignal).onInterface(kService).withParameters<bool>();
    object->finishRegistration();
    connection->requestName(kService);
    return {[connection, object](bool value) {
                object->emitSignal(kSignal).onInterface(kService).withArguments(value);
            },
            // What could not be written at once leaves while the next call waits for its reply.
            [connection] { connection->requestName("com.brelk.bench.flush"); }};
}

void Listen(const std::function<void()>& ready, const std::function<void(bool)>& receive) {
    const auto connection = sdbus::createSystemBusConnection();
    const auto proxy = sdbus::createProxy(*connection, kService, kPath);
    proxy->uponSignal(kSignal).onInterface(kService).call([&receive](bool value) { receive(value); });
    proxy->finishRegistration();
    ready();
    connection->enterEventLoop();
    Fail("the event loop ended");
}

}  // namespace peer
