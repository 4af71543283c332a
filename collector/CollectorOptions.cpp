#include "collector/CollectorOptions.h"

#include "tools/common/OptionRange.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <limits>

#include <fmt/format.h>

namespace quorvane::collector {

namespace {

using tools::between;

constexpr const char* kDescription =
    "Receives what quorvaned reports: serves signed storebags and takes event posts over HTTPS. Every event "
    "becomes one line of JSON, and so does every datagram and upload. Ends on SIGTERM or SIGINT; SIGHUP opens the event file anew.";

std::string recordKeyFault(const std::string& key) {
    return isRecordKey(key) ? std::string() : fmt::format("\"{}\" is not a key that every record has", key);
}

void addServerOptions(CLI::App& app, Options& options) {
    WebSettings& web = options.web;
    app.add_option("--address", web.address, "Address to listen on")->capture_default_str();
    between(app.add_option("--port", web.port, "Port to listen on; 0 picks a free one"), 0, 65535)
        ->capture_default_str();
    between(
        app.add_option("--udp-port", options.udpPort,
                       "Port to take dashboard datagrams on; 0 picks a free one; without it none are taken"),
        0, 65535);
    between(app.add_option("--connections", web.connections, "Connections served at once; further ones wait"),
            1, 10000)
        ->capture_default_str();
}

void addCertificateOptions(CLI::App& app, Options& options) {
    auto* certificate = app.add_option(
        "--certificate", options.certificateFile,
        "Certificate and its chain (PEM); without it a self-signed one is made at every start");
    auto* key = app.add_option("--key", options.keyFile, "The certificate's private key (PEM)");
    certificate->needs(key);
    key->needs(certificate);
    app.add_option("--name", options.names,
                   "Host name or address for the self-signed certificate, beside localhost and the address "
                   "listened on; may be repeated")
        ->excludes(certificate);
    app.add_option("--trust-out", options.trustOutFile,
                   "Write the certificate there; in a daemon's trust folder it makes that daemon trust the "
                   "collector");
}

void addContentOptions(CLI::App& app, Options& options) {
    app.add_option("--bags", options.bagFolder, "Folder of signed storebags, served as /bags/NAME");
    app.add_option("--max-age", options.web.maxAge, "Seconds a device keeps a storebag")
        ->capture_default_str();
    app.add_option("--events", options.eventFile,
                   "File to append to, one line of JSON an event; standard output without it");
    app.add_option(
           "--removed-key", options.removedKeys,
           "Key of every record that the storebags filter out, and that may be missing; may be repeated")
        ->check(CLI::Validator(recordKeyFault, ""))
        ->type_name("KEY");
    between(app.add_option("--max-post", options.web.maximumPostBytes,
                           "Largest event post in bytes, as sent and unpacked"),
            std::uint64_t{1}, std::uint64_t{1} << 30)
        ->capture_default_str();
    app.add_option("--uploads", options.uploadFolder,
                   "Folder to store uploaded files and log-data archives in; without it none are taken");
    between(app.add_option("--max-upload", options.web.maximumUploadBytes,
                           "Largest upload in bytes, as sent and unpacked"),
            std::uint64_t{1}, std::uint64_t{1} << 40)
        ->capture_default_str();
}

void addTestingOptions(CLI::App& app, WebSettings& web, std::uint32_t& delay) {
    between(app.add_option(
                "--answer", web.answer,
                "Response every event post with this status and keep nothing of it; see how devices cope "
                "(5xx makes them stop)"),
            200, 599)
        ->group("Trying a deployment");
    between(app.add_option("--delay", delay, "Milliseconds before a post is answered"), 0, 600000)
        ->group("Trying a deployment");
}

}  // namespace

std::optional<Options> readOptions(int argc, char** argv, int& status) {
    Options options;
    std::uint32_t delay = 0;
    CLI::App app(kDescription, "quorvane-collector");
    app.set_version_flag("--version", QUORVANE_VERSION);
    addServerOptions(app, options);
    addCertificateOptions(app, options);
    addContentOptions(app, options);
    addTestingOptions(app, options.web, delay);
    app.add_option("--ready-file", options.readyFile,
                   "Write there where the collector listens, as soon as it does; it is printed too");
    app.add_flag("-q,--quiet", options.quiet, "Log nothing but warnings and errors");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error);
        return std::nullopt;
    }
    options.web.delay = std::chrono::milliseconds(delay);
    return options;
}

}  // namespace quorvane::collector
