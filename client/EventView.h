#pragma once

#include <quorvane/Session.h>

#include <cstdint>

namespace quorvane::client {

/// An event for the time of a call; its payload lies elsewhere and is null when there is none.
struct EventView {
    EventView(std::uint16_t category, std::uint16_t type, const Dictionary* payload, std::uint32_t flag)
        : category(category), type(type), payload(payload), flag(flag) {}
    EventView(const Event& event)
        : EventView(event.category, event.type, event.payload ? &*event.payload : nullptr, event.flag) {}

    std::uint16_t category;
    std::uint16_t type;
    const Dictionary* payload;
    std::uint32_t flag;
};

}  // namespace quorvane::client
