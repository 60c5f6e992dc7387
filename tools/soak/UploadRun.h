// Many uploads at once, each through its own `storage::FileUploader`, as a device's processes
// would send them; what each one reported is kept for the check against the cloud's store.
#pragma once

#include <tools/soak/SoakFiles.h>

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace tavix::soak {

struct UploadPlan {
    boost::filesystem::path files; // where each file is written, and removed after its upload
    std::uint64_t seed = 0;
    std::uint64_t maxSize = 0;
    std::string appKey;
    std::string caFile;
    int threads = 1;
    // An upload still running after this is a hang: reported, and left running.
    std::chrono::minutes deadline{20};
};

// What one upload reported. Made before the uploads begin: the message of a failure is the
// only heap it takes while they run, so that the soak's own records do not hide or fake a leak.
struct UploadOutcome {
    int index = 0;
    SoakFile file;
    std::int32_t step = 0;
    std::int32_t errorCode = 0;
    std::string errorMessage;
    bool hung = false;

    bool succeeded() const { return !hung && step == 6 && errorCode == 0; }
};

// The name the upload of file `index` stores its object under.
std::string uploadName(std::uint64_t seed, int index);

// Uploads files first .. first + count - 1 into `outcomes` (already that large), `plan.threads`
// at a time, telling `progress` how far it got every 10 seconds. Throws when a file can't be
// written.
void runUploads(UploadPlan const& plan, int first, int count, std::vector<UploadOutcome>& outcomes,
                std::ostream& progress);

} // namespace tavix::soak
