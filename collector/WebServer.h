#pragma once

#include "collector/BagFolder.h"
#include "collector/Certificate.h"
#include "collector/EventPosts.h"
#include "collector/StopSignal.h"
#include "collector/UploadReceiver.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace quorvane::collector {

struct WebSettings {
    std::string address = "127.0.0.1";
    int port = 0;                   ///< 0 picks a free one
    std::size_t connections = 128;  ///< open at once; further ones wait
    std::uint32_t maxAge = 3600;    ///< seconds a device keeps a bag before it asks again
    std::uint64_t maximumPostBytes = 16u << 20;
    std::uint64_t maximumUploadBytes = std::uint64_t{2} << 30;
    std::optional<int> answer;  ///< what every event post is answered with, instead of being taken
    std::chrono::milliseconds delay{0};
};

/// The HTTPS server: paths, methods and headers. What is served and taken is the parts' business.
///
///   GET, HEAD  /bags/NAME, and NAME below the two paths devices use: /bags/tamsel/, /storebags/tamsel/
///   POST       /events, /realtime
///   POST       /upload?uuid=…&sequence=…&description=…&filename=…&raw=…, /logdata
class WebServer {
  public:
    struct Parts {
        const BagFolder* bags = nullptr;  ///< may be null
        EventPosts& posts;
        UploadReceiver* uploads = nullptr;  ///< may be null
    };

    /// Listens at once, so that a client may connect; nobody is answered before serve(). The parts and the
    /// signal must outlive the server. Throws StartError.
    WebServer(const WebSettings& settings, const Certificate& certificate, const Parts& parts,
              const StopSignal& stop);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    /// "https://ADDRESS:PORT"
    std::string url() const;

    /// Serves until stop(), then waits until what was taken is answered. False when the listening socket
    /// broke.
    bool serve();

    /// Stops accepting; raise the signal first, so that connections end too. From another thread.
    void stop();

  private:
    class Listener;
    std::unique_ptr<Listener> _listener;
};

}  // namespace quorvane::collector
