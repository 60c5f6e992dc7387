// Metadata read from any JSON: no crash, jsoncpp's exception the only refusal (a "key" that is
// an object or array), and what it read, written and read back, is written the same again.
#include <fuzz/FuzzSupport.h>

#include <restclient/storage/Metadata.h>

using tavix::restclient::storage::Metadata;

namespace {

std::string written(Metadata const& metadata)
{
    tavix::JsonWriter writer;
    writer.startObject();
    metadata.serialize(writer);
    writer.endObject();
    FUZZ_CHECK(writer.ok());
    return writer.str(false);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Json::Value root;
    if (!tavix::fuzz::parseJson(tavix::fuzz::text(data, size), root)) return 0;
    Metadata metadata;
    try {
        metadata.deserialize(root);
    } catch (Json::Exception const&) {
        return 0;
    }
    std::string const text = written(metadata);
    Json::Value document;
    FUZZ_CHECK(tavix::fuzz::parseJson(text, document));
    Metadata again;
    again.deserialize(document);
    FUZZ_CHECK(again.size() == metadata.size() && written(again) == text);
    return 0;
}
