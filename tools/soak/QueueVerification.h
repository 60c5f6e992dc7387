// "Exactly once": the files handed to the upload queue, held against what the emulator stored.
#pragma once

#include <tools/soak/SoakFiles.h>

#include <restclient/storage/UploadQueue.h>

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace tavix::soak {

// One file the producer hands to the queue. Made before the run, like the upload soak's records.
struct QueuedFile {
    int index = 0;
    SoakFile file;
    restclient::storage::HoldMode hold = restclient::storage::HoldMode::copy;
    std::int64_t id = 0; // the queue's entry; 0: not enqueued
    std::string error;   // why it was not
};

struct QueueVerification {
    std::size_t storedOnce = 0; // files with exactly one body, of their size and MD5
    std::uint64_t bytesVerified = 0;
    std::size_t duplicates = 0;  // files with more than one body
    std::size_t withoutBody = 0; // objects whose transfer never ended: a store request, then a kill or a fault
    // Each a line saying what did not hold, for which file or object.
    std::vector<std::string> notEnqueued;
    std::vector<std::string> notStored;   // no body, or one without the file's size and MD5
    std::vector<std::string> storedTwice; // more than one body
    std::vector<std::string> strayBodies; // a body under a name the soak never enqueued
};

// Reads the store the emulator left in `dataDirectory` (the emulator has stopped); the soak's
// uploads are named uploadName(seed, index).
QueueVerification verifyQueue(std::vector<QueuedFile> const& files, std::uint64_t seed,
                              boost::filesystem::path const& dataDirectory);

} // namespace tavix::soak
