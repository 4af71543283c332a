// Code bundles good and bad; which one is the definition BUNDLE's to say.

#include "backends/include/quorvane/OsselAdaptor.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#define GOOD 1
#define WITHOUT_BUNDLE 2
#define OTHER_VERSION 3
#define MUTE 4

#if BUNDLE == GOOD

namespace {

constexpr const char* kSelector = "sendMessageWithMethod:respCode:dict:";

char seen[64] = "nothing";

void* init() {
    return seen;
}
void* initNothing() {
    return nullptr;
}
void* initThrowing() {
    throw std::runtime_error("no room");
}
void dealloc(void* object) {
    std::snprintf(static_cast<char*>(object), sizeof seen, "dealloc");
}
void deallocThrowing(void*) {
    throw 1;
}
void keep(void* object, std::uint16_t method, std::uint16_t respCode, const void* dictionary,
          std::size_t length) {
    const std::string bytes =
        dictionary != nullptr ? std::string(static_cast<const char*>(dictionary), length) : "null";
    std::snprintf(static_cast<char*>(object), sizeof seen, "%u %u %s (%zu)", method, respCode, bytes.c_str(),
                  length);
}
void invokeThrowing(void*, std::uint16_t, std::uint16_t, const void*, std::size_t) {
    throw std::runtime_error("no\nmemory");
}

const QuorvaneOperation keeping[] = {
    {nullptr, keep}, {"other:", invokeThrowing}, {"absent:", nullptr}, {kSelector, keep}};
const QuorvaneOperation throwing[] = {{kSelector, invokeThrowing}};
const QuorvaneClass classes[] = {
    {nullptr, init, dealloc, keeping, 4},
    {"Keeping", init, dealloc, keeping, 4},
    {"Mute", init, nullptr, nullptr, 4},
    {"Barren", initNothing, dealloc, keeping, 4},
    {"Uninitialisable", nullptr, dealloc, keeping, 4},
    {"Unmakeable", initThrowing, dealloc, keeping, 4},
    {"Throwing", init, deallocThrowing, throwing, 1},
};

}  // namespace

const QuorvaneCodeBundle quorvaneCodeBundle = {QUORVANE_CODE_BUNDLE_VERSION, classes, 7};

extern "C" const char* whatHappened() {
    return seen;
}

#elif BUNDLE == MUTE

namespace {

const QuorvaneOperation operations[] = {{"sendMessageWithMethod:respCode:", nullptr}};
const QuorvaneClass classes[] = {{"OsselAdaptor", [] { return std::malloc(1); }, std::free, operations, 1}};

}  // namespace

const QuorvaneCodeBundle quorvaneCodeBundle = {QUORVANE_CODE_BUNDLE_VERSION, classes, 1};

#elif BUNDLE == OTHER_VERSION

const QuorvaneCodeBundle quorvaneCodeBundle = {QUORVANE_CODE_BUNDLE_VERSION + 1, nullptr, 1};

#endif
