#include "platform/base/DescriptorIO.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace quorvane::platform {

std::optional<std::size_t> readAt(int descriptor, std::span<std::uint8_t> bytes, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            ::pread(descriptor, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (count == 0) break;
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return std::nullopt;
    }
    return done;
}

std::size_t writeAll(int descriptor, std::span<const std::uint8_t> bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::write(descriptor, bytes.data() + done, bytes.size() - done);
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (count == 0 || errno != EINTR)
            break;
    }
    return done;
}

}  // namespace quorvane::platform
