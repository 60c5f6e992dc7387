#include <bench/upload/CurlChain.h>

#include <curl/curl.h>
#include <json/reader.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace tavix::bench {

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* answer)
{
    static_cast<std::string*>(answer)->append(data, size * count);
    return size * count;
}

struct Body {
    std::string const* text;
    std::size_t sent = 0;
};

std::size_t supply(char* buffer, std::size_t size, std::size_t count, void* source)
{
    auto* body = static_cast<Body*>(source);
    std::size_t const n = std::min(size * count, body->text->size() - body->sent);
    body->text->copy(buffer, n, body->sent);
    body->sent += n;
    return n;
}

struct HeaderList {
    curl_slist* list = nullptr;
    ~HeaderList() { curl_slist_free_all(list); }
    void add(std::string const& line) { list = curl_slist_append(list, line.c_str()); }
};

// One request on the kept handle; returns the answer's body.
std::string send(CURL* curl, std::string const& method, std::string const& url, HeaderList const& headers,
                 std::string const& body)
{
    std::string answer;
    Body source{&body};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    // Each of these options sets the method: the last one set decides.
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    if (method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    if (method == "PUT") {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READDATA, &source);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    CURLcode const result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK || status != 200) {
        throw std::runtime_error(method + " " + url + ": " + curl_easy_strerror(result) + ", status "
                                 + std::to_string(status));
    }
    return answer;
}

std::string uploadUrlOf(std::string const& storeAnswer)
{
    Json::Value root;
    std::istringstream in(storeAnswer);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors) || !root["url"].isString()) {
        throw std::runtime_error("the store answer names no upload URL");
    }
    return root["url"].asString();
}

} // namespace

double replayChain(std::vector<emulator::CapturedRequest> const& chain, std::string const& baseUrl,
                   std::string const& body, ChainTls const& tls, int rounds)
{
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
    curl_easy_setopt(curl.get(), CURLOPT_CAINFO, tls.caFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, tls.clientCertFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_SSLKEY, tls.clientCertFile.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &collect);
    curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, &supply);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);

    std::vector<HeaderList> headers(chain.size());
    for (std::size_t i = 0; i < chain.size(); ++i) {
        for (auto const& [name, value] : chain[i].headers) {
            if (name == "Authorization" || name == "Content-Type" || name == "Accept")
                headers[i].add(name + ": " + value);
        }
    }
    HeaderList putHeaders;
    putHeaders.add("Content-Type: binary/octet-stream");

    auto const start = std::chrono::steady_clock::now();
    for (int round = 0; round < rounds; ++round) {
        std::string storeAnswer;
        for (std::size_t i = 0; i < chain.size(); ++i) {
            storeAnswer = send(curl.get(), chain[i].method, baseUrl + chain[i].target, headers[i], chain[i].body);
        }
        send(curl.get(), "PUT", uploadUrlOf(storeAnswer), putHeaders, body);
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() / rounds;
}

} // namespace tavix::bench
