#pragma once

#include "client/Connection.h"
#include "client/LentFiles.h"
#include "platform/base/ThreadAnnotations.h"

#include <quorvane/Session.h>

#include <systemd/sd-bus.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

namespace quorvane::client {

/// The D-Bus interfaces that the daemon calls on a client: relayed events and the removal of uploaded files.
/// Handlers run on the connection's thread.
class ReplyInterface {
  public:
    explicit ReplyInterface(LentFiles& lentFiles) : _lentFiles(lentFiles) {}

    /// To be exported on the connection.
    std::array<Connection::Export, 2> exports();
    /// The connection whose executor runs the blocks. Calls that come before this are ignored.
    void setConnection(Connection* connection) { _connection = connection; }

    /// Thread-safe.
    void setAggregationBlock(AggregationBlock block);
    std::uint64_t droppedEvents() const { return _droppedEvents; }

  private:
    static int sendMessageToClient(sd_bus_message* message, void* self, sd_bus_error* error);
    static int removeFile(sd_bus_message* message, void* self, sd_bus_error* error);
    void deliver(AggregatedEvent event);

    static const sd_bus_vtable kReplyVtable[];
    static const sd_bus_vtable kOwnerVtable[];

    LentFiles& _lentFiles;
    std::atomic<Connection*> _connection = nullptr;
    std::atomic<std::uint64_t> _droppedEvents = 0;
    platform::Mutex _mutex;
    std::shared_ptr<const AggregationBlock> _block GUARDED_BY(_mutex);
};

}  // namespace quorvane::client
