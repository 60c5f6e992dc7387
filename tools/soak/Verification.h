// "Nothing lost": what the uploads reported, held against what the emulator stored.
#pragma once

#include <tools/soak/UploadRun.h>

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace tavix::soak {

struct Verification {
    std::size_t objects = 0; // records in the emulator's store
    std::size_t objectsWithBody = 0;
    std::size_t verified = 0; // successes whose stored bytes have the file's size and MD5
    std::uint64_t bytesVerified = 0;
    // Each a line saying what did not hold, for which upload or object.
    std::vector<std::string> lost;        // a success not stored with the right bytes
    std::vector<std::string> unexplained; // a failure without code or message, or not finished
    std::vector<std::string> storedTwice; // more than one object for one upload
    std::vector<std::string> strayBodies; // a body stored for a failed upload or for no upload
};

// Reads the store the emulator left in `dataDirectory` (the emulator has stopped).
Verification verify(std::vector<UploadOutcome> const& outcomes, std::uint64_t seed,
                    boost::filesystem::path const& dataDirectory);

} // namespace tavix::soak
