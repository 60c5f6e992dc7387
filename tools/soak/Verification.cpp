#include <tools/soak/Verification.h>

#include <tools/emulator/ObjectStore.h>

#include <fmt/format.h>

#include <map>

namespace tavix::soak {

Verification verify(std::vector<UploadOutcome> const& outcomes, std::uint64_t seed,
                    boost::filesystem::path const& dataDirectory)
{
    emulator::ObjectStore store(dataDirectory);
    std::map<std::string, std::vector<emulator::StoredObject>> byName;
    Verification result;
    for (emulator::StoredObject const& object : store.all()) {
        ++result.objects;
        result.objectsWithBody += object.uploaded ? 1 : 0;
        byName[object.name].push_back(object);
    }

    for (UploadOutcome const& outcome : outcomes) {
        std::string const name = uploadName(seed, outcome.index);
        std::vector<emulator::StoredObject> const stored = byName[name];
        byName.erase(name);
        if (stored.size() > 1) result.storedTwice.push_back(fmt::format("{}: {} objects", name, stored.size()));
        if (!outcome.succeeded()) {
            if (outcome.hung) {
                result.unexplained.push_back(fmt::format("{}: still running at step {}", name, outcome.step));
            } else if (outcome.step != 6 || outcome.errorCode == 0 || outcome.errorMessage.empty()) {
                result.unexplained.push_back(fmt::format("{}: step {}, code {}, message \"{}\"", name, outcome.step,
                                                         outcome.errorCode, outcome.errorMessage));
            }
            for (emulator::StoredObject const& object : stored)
                if (object.uploaded)
                    result.strayBodies.push_back(fmt::format("{}: failed with {} but object {} holds {} bytes", name,
                                                             outcome.errorCode, object.id, object.contentLength));
            continue;
        }
        std::size_t matching = 0;
        for (emulator::StoredObject const& object : stored)
            if (object.uploaded && object.contentLength == outcome.file.size
                && md5OfFile(store.bodyPath(object.id)) == outcome.file.md5)
                ++matching;
        if (matching == 1) {
            ++result.verified;
            result.bytesVerified += outcome.file.size;
        } else {
            result.lost.push_back(fmt::format("{}: reported success, {} of {} objects hold its {} bytes with MD5 {}",
                                              name, matching, stored.size(), outcome.file.size,
                                              outcome.file.md5.hex()));
        }
    }
    for (auto const& [name, objects] : byName)
        for (emulator::StoredObject const& object : objects)
            if (object.uploaded)
                result.strayBodies.push_back(fmt::format("{}: object {} of no upload", name, object.id));
    return result;
}

} // namespace tavix::soak
