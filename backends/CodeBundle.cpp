#include "backends/CodeBundle.h"

#include "platform/base/Log.h"
#include "platform/base/Owned.h"
#include "platform/base/Result.h"
#include "platform/base/SettledOnce.h"
#include "platform/base/ThreadAnnotations.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <utility>

#include <fmt/format.h>

namespace quorvane {

using platform::failure;
using platform::logError;
using platform::Mutex;
using platform::MutexLock;
using platform::Owned;
using platform::Result;

namespace {

using Library = Owned<void, ::dlclose>;

constexpr const char* kSymbol = "quorvaneCodeBundle";

/// Root's files, and, for a daemon under a root folder of its own, those of the user who runs it.
bool isTrusted(uid_t owner) {
    return owner == 0 || owner == ::geteuid();
}

/// The path, if what lies there is a file whose owner may run code in the daemon.
Result<const char*> checkedPath(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return failure(std::strerror(errno));
    // dlopen() would wait for the other end of a named pipe.
    if (!S_ISREG(status.st_mode)) return failure("it is no file");
    if (!isTrusted(status.st_uid)) return failure(fmt::format("it belongs to user {}", status.st_uid));
    return path.c_str();
}

Result<const QuorvaneCodeBundle*> exportedBundle(void* library) {
    const auto* bundle = static_cast<const QuorvaneCodeBundle*>(::dlsym(library, kSymbol));
    if (bundle == nullptr) return failure(fmt::format("it exports no {}", kSymbol));
    if (bundle->version != QUORVANE_CODE_BUNDLE_VERSION)
        return failure(
            fmt::format("its version is {}, not {}", bundle->version, QUORVANE_CODE_BUNDLE_VERSION));
    return bundle;
}

struct LoadedBundle {
    Library library;
    const QuorvaneCodeBundle* bundle;
};

struct LoadedBundles {
    Mutex mutex;
    std::map<std::string, LoadedBundle> byPath GUARDED_BY(mutex);
};

Result<LoadedBundle> load(const std::string& path) {
    const Result<const char*> checked = checkedPath(path);
    if (!checked) return failure(checked.error().message);
    Library library(::dlopen(*checked, RTLD_NOW | RTLD_LOCAL));
    if (library == nullptr) return failure(::dlerror());
    const Result<const QuorvaneCodeBundle*> bundle = exportedBundle(library.get());
    if (!bundle) return failure(bundle.error().message);
    return LoadedBundle{std::move(library), *bundle};
}

/// Runs the bundle's function; false, and an error line, when it throws.
template <typename Function>
bool contained(const QuorvaneClass& objectClass, std::string_view operation, Function&& function) {
    try {
        function();
        return true;
    } catch (const std::exception& exception) {
        logError("contained: {} of <{}> threw: {}", operation, objectClass.name, exception.what());
    } catch (...) {
        logError("contained: {} of <{}> threw something", operation, objectClass.name);
    }
    return false;
}

bool isNamed(const char* text, std::string_view name) {
    return text != nullptr && text == name;
}

}  // namespace

const QuorvaneCodeBundle* loadCodeBundle(const std::string& path) {
    // Never unloaded: the threads and exit handlers of a library could outlast any use of it.
    static platform::SettledOnce<LoadedBundles> ofThisProcess([] { return LoadedBundles(); });
    LoadedBundles& loaded = ofThisProcess.value();
    const MutexLock lock(loaded.mutex);
    if (const auto found = loaded.byPath.find(path); found != loaded.byPath.end())
        return found->second.bundle;
    Result<LoadedBundle> made = load(path);
    if (!made) {
        logError("loadCodeBundle: Cannot load {}: {}", path, made.error().message);
        return nullptr;
    }
    const auto added = loaded.byPath.emplace(path, *std::move(made));
    return added.first->second.bundle;
}

const QuorvaneClass* classNamed(const QuorvaneCodeBundle* bundle, std::string_view name) {
    if (bundle == nullptr || bundle->classes == nullptr) return nullptr;
    for (const QuorvaneClass& candidate : std::span(bundle->classes, bundle->classCount))
        if (isNamed(candidate.name, name)) return &candidate;
    return nullptr;
}

std::unique_ptr<CodeObject> CodeObject::init(const QuorvaneClass* objectClass) {
    if (objectClass == nullptr || objectClass->init == nullptr) return nullptr;
    void* object = nullptr;
    contained(*objectClass, "init", [&] { object = objectClass->init(); });
    if (object == nullptr) return nullptr;
    return std::unique_ptr<CodeObject>(new CodeObject(*objectClass, object));
}

CodeObject::CodeObject(const QuorvaneClass& objectClass, void* object)
    : _class(objectClass), _object(object) {}

CodeObject::~CodeObject() {
    if (_class.dealloc != nullptr) contained(_class, "dealloc", [this] { _class.dealloc(_object); });
}

std::string CodeObject::description() const {
    return fmt::format("<{}>", _class.name);
}

const QuorvaneOperation* CodeObject::operationWithSelector(std::string_view selector) const {
    if (_class.operations == nullptr) return nullptr;
    for (const QuorvaneOperation& operation : std::span(_class.operations, _class.operationCount))
        if (isNamed(operation.selector, selector) && operation.invoke != nullptr) return &operation;
    return nullptr;
}

void CodeObject::invoke(const QuorvaneOperation& operation, std::uint16_t method, std::uint16_t respCode,
                        std::span<const std::uint8_t> dictionary) const {
    contained(_class, operation.selector, [&] {
        operation.invoke(_object, method, respCode, dictionary.empty() ? nullptr : dictionary.data(),
                         dictionary.size());
    });
}

}  // namespace quorvane
