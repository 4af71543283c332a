#include "collector/RequestBody.h"

#include "collector/Gunzip.h"

namespace quorvane::collector {

namespace {

/// One body on its way: what has been found wrong with it stays.
class Body {
  public:
    Body(bool packed, std::uint64_t limit, const std::function<bool(std::string_view)>& take)
        : _packed(packed), _limit(limit), _take(take) {}

    void feed(std::string_view bytes) {
        if (_result != BodyResult::Whole) return;
        if (!_packed)
            pass(bytes);
        else if (!_gunzip.feed(bytes, [this](std::string_view unpacked) { return pass(unpacked); }) &&
                 _result == BodyResult::Whole)
            _result = BodyResult::Damaged;
    }

    BodyResult result() const {
        const bool incomplete = _packed && !_gunzip.complete();
        return _result == BodyResult::Whole && incomplete ? BodyResult::Damaged : _result;
    }

  private:
    bool pass(std::string_view bytes) {
        if (bytes.size() > _limit - _taken)
            _result = BodyResult::TooLarge;
        else if (!_take(bytes))
            _result = BodyResult::NotTaken;
        _taken += bytes.size();
        return _result == BodyResult::Whole;
    }

    const bool _packed;
    const std::uint64_t _limit;
    const std::function<bool(std::string_view)>& _take;
    std::uint64_t _taken = 0;
    Gunzip _gunzip;
    BodyResult _result = BodyResult::Whole;
};

}  // namespace

BodyResult readBody(const BodySource& source, bool packed, std::uint64_t limit,
                    const std::function<bool(std::string_view)>& take) {
    Body body(packed, limit, take);
    const bool whole = source([&](const char* bytes, std::size_t size) {
        body.feed({bytes, size});
        return true;
    });
    return whole || body.result() == BodyResult::TooLarge ? body.result() : BodyResult::Cut;
}

std::optional<Response> bodyRefusal(BodyResult result) {
    switch (result) {
        case BodyResult::TooLarge:
            return refusal(413, "the body is too large");
        case BodyResult::Damaged:
            return refusal(400, "the body is not one whole gzip stream");
        case BodyResult::Cut:
            return refusal(400, "the body did not come to its end");
        case BodyResult::NotTaken:
            return refusal(503, "nothing can be stored");
        case BodyResult::Whole:
            break;
    }
    return std::nullopt;
}

}  // namespace quorvane::collector
