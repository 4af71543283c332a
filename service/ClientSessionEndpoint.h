#pragma once

#include "platform/base/UniqueDescriptor.h"
#include "platform/base/UserAccount.h"
#include "platform/bus/BusConnection.h"
#include "platform/bus/BusHeader.h"
#include "platform/sandbox/SandboxExtension.h"
#include "service/ClientProxy.h"
#include "service/protocols.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvane {

/// What a connection exports: decodes the calls of both D-Bus interfaces, has the session serve them and
/// sends the answers. All on the connection's thread.
class ClientSessionEndpoint {
  public:
    /// Exports the session on a connection that is not resumed yet; the connection shares the session until
    /// it ends. The client given is asked to remove the files that it lends.
    static void exportSession(platform::BusConnection& connection,
                              std::shared_ptr<ClientSessionInterface> session,
                              std::shared_ptr<const ClientProxy> client);
    ~ClientSessionEndpoint();
    ClientSessionEndpoint(const ClientSessionEndpoint&) = delete;
    ClientSessionEndpoint& operator=(const ClientSessionEndpoint&) = delete;

  private:
    ClientSessionEndpoint(platform::BusConnection& connection,
                          std::shared_ptr<ClientSessionInterface> session,
                          std::shared_ptr<const ClientProxy> client);

    static const sd_bus_vtable sessionVtable[];
    static const sd_bus_vtable batchVtable[];
    static const sd_bus_vtable extensionVtable[];

    // One a method: a negative errno value for arguments that cannot be read.
    int setSessionInfo(sd_bus_message* call);
    int startConfig(sd_bus_message* call);
    int fetchStatesWithUserInfo(sd_bus_message* call);
    int fetchDisplayURL(sd_bus_message* call);
    int sendMessageWithCategory(sd_bus_message* call);
    int sendMessageWithDictionary(sd_bus_message* call);
    void sendPlainMessage(const platform::BusCall& call, const Dictionary& message) noexcept;
    int sendMessages(sd_bus_message* call);
    int flushMessages(sd_bus_message* call);
    int uploadFileAtPath(sd_bus_message* call);
    int uploadLogData(sd_bus_message* call);
    int sendMessageWithSessionInfo(sd_bus_message* call);
    int issue(sd_bus_message* call);
    void issueForFile(sd_bus_message* call, platform::UniqueDescriptor file);

    /// What the session keeps of its client, charged to the client's user. Negative errno when it is too
    /// much.
    int keep(platform::UserAccount::Charge& charge, std::size_t bytes);
    int keepInfos(const Dictionary& sessionInfo, const std::optional<Dictionary>& userInfo);
    int keepUserInfo(const std::optional<Dictionary>& userInfo);
    int keepFrameworks(const std::vector<std::string>& frameworks);

    void answerText(sd_bus_message* call, const std::string& text);
    void answerOptionalText(sd_bus_message* call, const Answer& text);
    void answerPlainMessage(const platform::BusCall& call, const Answer& text);
    void answerStates(sd_bus_message* call, const ReportingStates& states);

    platform::BusConnection& _connection;  ///< Owns this.
    const std::shared_ptr<ClientSessionInterface> _session;
    const std::shared_ptr<const ClientProxy> _client;
    const platform::ExtensionOwner _extensionOwner;
    platform::UserAccount::Charge _sessionInfo, _userInfo, _frameworks;
};

}  // namespace quorvane
