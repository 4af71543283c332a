#include "backends/CodeBundle.h"

#include "platform/base/Log.h"
#include "platform/base/Owned.h"
#include "platform/base/SettledOnce.h"
#include "platform/base/ThreadAnnotations.h"
#include "platform/base/UniqueDescriptor.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

namespace quorvane {

using platform::logError;
using platform::Mutex;
using platform::MutexLock;
using platform::Owned;
using platform::UniqueDescriptor;

namespace {

using Failure = std::optional<std::string>;

using Library = Owned<void, ::dlclose>;

constexpr const char* kSymbol = "quorvaneCodeBundle";
constexpr unsigned char kNativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;

template <typename T>
bool readAt(int file, std::uint64_t offset, std::span<T> into) {
    return ::pread(file, into.data(), into.size_bytes(), static_cast<off_t>(offset)) ==
           static_cast<ssize_t>(into.size_bytes());
}

/// Whether the file ends before a segment of its does. dlopen() maps such a file all the same, and the first
/// touch of what is not there ends the process. It refuses by itself what is no shared object.
bool isCutShort(int file, std::uint64_t size) {
    ElfW(Ehdr) header{};
    const bool whole = readAt(file, 0, std::span(&header, 1));
    if (!whole || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != kNativeClass)
        return false;
    std::vector<ElfW(Phdr)> segments(header.e_phnum);
    if (!readAt(file, header.e_phoff, std::span(segments))) return true;
    return std::any_of(segments.begin(), segments.end(), [size](const ElfW(Phdr) & segment) {
        return segment.p_type == PT_LOAD &&
               (segment.p_offset > size || segment.p_filesz > size - segment.p_offset);
    });
}

Failure checkFile(const std::string& path) {
    // Of a named pipe in the file's place the call does not wait for the other end.
    const UniqueDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return std::strerror(errno);
    if (!S_ISREG(status.st_mode)) return "it is no file";
    if (isCutShort(file.get(), static_cast<std::uint64_t>(status.st_size))) return "the file is cut short";
    return std::nullopt;
}

/// The bundle that the library exports, or what is wrong with it.
std::variant<const QuorvaneCodeBundle*, std::string> exportedBundle(void* library) {
    const void* address = ::dlsym(library, kSymbol);
    if (address == nullptr) return fmt::format("it exports no {}", kSymbol);
    Dl_info info{};
    void* entry = nullptr;
    const bool known = ::dladdr1(address, &info, &entry, RTLD_DL_SYMENT) != 0 && entry != nullptr;
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    if (!known || ELF64_ST_TYPE(symbol->st_info) != STT_OBJECT || symbol->st_size < sizeof(std::uint32_t))
        return fmt::format("its {} is no bundle", kSymbol);
    const auto* bundle = static_cast<const QuorvaneCodeBundle*>(address);
    if (bundle->version != QUORVANE_CODE_BUNDLE_VERSION)
        return fmt::format("its version is {}, not {}", bundle->version, QUORVANE_CODE_BUNDLE_VERSION);
    if (symbol->st_size < sizeof(QuorvaneCodeBundle)) return fmt::format("its {} is no bundle", kSymbol);
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

std::variant<LoadedBundle, std::string> load(const std::string& path) {
    if (auto failure = checkFile(path)) return *std::move(failure);
    Library library(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (library == nullptr) return ::dlerror();
    auto bundle = exportedBundle(library.get());
    if (auto* failure = std::get_if<std::string>(&bundle)) return std::move(*failure);
    return LoadedBundle{std::move(library), std::get<const QuorvaneCodeBundle*>(bundle)};
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
    auto made = load(path);
    if (const auto* failure = std::get_if<std::string>(&made)) {
        logError("loadCodeBundle: Cannot load {}: {}", path, *failure);
        return nullptr;
    }
    const auto added = loaded.byPath.emplace(path, std::get<LoadedBundle>(std::move(made)));
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
