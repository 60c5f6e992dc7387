#include <tools/cli/Commands.h>
#include <tools/cli/Queue.h>

#include <tavix/controller/Settings.h>

#include <boost/filesystem/path.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>

namespace tavix::cli {

using namespace tavix::restclient::storage;

namespace {

std::map<std::string, HoldMode> const kHoldModes = {
    {"copy", HoldMode::copy}, {"link", HoldMode::link}, {"reference", HoldMode::reference}};
std::map<std::string, EntryState> const kStates = {
    {"pending", EntryState::pending}, {"sending", EntryState::sending}, {"failed", EntryState::failed}};

template <typename Enum>
std::vector<std::string> namesOf(std::map<std::string, Enum> const& names)
{
    std::vector<std::string> all;
    for (auto const& name : names) all.push_back(name.first);
    return all;
}

template <typename Enum>
std::string nameOf(std::map<std::string, Enum> const& names, Enum value)
{
    auto const found = std::find_if(names.begin(), names.end(), [value](auto const& n) { return n.second == value; });
    return found == names.end() ? "?" : found->first;
}

struct AddArgs {
    std::string file, name, type = kDefaultUploadType;
    std::vector<std::string> meta;
    std::string hold = "copy";
};

struct RetryArgs {
    std::int64_t id = 0;
    bool failed = false;
    CLI::Option* idGiven = nullptr;
};

Exit add(Session& session, AddArgs const& args)
{
    std::map<std::string, std::string> metadata;
    if (Exit const e = parseMetadata(args.meta, metadata); e != ok) return e;
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    boost::filesystem::path const path(args.file);
    std::string const name = args.name.empty() ? path.filename().string() : args.name;
    boost::system::error_code ec;
    std::string detail;
    std::int64_t const id = queue->enqueue(path, name, args.type, metadata, kHoldModes.at(args.hold), ec, &detail);
    if (id == 0) return queueFailure("queue add " + args.file, ec, detail);
    Json::Value document;
    document["id"] = Json::Int64(id);
    session.out.print(document, [id](std::ostream& os) { os << id << "\n"; });
    return ok;
}

Json::Value toJson(QueueEntry const& e)
{
    Json::Value entry;
    entry["id"] = Json::Int64(e.id);
    entry["file"] = e.file;
    entry["name"] = e.name;
    entry["type"] = e.type;
    entry["metadata"] = Json::objectValue;
    for (auto const& [key, value] : e.metadata) entry["metadata"][key] = value;
    entry["hold"] = nameOf(kHoldModes, e.hold);
    entry["state"] = nameOf(kStates, e.state);
    entry["size"] = Json::Int64(e.size);
    entry["md5"] = e.md5;
    entry["enqueued"] = Json::Int64(e.enqueued);
    entry["nextAttempt"] = Json::Int64(e.nextAttempt);
    entry["attempts"] = e.attempts;
    entry["inDoubt"] = e.inDoubt;
    entry["errorCode"] = e.errorCode;
    entry["errorMessage"] = e.errorMessage;
    return entry;
}

// A pending entry's time in local time ("due" once it has come); the others wait for no clock.
std::string nextAttempt(QueueEntry const& e, std::time_t now)
{
    if (e.state == EntryState::sending) return "now";
    if (e.state == EntryState::failed) return "on retry";
    if (e.nextAttempt <= now) return "due";
    std::time_t const when = e.nextAttempt;
    std::tm local{};
    char text[32] = "";
    localtime_r(&when, &local);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

void printEntryTable(std::ostream& os, std::vector<QueueEntry> const& entries)
{
    std::string const row = "{:>6} {:<8} {:>10} {:>8} {:<19} {:<24} {}\n";
    os << fmt::format(row, "ID", "STATE", "BYTES", "ATTEMPTS", "NEXT ATTEMPT", "NAME", "LAST ERROR");
    std::time_t const now = std::time(nullptr);
    for (QueueEntry const& e : entries) {
        std::string const error = e.errorCode == 0 ? "" : fmt::format("error {}: {}", e.errorCode, e.errorMessage);
        os << fmt::format(row, e.id, nameOf(kStates, e.state), e.size, e.attempts, nextAttempt(e, now), e.name, error);
    }
}

// Every entry when `state` is empty.
Exit list(Session& session, std::string const& state)
{
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    std::vector<QueueEntry> const entries =
        queue->list(state.empty() ? std::nullopt : std::optional(kStates.at(state)));
    Json::Value document = Json::arrayValue;
    for (QueueEntry const& e : entries) document.append(toJson(e));
    session.out.print(document, [&entries](std::ostream& os) { printEntryTable(os, entries); });
    return ok;
}

Exit stats(Session& session)
{
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    QueueCounts const c = queue->counts();
    std::pair<char const*, std::uint64_t> const figures[] = {
        {"pending", c.pending}, {"sending", c.sending}, {"failed", c.failed},         {"delivered", c.delivered},
        {"expired", c.expired}, {"dropped", c.dropped}, {"spoolBytes", c.spoolBytes},
    };
    Json::Value document;
    for (auto const& [name, value] : figures) document[name] = Json::UInt64(value);
    session.out.print(document, [&figures](std::ostream& os) {
        for (auto const& [name, value] : figures) os << name << ": " << value << "\n";
    });
    return ok;
}

Exit retry(Session& session, RetryArgs const& args)
{
    if (!args.failed && args.idGiven->count() == 0)
        return fail(badUsage, "queue retry: give an entry's ID or --failed");
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    std::uint64_t retried = 1;
    if (args.failed) {
        retried = queue->retryFailed();
    } else if (auto const ec = queue->retry(args.id)) {
        return queueFailure("queue retry " + std::to_string(args.id), ec);
    }
    Json::Value document;
    document["retried"] = Json::UInt64(retried);
    session.out.print(document, [retried](std::ostream& os) { os << "entries due now: " << retried << "\n"; });
    return ok;
}

Exit drop(Session& session, std::int64_t id)
{
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    if (auto const ec = queue->drop(id)) return queueFailure("queue drop " + std::to_string(id), ec);
    Json::Value document;
    document["dropped"] = Json::Int64(id);
    session.out.print(document, [id](std::ostream& os) { os << "entry " << id << " dropped\n"; });
    return ok;
}

} // namespace

Exit openQueue(Session& session, std::unique_ptr<UploadQueue>& queue)
{
    UploadQueueOptions options = UploadQueueOptions::fromSettings();
    if (options.spool.empty()) {
        return fail(badUsage, "queue: no spool: give --spool or set queue_spool in " + controller::Settings::path());
    }
    options.appKey = session.options.appKey;
    boost::system::error_code ec;
    std::string detail;
    queue = UploadQueue::open(options, ec, &detail);
    return queue ? ok : queueFailure("queue: " + options.spool.string(), ec, detail);
}

Exit queueFailure(std::string const& what, boost::system::error_code const& ec, std::string const& detail)
{
    Exit status = localFailure;
    if (ec.category() == queue_category()) {
        switch (QueueError(ec.value())) {
        case QueueError::journalBusy:
        case QueueError::runnerActive: status = spoolBusy; break;
        case QueueError::crossDevice:
        case QueueError::unknownEntry:
        case QueueError::badOption: status = badUsage; break;
        default: break;
        }
    }
    std::string message = what + ": " + ec.message() + (detail.empty() ? "" : ": " + detail);
    std::replace(message.begin(), message.end(), '\n', ' ');
    return fail(status, message);
}

void addQueueCommands(CLI::App& app, Session& session, Run& run)
{
    CLI::App* group = app.add_subcommand("queue", "Store-and-forward uploads through a spool directory");
    group->require_subcommand(1);

    auto const added = std::make_shared<AddArgs>();
    CLI::App* sub = group->add_subcommand("add", "Hand a file to the queue; prints the entry's id");
    sub->add_option("FILE", added->file, "the file to upload")->required();
    sub->add_option("--name", added->name, "the stored object's name (default: the file's name)");
    sub->add_option("--type", added->type, "the stored object's type")->capture_default_str();
    sub->add_option("--meta", added->meta, "extra metadata, key=value (repeatable)")->allow_extra_args(false);
    sub->add_option("--hold", added->hold, "how the spool holds the file until it is sent")
        ->check(CLI::IsMember(namesOf(kHoldModes)))
        ->capture_default_str();
    onParsed(sub, run, [&session, added] { return add(session, *added); });

    auto const state = std::make_shared<std::string>();
    sub = group->add_subcommand("list", "List the entries in the journal (a table, or an array with --json)");
    sub->add_option("--state", *state, "only entries in this state")->check(CLI::IsMember(namesOf(kStates)));
    onParsed(sub, run, [&session, state] { return list(session, *state); });

    auto const runArgs = std::make_shared<RunArgs>();
    sub = group->add_subcommand("run", "Send the queued files: until nothing is due, or until SIGINT or SIGTERM");
    CLI::Option* once = sub->add_flag("--once", runArgs->once, "send what is due, then stop (the default)");
    sub->add_flag("--follow", runArgs->follow, "keep sending until SIGINT or SIGTERM")->excludes(once);
    sub->add_option("--rate", session.options.queueRate,
                    "bytes per second for all transfers together; K, M or G (powers of 1024) may follow");
    sub->add_option("--concurrency", session.options.queueConcurrency, "uploads at a time")->check(CLI::Range(1, 64));
    onParsed(sub, run, [&session, runArgs] { return runQueue(session, *runArgs); });

    auto const retried = std::make_shared<RetryArgs>();
    sub = group->add_subcommand("retry", "Make a failed or pending entry due now, its attempts reset");
    CLI::Option* allFailed = sub->add_flag("--failed", retried->failed, "every failed entry");
    retried->idGiven = sub->add_option("ID", retried->id, "the entry's id")->excludes(allFailed);
    onParsed(sub, run, [&session, retried] { return retry(session, *retried); });

    auto const dropped = std::make_shared<std::int64_t>();
    sub = group->add_subcommand("drop", "Remove an entry that is not being sent, with its held file");
    sub->add_option("ID", *dropped, "the entry's id")->required();
    onParsed(sub, run, [&session, dropped] { return drop(session, *dropped); });

    sub = group->add_subcommand("stats", "Count the entries by state, and those gone since the spool was made");
    onParsed(sub, run, [&session] { return stats(session); });

    // Before or after the command's name.
    std::vector<CLI::App*> commands = group->get_subcommands({});
    commands.push_back(group);
    for (CLI::App* command : commands) {
        command->add_option("--spool", session.options.queueSpool,
                            "the spool directory, made when missing (default: queue_spool of the settings)");
    }
}

} // namespace tavix::cli
