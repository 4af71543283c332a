#pragma once

#include "collector/EventSink.h"
#include "collector/RequestBody.h"
#include "collector/Response.h"
#include "platform/base/UniqueDescriptor.h"
#include "platform/value/Value.h"

#include <functional>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// What a sender tells of a file. Texts from the network: they are written down, and no file is named after
/// them.
struct UploadFacts {
    std::string peer;
    std::string uuid;
    std::string sequence;
    std::string description;
    std::string fileName;
    bool raw = false;
};

/// Stores uploaded files and log-data archives in a folder, under names of its own, and writes a line about
/// each to the sink. Bodies go to the disk as they come. Thread-safe.
class UploadReceiver {
  public:
    /// Hands a body on piece by piece until take answers false.
    using Take = std::function<bool(std::string_view)>;
    using Body = std::function<BodyResult(const Take& take)>;

    /// Makes the folder when there is none; throws StartError when it cannot.
    UploadReceiver(const std::string& folder, EventSink& sink);

    /// Stores a file. The answer says "success" only once the file is safe on the disk: the device then
    /// deletes its own.
    Response takeFile(const UploadFacts& facts, const Body& body);

    /// Stores a keyed archive. The answer is the stored file's name, which the device keeps as its location.
    Response takeLogData(const std::string& peer, const Body& body);

  private:
    struct Kind;
    class IncomingFile;

    Response store(const Kind& kind, Dictionary line, const Body& body);

    EventSink& _sink;
    platform::UniqueDescriptor _folder;
};

}  // namespace quorvane::collector
