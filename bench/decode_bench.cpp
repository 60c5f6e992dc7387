// Decoding cost of the storage documents beside jsoncpp's own parse of the same text, in one
// run: a 10,000-resource list answer (ResourcesResponse) and a 1,000-entry metadata document
// (Metadata). "decode" is what the engine does with a 200 answer: parse, then handleResponse.
#include <restclient/storage/Metadata.h>
#include <restclient/storage/ResourceResponse.h>

#include <fmt/format.h>

#include <json/reader.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using tavix::restclient::storage::Metadata;
using tavix::restclient::storage::ResourcesResponse;

// A list answer shaped like the storage service's, with a few metadata items per resource.
std::string resourceList(int count)
{
    std::string text =
        R"({"href": "https://storage.example.net//storage/v1/accounts/1001?_s=prefix==site", "resource": [)";
    for (int i = 0; i < count; ++i) {
        std::string const link = fmt::format("https://storage.example.net/storage/v1/accounts/1001/objects/{:08x}", i);
        text += fmt::format(
            R"({}{{"href": "{}", "contentLength": {}, "created": "2026-11-{:02}T10:{:02}:{:02}Z",
"metadata": {{"item": [{{"key": "build", "value": "4.{}.{}"}}, {{"key": "hostName", "value": "ctl-{:04}"}},
{{"key": "size", "value": {}}}, {{"key": "md5", "value": "{:032x}"}}, {{"key": "ratio", "value": {}.5}}]}},
"mimeType": "image/jpeg", "name": "site-{}/camera-{}/{:06}.jpg", "type": "photo", "url": {{"href": "{}/url"}},
"version": "{}", "versions": {{"href": "{}/versions"}}}})",
            i ? "," : "", link, 1000 + i * 37, 1 + i % 28, i % 60, i % 60, i % 10, i % 100, i % 500, 1000 + i * 37,
            i * 2654435761u, i % 9, i % 40, i % 8, i, link, 1 + i % 3, link);
    }
    return text + "]}";
}

std::string metadataDocument(int count)
{
    std::string text = R"({"metadata": {"item": [)";
    for (int i = 0; i < count; ++i) {
        std::string value = i % 3 == 0 ? fmt::format(R"("value number {}")", i)
            : i % 3 == 1               ? std::to_string(i * 1000003LL)
                                       : fmt::format("{}.25", i);
        text += fmt::format(R"({}{{"key": "key-{:04}", "value": {}}})", i ? "," : "", i, value);
    }
    return text + "]}}";
}

// As the engine parses a body.
bool parse(std::string const& body, Json::Value& root)
{
    std::istringstream in(body);
    Json::CharReaderBuilder builder;
    std::string ignored;
    return Json::parseFromStream(builder, in, &root, &ignored);
}

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Times the parse alone and the decode in alternate rounds, so that drift of a busy machine hits
// both alike, and prints their medians.
template <typename Decode>
void compare(char const* what, std::string const& text, int rounds, Decode decode)
{
    std::vector<double> parseOnly, decoded;
    for (int i = 0; i < rounds; ++i) {
        auto start = Clock::now();
        {
            Json::Value root;
            if (!parse(text, root)) throw std::runtime_error("the benchmark document does not parse");
        }
        parseOnly.push_back(milliseconds(Clock::now() - start));

        start = Clock::now();
        {
            Json::Value root;
            parse(text, root);
            decode(root);
        }
        decoded.push_back(milliseconds(Clock::now() - start));
    }
    std::sort(parseOnly.begin(), parseOnly.end());
    std::sort(decoded.begin(), decoded.end());
    double const p = parseOnly[rounds / 2], d = decoded[rounds / 2];
    fmt::print("{:<34} decode {:>8.2f} ms  jsoncpp parse {:>8.2f} ms  ratio {:.2f} (target <= 1.50)\n", what, d, p,
               d / p);
}

} // namespace

int main()
{
    std::string const list = resourceList(10000);
    std::string const metadata = metadataDocument(1000);
    fmt::print("documents: list {} KiB, metadata {} KiB\n", list.size() / 1024, metadata.size() / 1024);

    std::size_t seen = 0;
    compare("ResourcesResponse, 10000 resources", list, 15, [&](Json::Value const& root) {
        ResourcesResponse response;
        response.handleResponse(root);
        seen += response.resources.size();
    });
    compare("Metadata, 1000 entries", metadata, 301, [&](Json::Value const& root) {
        Metadata decoded;
        decoded.deserialize(root);
        seen += decoded.size();
    });
    fmt::print("decoded {} resources and metadata entries in all\n", seen);
    return 0;
}
