// The bare sender of the upload benchmark: one PUT of a file with libcurl and the options the
// uploader sets for a plain-HTTP transfer, nothing more. It links libcurl alone, so that its
// peak memory is libcurl's.
//
//   upload_send_curl <url> <file> <report-file>
//
// The report holds "transfer <seconds>" (from opening the file to the answer, as the uploader's
// step 5 takes it), "status <HTTP status>", "curl <CURLcode>" and "shared_kb <n>".

// The uploader's options, deprecated names included.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <bench/upload/ResidentMemory.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <sys/stat.h>

namespace {

// Keeps the count, as the uploader's callback does.
int onProgress(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded)
{
    *static_cast<curl_off_t*>(data) = uploaded;
    return 0;
}

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <url> <file> <report-file>\n", argv[0]);
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);

    auto const start = std::chrono::steady_clock::now();
    std::FILE* file = std::fopen(argv[2], "rb");
    struct stat info {};
    if (!file || fstat(fileno(file), &info) != 0) {
        std::perror(argv[2]);
        return 1;
    }
    CURL* curl = curl_easy_init();
    curl_off_t const size = info.st_size;
    long const timeout = std::min(10 + 200 * (static_cast<long>(size / 1000000) + 1), 82800L);
    curl_off_t uploaded = 0;
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: binary/octet-stream");
    curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_PUT, 1L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &uploaded);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_READDATA, file);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, size);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discard);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeout);
    CURLcode const result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    std::fclose(file);
    std::chrono::duration<double> const transfer = std::chrono::steady_clock::now() - start;

    std::FILE* report = std::fopen(argv[3], "w");
    if (!report) {
        std::perror(argv[3]);
        return 1;
    }
    std::fprintf(report, "transfer %.6f\nstatus %ld\ncurl %d\nshared_kb %ld\n", transfer.count(), status,
                 static_cast<int>(result), tavix::bench::sharedResidentKb());
    std::fclose(report);
    if (result != CURLE_OK) std::fprintf(stderr, "upload_send_curl: %s\n", curl_easy_strerror(result));
    return result == CURLE_OK && status == 200 ? 0 : 1;
}
