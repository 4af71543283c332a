#include "backends/DashboardBackend.h"
#include "backends/HTTPSPostBackend.h"
#include "backends/JoularyBackend.h"
#include "backends/OsselBackend.h"
#include "backends/QuorvaneBackend.h"
#include "backends/UploadBackend.h"
#include "framework/Keys.h"
#include "platform/base/Log.h"
#include "util/DeviceFacts.h"

namespace quorvane {

namespace {

using BackendPointer = std::shared_ptr<QuorvaneBackend>;
using Profile = std::shared_ptr<const Dictionary>;
using OptionalString = QuorvaneBackend::OptionalString;

template <typename Backend>
BackendPointer make(const std::string& name, Profile profile, const OptionalString& productFamily,
                    std::int32_t) {
    return Backend::initWithName(name, std::move(profile), productFamily);
}

BackendPointer makeOssel(const std::string& name, Profile profile, const OptionalString& productFamily,
                         std::int32_t clientType) {
    return OsselBackend::initWithName(name, std::move(profile), productFamily, clientType);
}

/// Whether a backend is made of that profile, if it is made for any.
using Accepts = bool (*)(const Dictionary* profile, const OptionalString& productFamily,
                         std::int32_t clientType);

bool acceptHTTPSPost(const Dictionary* profile, const OptionalString& productFamily, std::int32_t) {
    return HTTPSPostBackend::accepts(profile, productFamily);
}

bool acceptDashboard(const Dictionary* profile, const OptionalString&, std::int32_t) {
    return profile != nullptr && DashboardBackend::namesCollector(*profile);
}

bool acceptUpload(const Dictionary* profile, const OptionalString&, std::int32_t) {
    return UploadBackend::accepts(profile);
}

bool acceptOssel(const Dictionary*, const OptionalString&, std::int32_t clientType) {
    return OsselBackend::hasAdaptor(clientType);
}

bool acceptAny(const Dictionary*, const OptionalString&, std::int32_t) {
    return true;
}

struct Maker {
    std::string_view name;
    Accepts accepts;
    BackendPointer (*make)(const std::string& name, Profile profile, const OptionalString& productFamily,
                           std::int32_t clientType);
};

constexpr Maker makers[] = {
    {kQuorvaneBackendDashboard, acceptDashboard, make<DashboardBackend>},
    {kQuorvaneBackendUploadServer, acceptUpload, make<UploadBackend>},
    {kQuorvaneBackendHTTPPost, acceptHTTPSPost, make<HTTPSPostBackend>},
    {kQuorvaneBackendHTTPPost2, acceptHTTPSPost, make<HTTPSPostBackend>},
    {kQuorvaneBackendJoulary, acceptAny, make<JoularyBackend>},
    {kQuorvaneBackendOssel, acceptOssel, makeOssel},
};

/// One product has no diagnostics adaptor.
bool isRefusedHere(std::string_view name) {
    return name == kQuorvaneBackendOssel && productType() == "Korvel";
}

/// Null, and an error line, for an unknown name.
const Maker* makerOf(std::string_view name) {
    for (const Maker& maker : makers)
        if (maker.name == name && !isRefusedHere(name)) return &maker;
    platform::logError("QuorvaneBackend(newBackendWithName): {}", name);
    return nullptr;
}

}  // namespace

std::shared_ptr<QuorvaneBackend> QuorvaneBackend::newBackendWithName(
    const std::string& name, std::shared_ptr<const Dictionary> profile, const OptionalString& productFamily,
    std::int32_t clientType) {
    const Maker* maker = makerOf(name);
    return maker != nullptr ? maker->make(name, std::move(profile), productFamily, clientType) : nullptr;
}

bool QuorvaneBackend::isMadeOf(const std::string& name, const Dictionary* profile,
                               const OptionalString& productFamily, std::int32_t clientType) {
    const Maker* maker = makerOf(name);
    return maker != nullptr && maker->accepts(profile, productFamily, clientType);
}

}  // namespace quorvane
