#pragma once

#include "backends/include/quorvane/OsselAdaptor.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quorvane {

/// Code bundles: shared objects with the interface of OsselAdaptor.h, which says what they must hold to.

/// The bundle in the file, loaded when it is not yet; a loaded one stays until the process ends. Null, and an
/// error line, when the path leads to no file of root's or of the daemon's own user, to no shared object, or
/// to a bundle of another version. Thread-safe.
const QuorvaneCodeBundle* loadCodeBundle(const std::string& path);

/// Null when there is none, or no bundle.
const QuorvaneClass* classNamed(const QuorvaneCodeBundle* bundle, std::string_view name);

/// An object of a class of a code bundle. What the bundle's functions throw ends here, with an error line.
class CodeObject {
  public:
    /// Null for a null class, and when the class makes no object.
    static std::unique_ptr<CodeObject> init(const QuorvaneClass* objectClass);
    ~CodeObject();
    CodeObject(const CodeObject&) = delete;
    CodeObject& operator=(const CodeObject&) = delete;

    /// "<NAME>", with the class's name.
    std::string description() const;

    /// The operation of that name, or null when the object does not answer it.
    const QuorvaneOperation* operationWithSelector(std::string_view selector) const;

    /// The dictionary is a binary property list; empty for none.
    void invoke(const QuorvaneOperation& operation, std::uint16_t method, std::uint16_t respCode,
                std::span<const std::uint8_t> dictionary) const;

  private:
    CodeObject(const QuorvaneClass& objectClass, void* object);

    const QuorvaneClass& _class;
    void* const _object;
};

}  // namespace quorvane
