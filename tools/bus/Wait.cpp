// SPDX-License-Identifier: MIT

#include <algorithm>
#include <chrono>

#include <zarip/core/Delegate.h>
#include <zarip/msgbus/MessageHandler.h>
#include <zarip/msgbus/MessageHandlerCollection.h>
#include <zarip/osa/LockException.h>
#include <zarip/osa/Semaphore.h>

#include "Commands.h"
#include "Failure.h"
#include "Names.h"

namespace bus {

using namespace zarip;
using msgbus::MsgBus;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr int kWaitTimeoutMs = 60'000;

/// Notices that the owner of a name on the bus has changed.
class OwnerWatch {
public:
    explicit OwnerWatch(MsgBus& bus) : _handlers(&bus) {
        _handlers.AddHandler(
            DBUS_INTERFACE_DBUS, "NameOwnerChanged",
            new msgbus::VoidMessageHandler1<std::string>(core::MakeDelegate(this, &OwnerWatch::OnChange),
                                                         msgbus::IMessageHandler::kSignals));
        bus.StartServer();
    }

    void Wait(milliseconds limit) { _changed.TryLock(static_cast<unsigned int>(limit.count())); }

private:
    void OnChange(const std::string& /*name*/) {
        try {
            _changed.Release();
        } catch (const osa::LockException&) {
            // The change was noticed already.
        }
    }

    osa::Semaphore _changed{"OwnerWatch", 1, 0};
    msgbus::MessageHandlerCollection _handlers;
};

}  // namespace

int Wait(MsgBus& bus, const Options& options) {
    const std::string& service = options.words[1];
    const auto end = Clock::now() + milliseconds(options.GetTimeout(kWaitTimeoutMs));
    CheckService(service);
    OwnerWatch watch(bus);
    for (;;) {
        const Strings names = GetNames(bus);
        if (std::find(names.begin(), names.end(), Resolve(names, service)) != names.end()) {
            return kDone;
        }
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left.count() <= 0) {
            throw Failure(kTimedOut, service + " is not on the bus yet");
        }
        // The wait is interrupted now and then, so that the loss of the bus is noticed as well.
        watch.Wait(std::min(milliseconds(100), left));
    }
}

}  // namespace bus
