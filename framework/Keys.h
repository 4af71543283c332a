#pragma once

#include <string_view>

namespace quorvane {

/// The names of the wire: keys of the dictionaries that cross the connection, and the backends' names.

inline constexpr const char* kQuorvaneServiceName = "com.velmora.quorvaned";
inline constexpr const char* kQuorvaneObjectPath = "/com/velmora/quorvaned";
inline constexpr const char* kQuorvaneSocketPath = "/run/quorvane/com.velmora.quorvaned";
inline constexpr const char* kClientSessionInterface = "com.velmora.quorvaned.ClientSessionInterface";
inline constexpr const char* kClientSessionReplyInterface =
    "com.velmora.quorvaned.ClientSessionReplyInterface";
inline constexpr const char* kEventBatchInterface = "com.velmora.quorvaned.EventBatch";
inline constexpr const char* kInspectionInterface = "com.velmora.quorvaned.Inspection";
inline constexpr const char* kSandboxExtensionInterface = "com.velmora.quorvaned.SandboxExtension";
inline constexpr const char* kSandboxExtensionOwnerInterface = "com.velmora.quorvaned.SandboxExtensionOwner";

inline constexpr std::string_view kQuorvaneSessionInfoSessionID = "SessionID";
inline constexpr std::string_view kQuorvaneSessionInfoClientType = "ClientType";
inline constexpr std::string_view kQuorvaneSessionInfoClientVersion = "ClientVersion";
inline constexpr std::string_view kQuorvaneSessionInfoBatchEvent = "BatchEvent";
inline constexpr std::string_view kQuorvaneSessionInfoRequireUserInfo = "RequireUserInfo";

inline constexpr std::string_view kQuorvaneUserInfoClientName = "ClientName";
inline constexpr std::string_view kQuorvaneUserInfoServiceName = "ServiceName";

inline constexpr std::string_view kQuorvaneMessageParametersCategory = "Category";
inline constexpr std::string_view kQuorvaneMessageParametersType = "Type";
inline constexpr std::string_view kQuorvaneMessageParametersPayload = "Payload";
inline constexpr std::string_view kQuorvaneMessageParametersFlag = "Flag";

inline constexpr std::string_view kQuorvaneBackendHTTPPost = "httppost";
inline constexpr std::string_view kQuorvaneBackendHTTPPost2 = "httppost2";
inline constexpr std::string_view kQuorvaneBackendDashboard = "dashboard";
inline constexpr std::string_view kQuorvaneBackendUploadServer = "uploadserver";
inline constexpr std::string_view kQuorvaneBackendJoulary = "joulary";
inline constexpr std::string_view kQuorvaneBackendOssel = "ossel";

}  // namespace quorvane
