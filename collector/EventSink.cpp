#include "collector/EventSink.h"

#include "collector/StartError.h"
#include "platform/base/DescriptorIO.h"
#include "platform/base/Log.h"
#include "platform/value/Bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace quorvane::collector {

using platform::MutexLock;
using platform::UniqueDescriptor;

namespace {

UniqueDescriptor openForAppending(const std::string& path) {
    return UniqueDescriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
}

std::string reasonText(int error) {
    return std::generic_category().message(error);
}

/// Takes a part of a line back, so that the next line starts at the beginning of one.
void takeBack(int descriptor, std::size_t bytes) {
    struct stat status {};
    if (bytes == 0 || ::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return;
    if (::ftruncate(descriptor, status.st_size - static_cast<off_t>(bytes)) != 0)
        platform::logError("Cannot take back a part of a line: {}", reasonText(errno));
}

}  // namespace

EventSink::EventSink(std::optional<std::string> file) : _file(std::move(file)) {
    if (!_file) return;
    _opened = openForAppending(*_file);
    if (!_opened) throw StartError(fmt::format("cannot open {}: {}", *_file, reasonText(errno)));
}

bool EventSink::append(std::string_view lines) {
    const MutexLock lock(_lock);
    const int descriptor = _opened ? _opened.get() : STDOUT_FILENO;
    const std::size_t done = platform::writeAll(descriptor, platform::bytesOf(lines));
    if (done == lines.size()) return true;
    platform::logError("Cannot write what arrived: {}", reasonText(errno));
    takeBack(descriptor, done);
    return false;
}

void EventSink::reopen() {
    if (!_file) return;
    UniqueDescriptor opened = openForAppending(*_file);
    if (!opened) {
        platform::logError("Cannot open {} anew: {}", *_file, reasonText(errno));
        return;
    }
    const MutexLock lock(_lock);
    _opened = std::move(opened);
    platform::logInfo("Opened {} anew", *_file);
}

}  // namespace quorvane::collector
