"""read-archive.py ARCHIVE: follows the references of a keyed archive from its top and prints what it finds as JSON."""
import json, plistlib, sys

archive = plistlib.load(open(sys.argv[1], "rb"), fmt=plistlib.FMT_BINARY)
objects = archive["$objects"]
assert set(archive) == {"$archiver", "$version", "$top", "$objects"} and objects[0] == "$null"
assert archive["$version"] == 100000 and set(archive["$top"]) == {"root"}
texts = [o for o in objects[1:] if isinstance(o, str)]
assert len(texts) == len(set(texts))

def at(reference):
    assert type(reference) is plistlib.UID and reference.data > 0
    return objects[reference.data]

def value(reference):
    held = at(reference)
    if isinstance(held, bytes):
        return {"data": held.hex()}
    if not isinstance(held, dict):
        return held
    kind = at(held["$class"])
    assert kind["$classes"] == [kind["$classname"], "Object"]
    if kind["$classname"] == "Date":
        return {"date": held["time"] + 978307200}
    values = [value(r) for r in held["objects"]]
    if kind["$classname"] == "Array":
        return values
    assert kind["$classname"] == "Dictionary"
    keys = [value(r) for r in held["keys"]]
    assert len(keys) == len(values)
    return dict(zip(keys, values))

print(json.dumps(value(archive["$top"]["root"]), sort_keys=True))
