#pragma once

#include "platform/base/Result.h"
#include "platform/http/HttpSession.h"

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace quorvane::platform {

/// One HTTP request on its way, as a libcurl easy handle. Belongs to one thread.
class HttpTransfer {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Kind { Post, Awaited };
    enum class Phase {
        Sending,
        Sent,      ///< libcurl has taken all of the body.
        Answered,  ///< The answer's head is there, of a request that wants no more.
    };

    /// Fails when the request cannot be sent as it stands. The observer is called by libcurl's functions
    /// whenever the phase has changed.
    static Result<std::unique_ptr<HttpTransfer>> initWithRequest(
        HttpRequest request, Kind kind, const HttpLimits& limits,
        std::function<void(HttpTransfer&)> phaseChanged);
    ~HttpTransfer();
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    /// For the multi handle that carries the transfer out.
    CURL* handle() const { return _easy; }
    Phase phase() const { return _phase; }
    /// When to give it up. Later each time something moves, earlier once it is answered.
    Clock::time_point deadline() const;

    /// What came of it, once libcurl has finished with this code, or so far. To be called once.
    HttpResult takeResult(CURLcode code);
    /// What came of it when it is given up at its deadline.
    HttpResult takeOverdueResult();

  private:
    HttpTransfer(HttpRequest request, Kind kind, const HttpLimits& limits,
                 std::function<void(HttpTransfer&)> phaseChanged);
    bool setOptions();
    bool setBody();
    bool setHeaders();
    bool addHeaderLine(const std::string& line);
    bool hasHeader(std::string_view name) const;
    std::chrono::milliseconds connectTime() const;
    void enter(Phase phase);
    void headEnds();
    std::string errorText(CURLcode code) const;
    // Called by libcurl, through which nothing may be thrown.
    static std::size_t giveBody(char* buffer, std::size_t one, std::size_t count, void* transfer) noexcept;
    static int refuseRewind(void* transfer, curl_off_t offset, int origin) noexcept;
    static std::size_t receiveHeader(const char* bytes, std::size_t one, std::size_t count,
                                     void* transfer) noexcept;
    static std::size_t receiveBody(const char* bytes, std::size_t one, std::size_t count,
                                   void* transfer) noexcept;
    static int noteProgress(void* transfer, curl_off_t toReceive, curl_off_t received, curl_off_t toSend,
                            curl_off_t sent) noexcept;
    static CURLcode prepareContext(CURL* handle, void* context, void* transfer) noexcept;

    HttpRequest _request;
    const Kind _kind;
    const HttpLimits _limits;
    const std::function<void(HttpTransfer&)> _phaseChanged;
    CURL* _easy = nullptr;
    curl_slist* _headerLines = nullptr;
    std::array<char, CURL_ERROR_SIZE> _errorText{};
    const Clock::time_point _start = Clock::now();
    Phase _phase = Phase::Sending;
    Clock::time_point _phaseStart = _start;
    Clock::time_point _lastMove = _start;
    curl_off_t _moved = 0;   ///< Bytes either way at that time.
    std::size_t _given = 0;  ///< Of the body, to libcurl.
    HttpResponse _response;
    std::size_t _headerBytes = 0;
    std::size_t _bodyBytes = 0;
    std::string _refusal;  ///< Why the answer was cut off here.
};

}  // namespace quorvane::platform
