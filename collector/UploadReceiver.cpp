#include "collector/UploadReceiver.h"

#include "collector/ReceivedTime.h"
#include "collector/StartError.h"
#include "platform/base/DescriptorIO.h"
#include "platform/base/FileManager.h"
#include "platform/base/Log.h"
#include "platform/crypto/Uuid.h"
#include "platform/formats/Json.h"
#include "platform/value/Bytes.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace quorvane::collector {

using platform::UniqueDescriptor;

namespace {

std::string newName(std::string_view prefix, std::string_view suffix) {
    return fmt::format("{}-{:%Y%m%d-%H%M%S}-{}{}", prefix, fmt::gmtime(std::time(nullptr)),
                       platform::randomUuidText(), suffix);
}

}  // namespace

struct UploadReceiver::Kind {
    std::string_view prefix;
    std::string_view suffix;
    std::string_view magic;  ///< what the bytes must start with
    Response (*answer)(const std::string& name);
};

/// A file that is being received; gone again unless it is kept.
class UploadReceiver::IncomingFile {
  public:
    IncomingFile(int folder, std::string name)
        : _folder(folder),
          _name(std::move(name)),
          _partName(fmt::format(".{}.part", _name)),
          _file(::openat(folder, _partName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                         0640)) {}

    ~IncomingFile() {
        if (_file && !_kept) ::unlinkat(_folder, _partName.c_str(), 0);
    }

    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;

    const std::string& name() const { return _name; }
    std::uint64_t size() const { return _size; }
    const std::string& start() const { return _start; }

    bool write(std::string_view bytes) {
        _start += bytes.substr(0, kStartBytes - std::min(kStartBytes, _start.size()));
        _size += bytes.size();
        return platform::writeAll(_file.get(), platform::bytesOf(bytes)) == bytes.size();
    }

    /// Gives the file its name; true once it would outlast a crash of the machine.
    bool keep() {
        if (::fsync(_file.get()) != 0 || ::renameat(_folder, _partName.c_str(), _folder, _name.c_str()) != 0)
            return false;
        _kept = true;
        return ::fsync(_folder) == 0;
    }

    void discard() { ::unlinkat(_folder, _name.c_str(), 0); }

  private:
    static constexpr std::size_t kStartBytes = 8;

    const int _folder;
    const std::string _name;
    const std::string _partName;
    const UniqueDescriptor _file;
    std::uint64_t _size = 0;
    std::string _start;
    bool _kept = false;
};

UploadReceiver::UploadReceiver(const std::string& folder, EventSink& sink) : _sink(sink) {
    platform::createDirectories(folder);
    _folder.reset(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!_folder || ::faccessat(_folder.get(), ".", W_OK | X_OK, 0) != 0)
        throw StartError(fmt::format("cannot store uploads in {}", folder));
}

Response UploadReceiver::takeFile(const UploadFacts& facts, const Body& body) {
    static constexpr Kind kind{
        "upload", "", "", [](const std::string& name) {
            return Response{.body = fmt::format("{{\"result\":\"success\",\"file\":\"{}\"}}", name)};
        }};
    return store(kind,
                 {{"kind", "upload"},
                  {"peer", facts.peer},
                  {"uuid", facts.uuid},
                  {"sequence", facts.sequence},
                  {"description", facts.description},
                  {"fileName", facts.fileName},
                  {"raw", facts.raw}},
                 body);
}

Response UploadReceiver::takeLogData(const std::string& peer, const Body& body) {
    static constexpr Kind kind{"logdata", ".plist", "bplist00", [](const std::string& name) {
                                   return Response{.body = name, .contentType = "text/plain"};
                               }};
    return store(kind, {{"kind", "logdata"}, {"peer", peer}}, body);
}

Response UploadReceiver::store(const Kind& kind, Dictionary line, const Body& body) {
    IncomingFile file(_folder.get(), newName(kind.prefix, kind.suffix));
    const BodyResult result = body([&](std::string_view bytes) { return file.write(bytes); });
    if (auto refused = bodyRefusal(result)) {
        platform::logWarning("{} from {} refused: {}", kind.prefix, *line.string("peer"), refused->body);
        return *std::move(refused);
    }
    if (!file.start().starts_with(kind.magic)) return refusal(400, "the body is no keyed archive");

    line.set("file", file.name());
    line.set("bytes", file.size());
    line.set("receivedTime", receivedTime());
    const auto json = platform::compactJson(Value(std::move(line)));
    if (!json) return refusal(400, "a text is not UTF-8");
    if (!file.keep()) return refusal(503, "nothing can be stored");
    if (!_sink.append(std::string(json->begin(), json->end()) + '\n')) {
        file.discard();
        return refusal(503, "nothing can be stored");
    }
    platform::logInfo("Stored {}: {} bytes", file.name(), file.size());
    return kind.answer(file.name());
}

}  // namespace quorvane::collector
