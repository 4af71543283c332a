#pragma once

#include "platform/http/HttpSession.h"

#include <curl/curl.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace quorvane::platform {

/// One HTTP request on its way, as a libcurl easy handle. Belongs to one thread.
class HttpTransfer {
  public:
    /// The text tells why the request cannot be sent as it stands.
    static std::variant<std::unique_ptr<HttpTransfer>, std::string> initWithRequest(HttpRequest request);
    ~HttpTransfer();
    HttpTransfer(const HttpTransfer&) = delete;
    HttpTransfer& operator=(const HttpTransfer&) = delete;

    /// For the multi handle that carries the transfer out.
    CURL* handle() const { return _easy; }
    /// The transfer of an easy handle made here.
    static HttpTransfer& ofHandle(CURL* handle);

    /// What came of it, once libcurl has finished with this code. To be called once.
    HttpResult takeResult(CURLcode code);

  private:
    explicit HttpTransfer(HttpRequest request);
    bool setOptions();
    bool setHeaders();
    bool setBody();
    bool addHeaderLine(const std::string& line);
    bool hasHeader(std::string_view name) const;
    std::string errorText(CURLcode code) const;
    // Called by libcurl, through which nothing may be thrown.
    static std::size_t receiveHeader(const char* bytes, std::size_t one, std::size_t count,
                                     void* transfer) noexcept;
    static std::size_t receiveBody(const char* bytes, std::size_t one, std::size_t count,
                                   void* transfer) noexcept;
    static CURLcode prepareContext(CURL* handle, void* context, void* transfer) noexcept;

    HttpRequest _request;
    CURL* _easy = nullptr;
    curl_slist* _headerLines = nullptr;
    std::array<char, CURL_ERROR_SIZE> _errorText{};
    HttpResponse _response;
    std::size_t _headerBytes = 0;
    std::string _refusal;  ///< Why the answer was cut off here.
};

}  // namespace quorvane::platform
