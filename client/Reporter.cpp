#include "client/ReportQueue.h"
#include "client/ReporterLoop.h"
#include "client/Serialization.h"
#include "framework/EventPacking.h"
#include "platform/base/Thread.h"

#include <quorvane/Reporter.h>

#include <sys/eventfd.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace quorvane {

namespace {

/// The most that the daemon keeps of each of a session's infos.
constexpr std::size_t kMaximumInfoBytes = 64u << 10;

Error invalid(const char* what) {
    return {ErrorCode::InvalidArgument, what};
}

Error failed(const char* what, int error) {
    return {ErrorCode::System, std::string(what) + ": " + std::strerror(error)};
}

Status checkUserInfo(const std::optional<Dictionary>& userInfo) {
    if (!userInfo) return std::monostate{};
    if (!packedSize(&*userInfo)) return invalid("the user info cannot be sent");
    if (heldBytes(*userInfo) > kMaximumInfoBytes) return invalid("the user info is larger than 64 KiB");
    return std::monostate{};
}

Status check(const ReporterOptions& options) {
    if (options.queueEvents == 0 || options.queueBytes == 0) return invalid("the queue has no room");
    if (options.firstRetry.count() <= 0) return invalid("the pause before a retry is not above 0");
    if (options.socketPath.size() >= sizeof(sockaddr_un::sun_path)) return invalid("the path is too long");
    Array names(options.frameworksToCheck.begin(), options.frameworksToCheck.end());
    const Dictionary frameworks{{"names", std::move(names)}};
    if (!packedSize(&frameworks) || heldBytes(frameworks) > kMaximumInfoBytes)
        return invalid("the framework names cannot be sent");
    return checkUserInfo(client::userInfoDictionary(options.userInfo));
}

}  // namespace

class Reporter::Implementation {
  public:
    Implementation(ReporterOptions options, platform::UniqueDescriptor wake)
        : closeTimeout(options.closeTimeout),
          queue(options.queueEvents, options.queueBytes),
          loop(std::move(options), queue, std::move(wake)) {}

    bool report(const client::EventView& event) {
        bool wakes = false;
        const bool queued = queue.push(event, wakes);
        if (wakes) loop.wake();
        return queued;
    }

    const Timeout closeTimeout;
    client::ReportQueue queue;
    client::ReporterLoop loop;
    std::thread thread;
};

Result<Reporter> Reporter::start(ReporterOptions options) {
    if (const Status checked = check(options); !checked) return checked.error();
    platform::UniqueDescriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) return failed("cannot make an event descriptor", errno);
    auto implementation = std::make_unique<Implementation>(std::move(options), std::move(wake));
    auto thread = platform::startThread("quorvane-report", [loop = &implementation->loop] { loop->run(); });
    if (!thread) return failed("cannot start a thread", EAGAIN);
    implementation->thread = *std::move(thread);
    return Reporter(std::move(implementation));
}

Reporter::Reporter(std::unique_ptr<Implementation> implementation)
    : _implementation(std::move(implementation)) {}

Reporter::Reporter(Reporter&& other) noexcept = default;

Reporter& Reporter::operator=(Reporter&& other) noexcept {
    const Reporter former(std::move(*this));
    _implementation = std::move(other._implementation);
    return *this;
}

Reporter::~Reporter() {
    if (_implementation != nullptr) close(_implementation->closeTimeout);
}

bool Reporter::report(const Event& event) {
    return _implementation->report(event);
}

bool Reporter::report(std::uint16_t category, std::uint16_t type, const Dictionary* payload,
                      std::uint32_t flag) {
    return _implementation->report({category, type, payload, flag});
}

Status Reporter::setUserInfo(const std::optional<UserInfo>& userInfo) {
    std::optional<Dictionary> dictionary = client::userInfoDictionary(userInfo);
    if (Status checked = checkUserInfo(dictionary); !checked) return checked;
    bool wakes = false;
    _implementation->queue.pushUserInfo(std::move(dictionary), wakes);
    if (wakes) _implementation->loop.wake();
    return std::monostate{};
}

Status Reporter::flush(Timeout timeout) {
    if (_implementation->loop.isCurrentThread())
        return Error{ErrorCode::WouldDeadlock, "the reporter's own thread would wait for itself"};
    bool wakes = false;
    const std::uint64_t number = _implementation->queue.pushFlush(wakes);
    if (wakes) _implementation->loop.wake();
    return _implementation->queue.waitForFlush(number, client::deadlineAfter(timeout));
}

ReporterStatistics Reporter::statistics() const {
    return _implementation->queue.statistics();
}

ReporterStatistics Reporter::close(Timeout timeout) {
    if (_implementation->thread.joinable() && !_implementation->loop.isCurrentThread()) {
        _implementation->loop.stop(client::deadlineAfter(timeout));
        _implementation->thread.join();
    }
    return statistics();
}

}  // namespace quorvane
