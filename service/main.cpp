#include "framework/Keys.h"
#include "framework/QuorvaneLogging.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/base/Root.h"
#include "platform/base/UserAccount.h"
#include "platform/bus/BusListener.h"
#include "platform/loop/RunLoop.h"
#include "platform/system/Memory.h"
#include "platform/system/NamedSandbox.h"
#include "platform/system/QualityOfService.h"
#include "service/QuorvanedAgent.h"
#include "service/Shutdown.h"
#include "util/Settings.h"

#include <systemd/sd-daemon.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

namespace {

using namespace quorvane;

std::optional<std::size_t> positiveSetting(Setting setting) {
    const auto set = settingValue(setting);
    if (!set) return std::nullopt;
    if (set->integer() > 0) return set->unsignedInteger();
    platform::logError("main: {} in the defaults of {} is no number above 0: {}", ruleOf(setting).key,
                       suiteOf(setting), set->description());
    return std::nullopt;
}

/// What users may make the daemon hold, as the defaults say now.
void setUserBounds() {
    using platform::UserAccount;
    static const std::array builtIn{UserAccount::bounds(UserAccount::Slot::Connections),
                                    UserAccount::bounds(UserAccount::Slot::Bytes),
                                    UserAccount::bounds(UserAccount::Slot::EventBytes)};
    const auto set = [](UserAccount::Slot slot, Setting perUserSetting, Setting inAllSetting,
                        std::size_t unit) {
        UserAccount::Bounds bounds = builtIn[static_cast<std::size_t>(slot)];
        if (const auto perUser = positiveSetting(perUserSetting)) bounds.perUser = *perUser * unit;
        if (const auto inAll = positiveSetting(inAllSetting)) bounds.inAll = *inAll * unit;
        UserAccount::setBounds(slot, bounds);
    };
    set(UserAccount::Slot::Connections, Setting::ConnectionsPerUser, Setting::Connections, 1);
    set(UserAccount::Slot::Bytes, Setting::MegabytesPerUser, Setting::Megabytes, 1u << 20);
    // Held events have half as much beside that.
    set(UserAccount::Slot::EventBytes, Setting::MegabytesPerUser, Setting::Megabytes, 1u << 19);
}

std::unique_ptr<platform::BusListener> newListener() {
    auto made = platform::BusListener::initWithSocketPath(platform::rooted(kQuorvaneSocketPath));
    if (made) return *std::move(made);
    platform::logError("main: The listener fails: {}", made.error().message);
    return nullptr;
}

/// From the confinement to the end of the run loop; the process's exit status.
int serve() {
    if (const auto confined = platform::applySandboxProfile(kQuorvaneServiceName); !confined) {
        platform::logError("main: sandbox_init() fails: {}\n", confined.error().message);
        return -1;
    }
    const auto loop = platform::RunLoop::init();
    if (loop == nullptr) platform::logError("main: The run loop cannot be made.");
    const auto reclaimer = loop != nullptr ? platform::MemoryReclaimer::init(*loop) : nullptr;
    setUserBounds();
    const auto listener = newListener();
    if (loop == nullptr || reclaimer == nullptr || listener == nullptr) return EXIT_FAILURE;
    const auto agent = QuorvanedAgent::init();
    listener->setDelegate([&](const auto& connection) { return agent->listener(*listener, connection); });
    const auto reload = [] {
        platform::logInfo("main: Told to reload, the bounds of users are read anew.");
        setUserBounds();
    };
    Shutdown termination(*loop, *listener);
    if (!termination.awaitSignals() || !loop->addSignal(SIGHUP, reload) || !listener->resume(*loop)) {
        platform::logError("main: The run loop refuses to serve.");
        return EXIT_FAILURE;
    }
    platform::logInfo("main: Listener resumes with sandbox, start loop.");
    ::sd_notify(0, "READY=1\nSTATUS=Idle.");
    const int result = loop->run();
    if (result < 0) platform::logError("main: The run loop fails: {}", std::strerror(-result));
    listener->close();
    platform::closeLog();
    // Sessions that did not end in time, the HTTP client and the event thread still run: nothing that they
    // use may be destroyed.
    std::_Exit(result < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
}

}  // namespace

int main() {
    platform::setUpAllocator();
    platform::setQualityOfServiceUtility();
    startLogging("quorvaned", "Daemon");
    platform::allowAllDescriptors();  // Each connection takes three.
    // A peer or server that closes is told by the error of the write.
    std::signal(SIGPIPE, SIG_IGN);
    return serve();
}
