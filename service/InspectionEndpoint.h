#pragma once

#include "backends/EventMonitor.h"
#include "platform/base/UserAccount.h"
#include "platform/bus/BusConnection.h"
#include "service/InspectionSource.h"

#include <systemd/sd-bus.h>

#include <sys/types.h>

#include <memory>
#include <optional>
#include <vector>

namespace quorvane {

/// What a connection exports beside its session: a look at what the daemon does. Root and who belongs to the
/// daemon's own group see all of it, others their own sessions. All on the connection's thread.
class InspectionEndpoint {
  public:
    /// Exports the inspection on a connection that is not resumed yet. The source must outlive the
    /// connection.
    static void exportInspection(platform::BusConnection& connection, InspectionSource& source);
    InspectionEndpoint(const InspectionEndpoint&) = delete;
    InspectionEndpoint& operator=(const InspectionEndpoint&) = delete;

  private:
    InspectionEndpoint(platform::BusConnection& connection, InspectionSource& source)
        : _connection(connection), _source(source) {}

    static const sd_bus_vtable vtable[];

    // One a method: negative errno when the answer cannot be given.
    int getStatistics(sd_bus_message* call);
    int getSessions(sd_bus_message* call);
    int getStorebags(sd_bus_message* call);
    int monitor(sd_bus_message* call);

    /// The user whose sessions the client may see alone; nothing when it may see all.
    std::optional<uid_t> onlyUser() const;
    int answer(sd_bus_message* call, const std::vector<Dictionary>& answers);
    template <typename Append>
    int answer(sd_bus_message* call, std::size_t bytes, const Append& append);

    platform::BusConnection& _connection;  ///< Owns this.
    InspectionSource& _source;
    platform::UserAccount::Charge
        _answered;  ///< For the last answer, which the client may not have read yet.
    platform::UserAccount::Charge _monitors;
    std::unique_ptr<EventMonitor> _monitor;
};

}  // namespace quorvane
