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

struct Maker {
    std::string_view name;
    BackendPointer (*make)(const std::string& name, Profile profile, const OptionalString& productFamily,
                           std::int32_t clientType);
};

constexpr Maker makers[] = {
    {kQuorvaneBackendDashboard, make<DashboardBackend>}, {kQuorvaneBackendUploadServer, make<UploadBackend>},
    {kQuorvaneBackendHTTPPost, make<HTTPSPostBackend>},  {kQuorvaneBackendHTTPPost2, make<HTTPSPostBackend>},
    {kQuorvaneBackendJoulary, make<JoularyBackend>},     {kQuorvaneBackendOssel, makeOssel},
};

/// One product has no diagnostics adaptor.
bool isRefusedHere(std::string_view name) {
    return name == kQuorvaneBackendOssel && productType() == "Korvel";
}

}  // namespace

std::shared_ptr<QuorvaneBackend> QuorvaneBackend::newBackendWithName(
    const std::string& name, std::shared_ptr<const Dictionary> profile, const OptionalString& productFamily,
    std::int32_t clientType) {
    for (const Maker& maker : makers)
        if (maker.name == name && !isRefusedHere(name))
            return maker.make(name, std::move(profile), productFamily, clientType);
    platform::logError("QuorvaneBackend(newBackendWithName): {}", name);
    return nullptr;
}

}  // namespace quorvane
