// The command-line tool's commands: each sends one or a few requests with the library's
// clients and prints what came back.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tavix::cli {

struct Options {
    std::string token;
    std::string name;                          // store: the stored object's name
    std::string type = "project";              // store: the stored object's type; resources: filter
    std::string project;                       // resources: project prefix filter
    std::map<std::string, std::string> meta;   // store: extra metadata
};

using Command = int (*)(Options const& options, std::vector<std::string> const& args);

struct CommandInfo {
    char const* name;
    char const* usage;
    std::size_t arguments;
    Command run;
};

std::vector<CommandInfo> const& commands();

} // namespace tavix::cli
