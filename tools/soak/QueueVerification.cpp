#include <tools/soak/QueueVerification.h>

#include <tools/emulator/ObjectStore.h>
#include <tools/soak/UploadRun.h>

#include <fmt/format.h>

#include <map>

namespace tavix::soak {

QueueVerification verifyQueue(std::vector<QueuedFile> const& files, std::uint64_t seed,
                              boost::filesystem::path const& dataDirectory)
{
    emulator::ObjectStore store(dataDirectory);
    std::map<std::string, std::vector<emulator::StoredObject>> bodies;
    QueueVerification result;
    for (emulator::StoredObject const& object : store.all()) {
        if (object.uploaded) bodies[object.name].push_back(object);
        else ++result.withoutBody;
    }

    for (QueuedFile const& queued : files) {
        std::string const name = uploadName(seed, queued.index);
        if (queued.id == 0) result.notEnqueued.push_back(fmt::format("{}: {}", name, queued.error));
        std::vector<emulator::StoredObject> const stored = bodies[name];
        bodies.erase(name);
        if (stored.size() > 1) {
            ++result.duplicates;
            result.storedTwice.push_back(fmt::format("{}: {} bodies", name, stored.size()));
        }
        std::size_t matching = 0;
        for (emulator::StoredObject const& object : stored)
            if (object.contentLength == queued.file.size && md5OfFile(store.bodyPath(object.id)) == queued.file.md5)
                ++matching;
        if (stored.size() == 1 && matching == 1) {
            ++result.storedOnce;
            result.bytesVerified += queued.file.size;
        } else if (queued.id != 0 && (stored.empty() || matching < stored.size())) {
            result.notStored.push_back(fmt::format("{}: {} of {} bodies hold its {} bytes with MD5 {}", name, matching,
                                                   stored.size(), queued.file.size, queued.file.md5.hex()));
        }
    }
    for (auto const& [name, objects] : bodies)
        for (emulator::StoredObject const& object : objects)
            result.strayBodies.push_back(fmt::format("{}: object {} of no queued file", name, object.id));
    return result;
}

} // namespace tavix::soak
