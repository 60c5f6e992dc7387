// What the `queue` commands share: the spool the flags and settings name, opened, and the
// queue's errors sorted into the tool's exit statuses.
#pragma once

#include <tools/cli/Session.h>

#include <restclient/storage/UploadQueue.h>

#include <memory>
#include <string>

namespace tavix::cli {

// The queue in --spool, else in the settings' queue_spool (badUsage when neither names one), with
// the settings' queue_* values and CA bundle and the tool's app key.
Exit openQueue(Session& session, std::unique_ptr<restclient::storage::UploadQueue>& queue);

// Says "<what>: <message>: <detail>" on one line of stderr; the exit status for `ec`.
Exit queueFailure(std::string const& what, boost::system::error_code const& ec, std::string const& detail = {});

struct RunArgs {
    bool once = false;
    bool follow = false;
};

// queue run: sends until nothing is due (--once, the default) or until SIGINT or SIGTERM (--follow).
Exit runQueue(Session& session, RunArgs const& args);

} // namespace tavix::cli
