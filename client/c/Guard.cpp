#include "client/c/Guard.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace quorvane::client {

int codeOf(ErrorCode code) noexcept {
    switch (code) {
        case ErrorCode::Disconnected:
            return QUORVANE_DISCONNECTED;
        case ErrorCode::TimedOut:
            return QUORVANE_TIMED_OUT;
        case ErrorCode::InvalidArgument:
            return QUORVANE_INVALID_ARGUMENT;
        case ErrorCode::Refused:
            return QUORVANE_REFUSED;
        case ErrorCode::WouldDeadlock:
            return QUORVANE_WOULD_DEADLOCK;
        case ErrorCode::System:
            return QUORVANE_SYSTEM;
        case ErrorCode::WouldBlock:
            return QUORVANE_WOULD_BLOCK;
    }
    return QUORVANE_SYSTEM;
}

char* textOf(const char* text) noexcept {
    return ::strdup(text);
}

void handOut(const std::optional<std::string>& text, char** to) {
    if (to == nullptr || !text) return;
    *to = textOf(text->c_str());
    if (*to == nullptr) throw std::bad_alloc();
}

/// One block of memory: the array, and behind it the names.
void handOut(const std::optional<std::vector<std::string>>& names, char*** to) {
    if (to == nullptr || !names) return;
    const std::size_t arrayBytes = (names->size() + 1) * sizeof(char*);
    std::size_t bytes = arrayBytes;
    for (const std::string& name : *names) bytes += name.size() + 1;
    void* block = std::malloc(bytes);
    if (block == nullptr) throw std::bad_alloc();
    char** array = static_cast<char**>(block);
    char* text = static_cast<char*>(block) + arrayBytes;
    for (const std::string& name : *names) {
        *array++ = text;
        std::memcpy(text, name.c_str(), name.size() + 1);
        text += name.size() + 1;
    }
    *array = nullptr;
    *to = static_cast<char**>(block);
}

}  // namespace quorvane::client

const char* quorvane_version() {
    return QUORVANE_VERSION;
}

void quorvane_text_free(char* text) {
    std::free(text);
}

void quorvane_names_free(char** names) {
    std::free(static_cast<void*>(names));
}
