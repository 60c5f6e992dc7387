// The tool's subcommands, in four groups. Each group adds its subcommands to the parser; the
// one given on the command line leaves its action in `run`, called once parsing has succeeded.
#pragma once

#include <tools/cli/Output.h>
#include <tools/cli/Session.h>

#include <CLI/CLI.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tavix::cli {

using Run = std::function<Exit()>;

// The type `upload` and `queue add` give a stored object unless told.
inline constexpr char const* kDefaultUploadType = "project";

// token, locate, account, users, geo, register, unregister
void addServiceCommands(CLI::App& app, Session& session, Run& run);
// resources, download-url, store
void addStorageCommands(CLI::App& app, Session& session, Run& run);
// upload, download
void addTransferCommands(CLI::App& app, Session& session, Run& run);
// queue add, list, run, retry, drop, stats
void addQueueCommands(CLI::App& app, Session& session, Run& run);

// --meta's key=value pairs; badUsage for one without a key or "=".
Exit parseMetadata(std::vector<std::string> const& pairs, std::map<std::string, std::string>& metadata);

// Makes `command` the action when `sub` is given.
inline void onParsed(CLI::App* sub, Run& run, Run command)
{
    sub->callback([&run, command = std::move(command)] { run = command; });
}

} // namespace tavix::cli
