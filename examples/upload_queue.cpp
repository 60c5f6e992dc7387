// The upload queue: files handed to it reach the Storage service exactly once, through outages and
// restarts. Its spool directory and limits come from the settings' queue_* keys.
// Usage: upload_queue FILE...; the settings file is $TAVIX_CONTROLLER_CONFIG (with queue_spool).
#include <restclient/storage/UploadQueue.h>

#include <tavix/controller/Settings.h>

#include <chrono>
#include <iostream>
#include <string>

using namespace tavix::restclient::storage;

int main(int argc, char** argv)
{
    if (argc < 2) return std::cerr << "usage: upload_queue FILE...\n", 2;
    UploadQueueOptions options = UploadQueueOptions::fromSettings();
    options.appKey = "example-app";
    options.caFile = tavix::controller::Settings::current().caFile; // the transfer's CA bundle
    boost::system::error_code ec;
    std::string why;
    std::unique_ptr<UploadQueue> queue = UploadQueue::open(options, ec, &why);
    if (!queue) return std::cerr << "queue: " << ec.message() << ": " << why << "\n", 1;

    // Durable once enqueue returns an id: a copy is in the spool, the program may delete its file.
    for (int i = 1; i < argc; ++i) {
        boost::filesystem::path const file = argv[i];
        std::int64_t const id = queue->enqueue(file, "queued-" + file.filename().string(), "log",
                                               {{"origin", "example"}}, HoldMode::copy, ec, &why);
        if (id == 0) return std::cerr << "enqueue " << file << ": " << ec.message() << ": " << why << "\n", 1;
        std::cout << "enqueued " << file << " as entry " << id << "\n";
    }

    // The runner sends on threads of its own and tells each entry's end on its thread.
    ec = queue->start([](QueueEntry const& entry, EntryOutcome outcome) {
        if (outcome == EntryOutcome::delivered) std::cout << "delivered " << entry.name << "\n";
        else std::cout << "entry " << entry.id << " ended: " << entry.errorCode << " " << entry.errorMessage << "\n";
    });
    if (ec) return std::cerr << "start: " << ec.message() << "\n", 1; // another runner holds the spool
    bool const idle = queue->waitIdle(std::chrono::seconds(60));
    QueueCounts const counts = queue->counts();
    std::cout << "pending " << counts.pending << ", sending " << counts.sending << ", failed " << counts.failed
              << ", delivered " << counts.delivered << " (since the spool was made)\n";
    queue->stop(); // what is not delivered stays in the spool for the next start
    return idle && counts.pending == 0 && counts.failed == 0 ? 0 : 1;
}
