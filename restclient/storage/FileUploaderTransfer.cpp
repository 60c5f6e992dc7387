// The last two steps of an upload: the upload URL with the file's metadata, and the transfer.
// The transfer keeps the options the controller has always set, older names included.
#define CURL_DISABLE_DEPRECATION
#include <restclient/storage/FileUploader.h>

#include <restclient/detail/CurlProxy.h>
#include <restclient/detail/ServiceAddress.h>
#include <restclient/detail/WorkerLog.h>

#include <platform/controller/ServiceSettings.h>
#include <platform/crypto/FileHash.h>
#include <platform/system/System.h>
#include <platform/version/BuildVersion.h>

#include <boost/bind/bind.hpp>

#include <curl/curl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <type_traits>

#include <sys/stat.h>
#include <unistd.h>

namespace tavix::restclient::storage {

using namespace boost::placeholders;
using detail::describeFailure;
using detail::ServiceAddress;

static_assert(std::is_same_v<curl_off_t, std::int64_t>, "the progress callback's types are curl's");

namespace {

constexpr long kConnectTimeoutSeconds = 10;
constexpr long kMaxTimeoutSeconds = 82800;
constexpr int kAttempts = 3;
constexpr std::size_t kKeptAnswerBytes = 4096;

struct ProgressRecord {
    double lastReport = 0.0;
    CURL* curl = nullptr;
    FileUploader* uploader = nullptr;
};

// What libcurl reads the body from: the open file, never past the size the request announced.
struct BodySource {
    std::FILE* file;
    curl_off_t left;
};

// A file cut short while it is sent fails the attempt, rather than leave the server waiting for
// the announced rest until the time-out; one that has grown is sent as far as it was announced.
std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* source)
{
    auto* body = static_cast<BodySource*>(source);
    std::size_t const wanted = static_cast<std::size_t>(std::min<curl_off_t>(size * count, body->left));
    if (wanted == 0) return 0;
    std::size_t const read = std::fread(buffer, 1, wanted, body->file);
    if (read == 0) return CURL_READFUNC_ABORT;
    body->left -= static_cast<curl_off_t>(read);
    return read;
}

// libcurl would otherwise write the server's answer to stdout; keep its start for the log.
std::size_t keepAnswer(char* data, std::size_t size, std::size_t count, void* answer)
{
    auto* text = static_cast<std::string*>(answer);
    std::size_t const bytes = size * count;
    text->append(data, std::min(bytes, kKeptAnswerBytes - std::min(kKeptAnswerBytes, text->size())));
    return bytes;
}

std::string hostName()
{
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    return name;
}

void initCurlOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct CurlCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlCleanup>;

} // namespace

std::string ISO8601Time(long t)
{
    std::time_t const time = t;
    std::tm local{};
    localtime_r(&time, &local);
    char dateTime[60];
    char zone[40];
    std::strftime(dateTime, sizeof(dateTime), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone, sizeof(zone), "%z", &local);
    std::string offset(zone);
    if (offset.size() >= 2) offset.insert(offset.size() - 2, ":");
    return dateTime + offset;
}

bool FileUploader::GetUploadURL()
{
    ServiceAddress storage;
    if (!storage.parse(m_storageURL)) {
        WORKER_LOG_ERROR("[FileUploader] Unable to parse URL to Storage service.");
        setError(33, "Unable to parse URL to Storage service.");
        return false;
    }

    for (int attempt = 0; attempt < 2; ++attempt) {
        step = 4;
        StoreClient client(m_io, boost::bind(&FileUploader::handleGetStorageUploadURLResponse, this, _1, _2, _3, _4),
                           storage.host, storage.port, m_authToken, storage.accountPart, storage.tls, storage.path);

        StoreRequest request;
        request.metadata.add("buildnumber", version::get_build_version());
        request.metadata.add("_hostname", hostName());
        request.metadata.add("_mac", system::NetworkInterfaces::uniqueMacAddress());
        request.metadata.add("_commonname", controller::CommonName::GetCommonName());
        request.metadata.add("datecreated", ISO8601Time(std::time(nullptr)));
        request.metadata.add("_filename", m_path.filename().string());
        boost::system::error_code hashError;
        std::string const md5 =
            crypto::computeFileHash(m_path.string(), "md5", hashError, crypto::CryptoEncoding(2));
        request.metadata.add("_md5checksum", md5);
        if (hashError) {
            // Logged only: the upload goes on, deliberately.
            WORKER_LOG_ERROR("[FileUploader] Unable to compute MD5 of file: " << m_path.string() << ". Error code: "
                                                                             << hashError.value() << " Error message: "
                                                                             << hashError.message());
        }
        // Built-in keys come first; a caller's key equal to one of them is dropped by Metadata.
        for (auto const& [key, value] : m_metadata) request.metadata.add(key, value);
        request.contentType.value = "binary/octet-stream";
        request.name.value = m_name;
        request.type.value = m_type;

        m_operation.Start();
        boost::system::error_code const ec = client.store(request);
        if (ec) {
            WORKER_LOG_ERROR("[FileUploader] Unable to get upload URL. Error code: " << ec.value() << " Error message: "
                                                                                    << ec.message());
            m_operation.Done(AsyncOperation::Failed);
            setError(ec.value(), ec.message());
            return false;
        }
        switch (awaitStep(31, 32, "Failed to get upload URL.")) {
        case StepResult::done: return true;
        case StepResult::again: continue;
        case StepResult::failed: return false;
        }
    }
    return false;
}

void FileUploader::handleGetStorageUploadURLResponse(StoreResponse response, veltrun::TavixErrorResponse error,
                                                     unsigned int status, boost::system::error_code const& ec)
{
    if (!ec && status == 200) {
        WORKER_LOG_DEBUG("[FileUploader] Upload URL: " << response.url.value << " href: " << response.href.value
                                                      << " expires: " << response.expires.value);
        m_uploadURL = response.url.value;
        {
            boost::mutex::scoped_lock lock(m_mutex);
            mediaLocation = m_storageURL + "/media";
        }
        return m_operation.Done(AsyncOperation::Success);
    }
    if (retryAfterUnauthorized(error, "get URL to upload file")) return;
    WORKER_LOG_ERROR("[FileUploader] Unable to get upload URL. " << describeFailure(ec, error));
    m_operation.Done(AsyncOperation::Failed);
}

bool FileUploader::UploadFile()
{
    initCurlOnce();
    for (int retries = kAttempts;;) {
        setError(0, "");
        step = 5;

        errno = 0;
        File file(std::fopen(m_path.string().c_str(), "rb"));
        if (!file) {
            int const error = errno;
            WORKER_LOG_ERROR("[FileUploader] Error uploading file " << m_path.string() << ": fopen() failed: "
                                                                   << std::strerror(error) << " (" << error << ")");
            if (error == 0) return setError(41, "Unknown error trying to open file."), false;
            return setError(error, std::strerror(error)), false;
        }
        struct stat info {};
        if (fstat(fileno(file.get()), &info) != 0) {
            int const error = errno;
            WORKER_LOG_ERROR("[FileUploader] Error uploading file " << m_path.string() << ": fstat() failed: "
                                                                   << std::strerror(error) << " (" << error << ")");
            return setError(error == 0 ? 42 : error, std::strerror(error)), false;
        }
        Curl curl(curl_easy_init());
        if (!curl) {
            WORKER_LOG_ERROR("[FileUploader] Could not init curl.");
            return setError(43, "Could not init curl."), false;
        }
        // The road the REST steps took; a proxy that cannot be used is not worth a retry.
        boost::system::error_code proxyError;
        auto const proxy = detail::setCurlProxy(curl.get(), m_uploadURL, proxyError);
        if (proxyError) {
            std::string const message = "Upload failed. " + proxyError.message();
            WORKER_LOG_ERROR("[FileUploader] " << message);
            return setError(proxyError.value(), message), false;
        }
        if (proxy) WORKER_LOG_DEBUG("[FileUploader] Uploading through the proxy " << proxy->address());

        curl_off_t const size = info.st_size;
        bytesSent = 0;
        bytesTotal = size;
        ProgressRecord progress{0.0, curl.get(), this};
        curl_slist* headers = curl_slist_append(nullptr, "Content-Type: binary/octet-stream");
        std::string answer;
        curl_easy_setopt(curl.get(), CURLOPT_URL, m_uploadURL.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_PUT, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, &FileUploader::curl_progress_callback);
        curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &progress);
        curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
        BodySource source{file.get(), size};
        curl_easy_setopt(curl.get(), CURLOPT_READFUNCTION, &readBody);
        curl_easy_setopt(curl.get(), CURLOPT_READDATA, &source);
        curl_easy_setopt(curl.get(), CURLOPT_INFILESIZE_LARGE, size);
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &keepAnswer);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);

        long const megabytes = static_cast<long>(size / 1000000) + 1;
        long timeout = 10 + 200 * megabytes;
        WORKER_LOG_DEBUG("[FileUploader] Upload timeout is " << 10 << " + " << 200 << " * " << megabytes << " = "
                                                             << timeout << " seconds.");
        if (timeout > kMaxTimeoutSeconds) {
            WORKER_LOG_DEBUG("[FileUploader] Upload timeout is too long, setting it to 82800 seconds (23 hours)");
            timeout = kMaxTimeoutSeconds;
        }
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, timeout);

        std::string const clientCert = controller::SoapHelper::GetClientCertFile();
        std::string const caFile = GetCACertFile();
        if (m_uploadURL.rfind("https://", 0) == 0) {
            if (!clientCert.empty()) {
                curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, clientCert.c_str());
                curl_easy_setopt(curl.get(), CURLOPT_SSLKEY, clientCert.c_str());
            }
            curl_easy_setopt(curl.get(), CURLOPT_CAINFO, caFile.c_str());
            // Kept as the controller has always had it: the older-protocol setting asks for SSLv3.
            curl_easy_setopt(curl.get(), CURLOPT_SSLVERSION,
                             controller::SoapHelper::GetDisableTLS() ? CURL_SSLVERSION_SSLv3 : CURL_SSLVERSION_TLSv1_2);
        }

        CURLcode const result = curl_easy_perform(curl.get());
        curl_slist_free_all(headers);

        if (result != CURLE_OK) {
            std::string const message = std::string("Upload failed. curl_easy_perform() failed: ")
                + curl_easy_strerror(result);
            WORKER_LOG_INFO("[FileUploader] " << message);
            setError(result, message);
        } else {
            long code = 0;
            CURLcode const info = curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &code);
            if (info != CURLE_OK) {
                std::string const message = std::string("Upload failed. Error: ") + curl_easy_strerror(info);
                WORKER_LOG_ERROR("[FileUploader] " << message);
                setError(info, message);
            } else if (code == 200) {
                double speed = 0;
                double total = 0;
                curl_easy_getinfo(curl.get(), CURLINFO_SPEED_UPLOAD, &speed);
                curl_easy_getinfo(curl.get(), CURLINFO_TOTAL_TIME, &total);
                WORKER_LOG_INFO(fmt::format("[FileUploader] Upload of {} succeeded. Speed: {:.3f} bytes/sec over "
                                            "{:.3f} seconds.",
                                            m_path.string(), speed, total));
                bytesSent = size;
                return true;
            } else {
                std::string const message = "Upload failed. Response code: " + std::to_string(code);
                WORKER_LOG_ERROR("[FileUploader] " << message << (answer.empty() ? "" : " Answer: ") << answer);
                setError(static_cast<int>(code), message);
            }
        }

        --retries;
        WORKER_LOG_WARN("[FileUploader] Uploading file " << m_path.string() << " failed. Retries left: " << retries);
        if (retries < 1) {
            WORKER_LOG_ERROR("[FileUploader] Upload failed. No more retries");
            return false;
        }
        curl.reset();
        file.reset();
        WORKER_LOG_INFO("[FileUploader] Waiting 10 seconds to retry...");
        boost::this_thread::sleep_for(boost::chrono::seconds(10));
    }
}

int FileUploader::curl_progress_callback(void* data, std::int64_t, std::int64_t, std::int64_t uploadTotal,
                                         std::int64_t uploaded)
{
    auto* progress = static_cast<ProgressRecord*>(data);
    if (uploadTotal == 0) return 0;
    progress->uploader->bytesSent = uploaded;

    double elapsed = 0;
    double speed = 0;
    curl_easy_getinfo(progress->curl, CURLINFO_TOTAL_TIME, &elapsed);
    curl_easy_getinfo(progress->curl, CURLINFO_SPEED_UPLOAD, &speed);
    if (elapsed - progress->lastReport < 10.0) return 0;
    progress->lastReport = elapsed;
    WORKER_LOG_INFO(fmt::format("[FileUploader] Uploading file. {} of {} bytes. {:.2f} seconds elapsed. {:.2f} "
                                "bytes/sec.",
                                uploaded, uploadTotal, elapsed, speed));
    return 0;
}

} // namespace tavix::restclient::storage
