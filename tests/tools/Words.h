#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace quorvane::test {

/// A program's command line, without its path, from the words between single blanks.
inline std::vector<std::string> commandLine(const std::string& program, const std::string& words) {
    std::vector<std::string> args{program};
    std::istringstream text(words);
    for (std::string word; std::getline(text, word, ' ');) args.push_back(std::move(word));
    return args;
}

}  // namespace quorvane::test
