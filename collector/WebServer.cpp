#include "collector/WebServer.h"

#include "collector/RequestBody.h"
#include "collector/RequestHead.h"
#include "collector/StartError.h"
#include "collector/TlsConnection.h"
#include "collector/TlsContext.h"
#include "platform/base/Log.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include <fmt/format.h>

namespace quorvane::collector {

namespace {

using httplib::Request;
using std::chrono::seconds;

constexpr seconds kHandshakeTime{10};
constexpr seconds kHeadTime{10};
constexpr seconds kIdleTime{60};
constexpr seconds kCrowdedIdleTime{2};
constexpr seconds kBodyTime{30};
constexpr std::uint64_t kSlowestBytesPerSecond = 16u << 10;
constexpr std::uint64_t kMaximumHeadBytes = 64u << 10;

void send(const Response& answer, httplib::Response& response) {
    response.status = answer.status;
    response.set_content(answer.body, answer.contentType);
}

std::string peerOf(const Request& request) {
    return fmt::format("{}:{}", request.remote_addr, request.remote_port);
}

void refuse(const Response& refused, const Request& request, httplib::Response& response) {
    platform::logWarning("{} {} from {} refused: {}", request.method, request.path, peerOf(request),
                         refused.body);
    send(refused, response);
}

PostFacts factsOf(const Request& request) {
    return {.path = request.path,
            .peer = peerOf(request),
            .clientName = header(request, "X-QVN-Client-Name"),
            .serviceName = header(request, "X-QVN-Service-Name"),
            .sender = header(request, "X-QVN-Sender"),
            .eventMap = header(request, "X-QVN-Event-Map"),
            .internalBuild = header(request, "X-QVN-Internal-Build") == "1"};
}

UploadFacts uploadFactsOf(const Request& request) {
    return {.peer = peerOf(request),
            .uuid = request.get_param_value("uuid"),
            .sequence = request.get_param_value("sequence"),
            .description = request.get_param_value("description"),
            .fileName = request.get_param_value("filename"),
            .raw = request.get_param_value("raw") == "true"};
}

/// The connection that this thread serves: the library passes nothing of it on to its handlers.
thread_local TlsConnection* servedConnection = nullptr;

/// One port, one collector: the library's own choice would let a second one share it.
void reuseAddress(socket_t socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

}  // namespace

class WebServer::Listener final : public httplib::Server {
  public:
    Listener(const WebSettings& settings, const Certificate& certificate, const Parts& parts,
             const StopSignal& stop)
        : _settings(settings),
          _limits{.postBytes = settings.maximumPostBytes,
                  .uploadBytes = parts.uploads != nullptr ? settings.maximumUploadBytes : 0},
          _parts(parts),
          _stop(stop),
          _context(makeTlsContext(certificate)) {
        bind();
        route();
    }

    std::string url() const {
        const bool bare = _settings.address.find(':') == std::string::npos;
        return fmt::format(fmt::runtime(bare ? "https://{}:{}" : "https://[{}]:{}"), _settings.address,
                           _port);
    }

    bool serve() {
        const bool orderly = listen_after_bind();
        _ended = true;
        return orderly;
    }

    void stopServing() {
        // The library forgets a stop that comes before it has begun to listen.
        while (!is_running() && !_ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        stop();
    }

  private:
    void bind() {
        set_socket_options(reuseAddress);
        const auto& [address, port] = std::tie(_settings.address, _settings.port);
        _port = port == 0 ? bind_to_any_port(address) : (bind_to_port(address, port) ? port : -1);
        if (_port <= 0) throw StartError(fmt::format("cannot listen on {} port {}", address, port));
        // The library's own backlog is 5.
        ::listen(svr_sock_, SOMAXCONN);
    }

    void route() {
        new_task_queue = [count = _settings.connections] { return new httplib::ThreadPool(count); };
        set_pre_routing_handler([this](const Request& request, httplib::Response& response) {
            return answerByHead(request, response) ? HandlerResponse::Handled : HandlerResponse::Unhandled;
        });
        set_expect_100_continue_handler([this](const Request& request, httplib::Response& response) {
            const auto refused = refusalByHead(request, _limits);
            if (refused) send(*refused, response);
            return refused ? refused->status : 100;
        });
        set_exception_handler(
            [](const Request& request, httplib::Response& response, const std::exception_ptr&) {
                platform::logError("A request from {} failed", peerOf(request));
                servedConnection->endReading();
                send(refusal(503, "the request failed"), response);
            });
        for (const char* path : kEventPaths) Post(path, handler(&Listener::takeEvents));
        Post(kUploadPath, handler(&Listener::takeFile));
        Post(kLogDataPath, handler(&Listener::takeLogData));
    }

    HandlerWithContentReader handler(void (Listener::*take)(const Request&, httplib::Response&,
                                                            const httplib::ContentReader&) const) const {
        return
            [this, take](const Request& request, httplib::Response& response,
                         const httplib::ContentReader& reader) { (this->*take)(request, response, reader); };
    }

    // One connection, on a thread of the library's pool.

    bool process_and_close_socket(socket_t socket) override {
        TlsConnection connection(socket, *_context, _stop);
        ++_open;
        try {
            if (connection.handshake(kHandshakeTime)) serveRequests(connection);
        } catch (const std::exception& error) {
            platform::logWarning("A connection failed: {}", error.what());
        }
        connection.close();
        --_open;
        return true;
    }

    /// Connections that say nothing must not keep others waiting for long.
    seconds idleTime() const { return _open <= _settings.connections / 2 ? kIdleTime : kCrowdedIdleTime; }

    void serveRequests(TlsConnection& connection) {
        servedConnection = &connection;
        bool close = false;
        while (!close && connection.waitForRequest(idleTime())) {
            connection.allow(kMaximumHeadBytes, kHeadTime);
            bool admitted = false;
            if (!process_request(connection, false, close,
                                 [&](Request& request) { admitted = admit(request, connection); }))
                return;
            close |= !admitted;
        }
    }

    /// Looks at a request whose head has come; false when the connection cannot be used for a further one.
    bool admit(Request& request, TlsConnection& connection) const {
        normaliseHead(request);
        if (refusalByHead(request, _limits)) return false;
        if (request.method != "POST") return true;
        // A chunk's frame is a few bytes, even where chunks are small.
        const std::uint64_t bytes =
            contentLength(request).value_or(2 * _limits.bodyBytes(resourceAt(request.path)));
        connection.allow(bytes, kBodyTime + seconds(bytes / kSlowestBytesPerSecond));
        return true;
    }

    bool answerByHead(const Request& request, httplib::Response& response) const {
        if (const auto refused = refusalByHead(request, _limits)) {
            response.set_header("Connection", "close");
            if (refused->status == 405)
                response.set_header("Allow",
                                    resourceAt(request.path) == Resource::Bag ? "GET, HEAD" : "POST");
            refuse(*refused, request, response);
            return true;
        }
        if (request.method == "POST") return false;
        serveBag(request, response);
        return true;
    }

    void serveBag(const Request& request, httplib::Response& response) const {
        const std::string_view name = bagName(request.path);
        auto bag = _parts.bags != nullptr ? _parts.bags->bag(name) : std::nullopt;
        if (!bag) {
            platform::logWarning("No bag {} for {}", name, peerOf(request));
            return send(refusal(404, "there is no such bag"), response);
        }
        const std::string modified = httpDate(bag->modified);
        response.set_header("Last-Modified", modified);
        response.set_header("Cache-Control", fmt::format("max-age={}", _settings.maxAge));
        // Not "unless newer": a bag that was set back to an older one has to reach the devices too.
        if (request.get_header_value("If-Modified-Since") == modified) {
            response.status = 304;
        } else {
            response.status = 200;
            response.body = std::move(bag->bytes);
            response.set_header("Content-Type", "application/x-plist");
        }
        platform::logInfo("Bag {} for {}: {}", name, peerOf(request), response.status);
    }

    void takeEvents(const Request& request, httplib::Response& response,
                    const httplib::ContentReader& reader) const {
        std::string message;
        const BodyResult result = bodyOf(request, reader, _limits.postBytes)([&](std::string_view bytes) {
            message += bytes;
            return true;
        });
        _stop.pause(_settings.delay);
        if (_settings.answer)
            send({.status = *_settings.answer, .body = "{}"}, response);
        else if (const auto refused = bodyRefusal(result))
            refuse(*refused, request, response);
        else
            send(_parts.posts.take(factsOf(request), message), response);
    }

    void takeFile(const Request& request, httplib::Response& response,
                  const httplib::ContentReader& reader) const {
        const auto body = bodyOf(request, reader, _limits.uploadBytes);
        send(_parts.uploads->takeFile(uploadFactsOf(request), body), response);
    }

    void takeLogData(const Request& request, httplib::Response& response,
                     const httplib::ContentReader& reader) const {
        const auto body = bodyOf(request, reader, _limits.uploadBytes);
        send(_parts.uploads->takeLogData(peerOf(request), body), response);
    }

    /// The body as it comes, unpacked; request and reader must outlive it.
    static UploadReceiver::Body bodyOf(const Request& request, const httplib::ContentReader& reader,
                                       std::uint64_t limit) {
        return [&request, &reader, limit](const UploadReceiver::Take& take) {
            const auto source = [&](const auto& receive) {
                const bool whole = reader(receive);
                // Where the next request starts is not known then.
                if (!whole) servedConnection->endReading();
                return whole;
            };
            return readBody(source, isPacked(request), limit, take);
        };
    }

    const WebSettings _settings;
    const RequestLimits _limits;
    const Parts _parts;
    const StopSignal& _stop;
    const TlsContext _context;
    int _port = -1;
    std::atomic<std::size_t> _open{0};
    std::atomic<bool> _ended{false};
};

WebServer::WebServer(const WebSettings& settings, const Certificate& certificate, const Parts& parts,
                     const StopSignal& stop)
    : _listener(std::make_unique<Listener>(settings, certificate, parts, stop)) {}

WebServer::~WebServer() = default;

std::string WebServer::url() const {
    return _listener->url();
}

bool WebServer::serve() {
    return _listener->serve();
}

void WebServer::stop() {
    _listener->stopServing();
}

}  // namespace quorvane::collector
