#include "client/c/Guard.h"
#include "client/c/Handles.h"

#include <optional>
#include <string>

using quorvane::client::guarded;
using quorvane::client::newOrNull;

// Session infos.

QuorvaneSessionInfo* quorvane_session_info_new() {
    return newOrNull<QuorvaneSessionInfo>();
}

void quorvane_session_info_free(QuorvaneSessionInfo* info) {
    delete info;
}

void quorvane_session_info_set_session_id(QuorvaneSessionInfo* info, uint32_t session_id) {
    if (info != nullptr) info->held.sessionID = session_id;
}

void quorvane_session_info_set_client_type(QuorvaneSessionInfo* info, uint32_t client_type) {
    if (info != nullptr) info->held.clientType = client_type;
}

void quorvane_session_info_set_client_version(QuorvaneSessionInfo* info, uint32_t client_version) {
    if (info != nullptr) info->held.clientVersion = client_version;
}

void quorvane_session_info_set_batch_event(QuorvaneSessionInfo* info, bool batch_event) {
    if (info != nullptr) info->held.batchEvent = batch_event;
}

void quorvane_session_info_set_require_user_info(QuorvaneSessionInfo* info, bool require_user_info) {
    if (info != nullptr) info->held.requireUserInfo = require_user_info;
}

int quorvane_session_info_add_framework(QuorvaneSessionInfo* info, const char* name) {
    if (info == nullptr || name == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        info->frameworks.emplace_back(name);
        return QUORVANE_OK;
    });
}

// User infos.

namespace {

int setName(std::optional<std::string>& to, const char* name) {
    return guarded([&]() -> int {
        if (name != nullptr)
            to = name;
        else
            to.reset();
        return QUORVANE_OK;
    });
}

}  // namespace

QuorvaneUserInfo* quorvane_user_info_new() {
    return newOrNull<QuorvaneUserInfo>();
}

void quorvane_user_info_free(QuorvaneUserInfo* info) {
    delete info;
}

int quorvane_user_info_set_client_name(QuorvaneUserInfo* info, const char* name) {
    return info != nullptr ? setName(info->held.clientName, name) : QUORVANE_INVALID_ARGUMENT;
}

int quorvane_user_info_set_service_name(QuorvaneUserInfo* info, const char* name) {
    return info != nullptr ? setName(info->held.serviceName, name) : QUORVANE_INVALID_ARGUMENT;
}

int quorvane_user_info_set_further_keys(QuorvaneUserInfo* info, const QuorvaneDictionary* keys) {
    if (info == nullptr || keys == nullptr) return QUORVANE_INVALID_ARGUMENT;
    return guarded([&]() -> int {
        info->held.furtherKeys = keys->held;
        return QUORVANE_OK;
    });
}
