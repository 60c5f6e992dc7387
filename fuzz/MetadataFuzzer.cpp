// Metadata read from any JSON: no crash, jsoncpp's exception the only refusal (a "key" that is
// an object or array), and what it read from UTF-8 text, written and read back, is written the
// same again. (JSON text is UTF-8; jsoncpp reads other bytes as they come and writes them as
// U+FFFD or as the code point they seem to start, so such input cannot round-trip.)
#include <fuzz/FuzzSupport.h>

#include <restclient/storage/Metadata.h>

#include <boost/locale/encoding_utf.hpp>

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

bool utf8(std::string const& text)
{
    try {
        boost::locale::conv::utf_to_utf<char32_t>(text, boost::locale::conv::stop);
        return true;
    } catch (boost::locale::conv::conversion_error const&) {
        return false;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const input = tavix::fuzz::text(data, size);
    Json::Value root;
    if (!tavix::fuzz::parseJson(input, root)) return 0;
    Metadata metadata;
    try {
        metadata.deserialize(root);
    } catch (Json::Exception const&) {
        return 0;
    }
    std::string const text = written(metadata);
    Json::Value document;
    FUZZ_CHECK(tavix::fuzz::parseJson(text, document));
    if (!utf8(input)) return 0;
    Metadata again;
    again.deserialize(document);
    FUZZ_CHECK(again.size() == metadata.size() && written(again) == text);
    return 0;
}
