#include "client/Serialization.h"

#include "framework/Keys.h"
#include "platform/bus/BusValue.h"
#include "platform/value/Url.h"

#include <string_view>

namespace quorvane::client {

namespace {

std::optional<std::uint32_t> number(const Dictionary& dictionary, std::string_view key) {
    if (!dictionary.contains(key)) return std::nullopt;
    return static_cast<std::uint32_t>(dictionary.unsignedInteger(key));
}

int appendNumber(sd_bus_message* message, std::string_view key, const char* type, const void* value) {
    int result = ::sd_bus_message_open_container(message, 'e', "sv");
    if (result >= 0) result = ::sd_bus_message_append_basic(message, 's', key.data());
    if (result >= 0) result = ::sd_bus_message_open_container(message, 'v', type);
    if (result >= 0) result = ::sd_bus_message_append_basic(message, *type, value);
    if (result >= 0) result = ::sd_bus_message_close_container(message);
    return result < 0 ? result : ::sd_bus_message_close_container(message);
}

int appendPayload(sd_bus_message* message, const Dictionary& payload) {
    int result = ::sd_bus_message_open_container(message, 'e', "sv");
    if (result >= 0)
        result = ::sd_bus_message_append_basic(message, 's', kQuorvaneMessageParametersPayload.data());
    if (result >= 0) result = ::sd_bus_message_open_container(message, 'v', "a{sv}");
    if (result >= 0) result = platform::appendDictionary(message, payload);
    if (result >= 0) result = ::sd_bus_message_close_container(message);
    return result < 0 ? result : ::sd_bus_message_close_container(message);
}

}  // namespace

Dictionary sessionInfoDictionary(const SessionInfo& sessionInfo) {
    Dictionary dictionary;
    if (sessionInfo.sessionID) dictionary.set(kQuorvaneSessionInfoSessionID, *sessionInfo.sessionID);
    if (sessionInfo.clientType) dictionary.set(kQuorvaneSessionInfoClientType, *sessionInfo.clientType);
    dictionary.set(kQuorvaneSessionInfoClientVersion, sessionInfo.clientVersion);
    dictionary.set(kQuorvaneSessionInfoBatchEvent, sessionInfo.batchEvent);
    dictionary.set(kQuorvaneSessionInfoRequireUserInfo, sessionInfo.requireUserInfo);
    return dictionary;
}

SessionInfo sessionInfoFromDictionary(const Dictionary& dictionary) {
    SessionInfo sessionInfo;
    sessionInfo.sessionID = number(dictionary, kQuorvaneSessionInfoSessionID);
    sessionInfo.clientType = number(dictionary, kQuorvaneSessionInfoClientType);
    sessionInfo.clientVersion = number(dictionary, kQuorvaneSessionInfoClientVersion).value_or(0);
    sessionInfo.batchEvent = dictionary.boolean(kQuorvaneSessionInfoBatchEvent);
    sessionInfo.requireUserInfo = dictionary.boolean(kQuorvaneSessionInfoRequireUserInfo);
    return sessionInfo;
}

std::optional<Dictionary> userInfoDictionary(const std::optional<UserInfo>& userInfo) {
    if (!userInfo) return std::nullopt;
    Dictionary dictionary = userInfo->furtherKeys;
    if (userInfo->clientName) dictionary.set(kQuorvaneUserInfoClientName, *userInfo->clientName);
    if (userInfo->serviceName) dictionary.set(kQuorvaneUserInfoServiceName, *userInfo->serviceName);
    return dictionary;
}

std::string fileURL(const std::string& path) {
    return "file://" + platform::pathPercentEncoded(path);
}

int appendMessage(sd_bus_message* message, const EventView& event) {
    int result = ::sd_bus_message_open_container(message, 'a', "{sv}");
    if (result >= 0) result = appendNumber(message, kQuorvaneMessageParametersCategory, "q", &event.category);
    if (result >= 0) result = appendNumber(message, kQuorvaneMessageParametersType, "q", &event.type);
    if (result >= 0 && event.payload != nullptr) result = appendPayload(message, *event.payload);
    if (result >= 0 && event.flag != 0)
        result = appendNumber(message, kQuorvaneMessageParametersFlag, "u", &event.flag);
    return result < 0 ? result : ::sd_bus_message_close_container(message);
}

int appendEvent(sd_bus_message* message, const Event& event) {
    const int result = ::sd_bus_message_append(message, "qq", event.category, event.type);
    return result < 0 ? result : platform::appendOptionalDictionary(message, orNull(event.payload));
}

}  // namespace quorvane::client
