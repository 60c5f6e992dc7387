// The same HTTPS request as one_request_library with libcurl's easy interface.
//
//   one_request_curl <host> <port> <token> <ca-file> <client-cert-file>
#include <bench/one_request/PeakMemory.h>

#include <curl/curl.h>

#include <string>

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s <host> <port> <token> <ca-file> <client-cert-file>\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* curl = curl_easy_init();
    std::string const url = std::string("https://") + argv[1] + ":" + argv[2] + "/locator/rest/locations/ACCOUNT";
    std::string const authorization = std::string("Authorization: Bearer ") + argv[3];
    curl_slist* headers = curl_slist_append(nullptr, authorization.c_str());
    headers = curl_slist_append(headers, "Accept: application/json");
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CAINFO, argv[4]);
    curl_easy_setopt(curl, CURLOPT_SSLCERT, argv[5]);
    curl_easy_setopt(curl, CURLOPT_SSLKEY, argv[5]);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    curl_global_cleanup();
    return tavix::bench::report(status);
}
