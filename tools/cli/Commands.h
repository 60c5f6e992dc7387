// The tool's subcommands, in three groups. Each group adds its subcommands to the parser; the
// one given on the command line leaves its action in `run`, called once parsing has succeeded.
#pragma once

#include <tools/cli/Output.h>
#include <tools/cli/Session.h>

#include <CLI/CLI.hpp>

#include <functional>

namespace tavix::cli {

using Run = std::function<Exit()>;

// token, locate, account, users, geo, register, unregister
void addServiceCommands(CLI::App& app, Session& session, Run& run);
// resources, download-url, store
void addStorageCommands(CLI::App& app, Session& session, Run& run);
// upload, download
void addTransferCommands(CLI::App& app, Session& session, Run& run);

// Makes `command` the action when `sub` is given.
inline void onParsed(CLI::App* sub, Run& run, Run command)
{
    sub->callback([&run, command = std::move(command)] { run = command; });
}

} // namespace tavix::cli
