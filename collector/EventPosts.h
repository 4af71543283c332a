#pragma once

#include "collector/EventEnvelope.h"
#include "collector/EventSink.h"
#include "collector/Response.h"

#include <optional>
#include <semaphore>
#include <string>
#include <string_view>

namespace quorvane::collector {

/// What a post tells beside its message.
struct PostFacts {
    std::string path;
    std::string peer;  ///< address and port of the sender
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    std::optional<std::string> sender;
    std::optional<std::string> eventMap;
    bool internalBuild = false;
};

/// Takes posted messages of events: checks them and writes every event to the sink. Thread-safe.
class EventPosts {
  public:
    EventPosts(EventSink& sink, RemovedKeys removed);

    /// The message's answer: 200 with the number of events, 400 with the reason, or, when nothing can be
    /// written, 503. All events of a message are written or none. 503 makes a device stop reporting until its
    /// configuration is read again, so it stands for nothing else.
    Response take(const PostFacts& facts, std::string_view message);

  private:
    EventSink& _sink;
    const RemovedKeys _removed;
    /// A parsed message takes many times its text's memory, so no more are parsed at once than can be worked
    /// on at once.
    std::counting_semaphore<> _parsers;
};

}  // namespace quorvane::collector
