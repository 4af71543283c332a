#pragma once

#include "platform/value/Value.h"

#include <optional>

namespace quorvane::platform {

/// The array and everything in it as a keyed archive: a binary property list
///
///   {"$archiver": "KeyedArchiver", "$version": 100000, "$top": {"root": UID}, "$objects": [...]}
///
/// where a UID is an index into "$objects" and the first object is "$null". Texts, numbers and data stand
/// there as they are, each text once. The others are dictionaries whose "$class" leads to a dictionary with
/// the name in "$classname" (and that name and "Object" in "$classes"):
///
///   Array        "objects": UIDs
///   Dictionary   "keys" and "objects": UIDs, in the same order
///   Date         "time": seconds since 2001, a real number
///
/// Nothing when a text in it is not UTF-8. Thread-safe.
std::optional<Data> keyedArchive(const Array& root);

}  // namespace quorvane::platform
