// The emulator's request handling on whatever bytes a client may send. The input is one or more
// HTTP requests, handled in order, so that a store can be followed by the upload it allows:
// "{url}" in a target stands for the path and query of the last pre-signed URL the emulator
// gave, which no input could forge. A request of any shape must get an answer of its own: an
// internal error reply (an exception the handler caught) is a finding, like a crash or a leak.
#include <fuzz/FuzzSupport.h>

#include <tools/emulator/CloudEmulator.h>

#include <boost/beast/http/parser.hpp>

#include <optional>
#include <string_view>

namespace http = boost::beast::http;
using tavix::emulator::CloudEmulator;
using tavix::emulator::Request;
using tavix::emulator::Response;

namespace {

// The next request at the front of `input`, taken off it; nullopt when what is left is not one.
std::optional<Request> nextRequest(std::string_view& input)
{
    http::request_parser<http::string_body> parser;
    parser.eager(true);
    parser.body_limit(1 << 16);
    while (!parser.is_done()) {
        boost::beast::error_code ec;
        std::size_t const used = parser.put(boost::asio::buffer(input.data(), input.size()), ec);
        input.remove_prefix(used);
        if (ec || used == 0) return std::nullopt;
    }
    return parser.release();
}

// The path and query of the "url" an answer gives, when it is one of the emulator's own.
std::optional<std::string> signedTarget(Response const& reply, std::string const& baseUrl)
{
    Json::Value document;
    if (reply.result() != http::status::ok || !tavix::fuzz::parseJson(reply.body(), document) || !document.isObject()
        || !document["url"].isString())
        return std::nullopt;
    std::string const url = document["url"].asString();
    if (url.compare(0, baseUrl.size(), baseUrl) != 0) return std::nullopt;
    return url.substr(baseUrl.size());
}

bool internalError(Response const& reply)
{
    return reply.result() == http::status::internal_server_error
        && reply.body().find("Internal emulator error") != std::string::npos;
}

// Objects, scripts and the registration an input left, so that the next one starts afresh.
void forgetInput(CloudEmulator& cloud)
{
    cloud.reset();
    std::string const objects = "/storage/v1/accounts/" + cloud.config().accountId + "/objects/";
    for (auto const& object : cloud.objects()) {
        Request remove{http::verb::delete_, objects + object.id, 11};
        remove.set(http::field::authorization, std::string("Bearer ") + tavix::emulator::kDefaultToken);
        FUZZ_CHECK(cloud.handle(remove).result() == http::status::ok);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    // One for the run: it listens and has a thread. Its temporary data directory goes at exit.
    static CloudEmulator cloud;
    std::string_view input(reinterpret_cast<char const*>(data), size);
    std::string lastSigned = "/blobs/none";
    bool scripted = false; // a scripted answer may be any status and text
    while (std::optional<Request> request = nextRequest(input)) {
        std::string target(request->target());
        if (auto at = target.find("{url}"); at != std::string::npos) {
            request->target(target.replace(at, 5, lastSigned));
        }
        Response const reply = cloud.handle(*request);
        FUZZ_CHECK(scripted || !internalError(reply));
        scripted = scripted || (target.find("next-reply") != std::string::npos && reply.result() == http::status::ok);
        if (auto next = signedTarget(reply, cloud.baseUrl())) lastSigned = *next;
    }
    forgetInput(cloud);
    return 0;
}
