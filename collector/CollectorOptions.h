#pragma once

#include "collector/EventEnvelope.h"
#include "collector/WebServer.h"

#include <optional>
#include <string>
#include <vector>

namespace quorvane::collector {

/// What the command line says.
struct Options {
    WebSettings web;
    std::vector<std::string> names;  ///< further names of the certificate that is made
    std::optional<std::string> certificateFile;
    std::optional<std::string> keyFile;
    std::optional<std::string> trustOutFile;
    std::optional<std::string> bagFolder;
    std::optional<std::string> eventFile;
    std::optional<std::string> uploadFolder;
    std::optional<int> udpPort;
    std::optional<std::string> readyFile;
    RemovedKeys removedKeys;
    bool quiet = false;
};

/// Reads the command line. Nothing when the program is to end at once with the status: help was asked for, or
/// something in the command line is wrong and has been told.
std::optional<Options> readOptions(int argc, char** argv, int& status);

}  // namespace quorvane::collector
