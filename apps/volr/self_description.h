// What the tool tells about its own options: shell completion and the manual page.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace volr {

// A script that completes verbs, options and their values in bash; zsh reads it too.
std::string CompletionScript(const CLI::App& app);

// The manual page in the man format.
std::string ManPage(const CLI::App& app, const std::string& version);

}  // namespace volr
