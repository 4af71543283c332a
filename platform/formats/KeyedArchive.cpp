#include "platform/formats/KeyedArchive.h"

#include "platform/formats/BinaryPropertyListWriter.h"
#include "platform/formats/PropertyListDate.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorvane::platform {

namespace {

constexpr std::int64_t kVersion = 100'000;

using Reference = BinaryPropertyListWriter::Reference;

/// Writes the objects, inner ones first. A Reference is to an object of the property list. Archived objects
/// are named by a UID, itself such an object, and that is what the functions that archive one return.
class Archiver {
  public:
    std::optional<Data> archive(const Array& root) {
        addArchived(literal("$null"));
        const auto reference = add(root);
        if (!reference) return std::nullopt;
        return _list.finish(dictionary({{"$archiver", literal("KeyedArchiver")},
                                        {"$version", _list.add(kVersion)},
                                        {"$top", dictionary({{"root", *reference}})},
                                        {"$objects", _list.addArray(_objects)}}));
    }

  private:
    using MaybeReference = std::optional<Reference>;
    struct Field {
        std::string_view key;
        Reference value;
    };

    MaybeReference add(const Value& value) {
        return value.visit([this](const auto& held) { return add(held); });
    }

    MaybeReference add(bool flag) { return addArchived(_list.add(flag)); }
    MaybeReference add(std::int64_t number) { return addArchived(_list.add(number)); }
    MaybeReference add(std::uint64_t number) { return addArchived(_list.add(number)); }
    MaybeReference add(double number) { return addArchived(_list.add(number)); }
    MaybeReference add(const Data& data) { return addArchived(_list.add(data)); }

    MaybeReference add(const std::string& text) {
        const auto [known, isNew] = _texts.try_emplace(text);
        if (!isNew) return known->second;
        const MaybeReference added = _list.add(std::string_view(text));
        if (!added) return std::nullopt;
        return known->second = addArchived(*added);
    }

    MaybeReference add(Date date) { return addObject("Date", {{"time", _list.add(propertyListTime(date))}}); }

    MaybeReference add(const Array& array) {
        std::vector<Reference> objects;
        objects.reserve(array.size());
        for (const Value& element : array)
            if (!append(objects, add(element))) return std::nullopt;
        return addObject("Array", {{"objects", _list.addArray(objects)}});
    }

    MaybeReference add(const Dictionary& dictionary) {
        std::vector<Reference> keys;
        std::vector<Reference> objects;
        keys.reserve(dictionary.size());
        objects.reserve(dictionary.size());
        for (const auto& [key, value] : dictionary)
            if (!append(keys, add(key)) || !append(objects, add(value))) return std::nullopt;
        return addObject("Dictionary",
                         {{"keys", _list.addArray(keys)}, {"objects", _list.addArray(objects)}});
    }

    static bool append(std::vector<Reference>& references, MaybeReference reference) {
        if (reference) references.push_back(*reference);
        return reference.has_value();
    }

    Reference addObject(std::string_view className, std::initializer_list<Field> fields) {
        std::vector<Field> all{{"$class", classNamed(className)}};
        all.insert(all.end(), fields.begin(), fields.end());
        return addArchived(dictionary(all));
    }

    Reference classNamed(std::string_view name) {
        const auto [known, isNew] = _classes.try_emplace(name);
        if (!isNew) return known->second;
        const Reference names[] = {literal(name), literal("Object")};
        return known->second = addArchived(
                   dictionary({{"$classname", literal(name)}, {"$classes", _list.addArray(names)}}));
    }

    Reference addArchived(Reference object) {
        _objects.push_back(object);
        return _list.addUid(static_cast<std::uint32_t>(_objects.size() - 1));
    }

    Reference dictionary(const std::vector<Field>& fields) {
        std::vector<Reference> keys;
        std::vector<Reference> values;
        for (const auto& [key, value] : fields) {
            keys.push_back(literal(key));
            values.push_back(value);
        }
        return _list.addDictionary(keys, values);
    }

    /// One of the layout's own texts, which are ASCII.
    Reference literal(std::string_view text) {
        const auto [known, isNew] = _literals.try_emplace(text);
        if (isNew) known->second = _list.add(text).value();
        return known->second;
    }

    BinaryPropertyListWriter _list;
    std::vector<Reference> _objects;
    /// Views into the archived value.
    std::unordered_map<std::string_view, Reference> _texts;
    std::unordered_map<std::string_view, Reference> _classes;
    std::unordered_map<std::string_view, Reference> _literals;
};

}  // namespace

std::optional<Data> keyedArchive(const Array& root) {
    return Archiver().archive(root);
}

}  // namespace quorvane::platform
