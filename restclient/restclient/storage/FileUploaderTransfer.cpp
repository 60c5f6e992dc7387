// The last two steps of an upload: the upload URL with the file's metadata, and the transfer.
// The transfer keeps the options the controller has always set, older names included.
#define CURL_DISABLE_DEPRECATION
#include <restclient/storage/FileUploader.h>

#include <restclient/detail/CurlProxy.h>
#include <restclient/detail/ServiceAddress.h>
#include <restclient/detail/WorkerLog.h>
#include <restclient/storage/detail/RestStep.h>
#include <restclient/storage/detail/TransferHandles.h>

#include <tavix/controller/CommonName.h>
#include <tavix/controller/SoapHelper.h>
#include <tavix/crypto/FileHash.h>
#include <tavix/net/http/ProxyChoice.h>
#include <tavix/os/NetworkInterfaces.h>
#include <tavix/version/BuildVersion.h>

#include <boost/bind/bind.hpp>

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix::restclient::storage {

using namespace boost::placeholders;
using restclient::detail::describeFailure;
using restclient::detail::ServiceAddress;

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
    double stallSeconds = 60.0;
    std::int64_t moved = 0; // bytes both ways when they last moved
    double lastMove = 0.0;
    bool stalled = false;

    // True once no byte has moved for the stall period.
    bool stalledAt(double elapsed, std::int64_t bytes)
    {
        if (bytes != moved) moved = bytes, lastMove = elapsed;
        return stalled = elapsed - lastMove >= stallSeconds;
    }
};

// What libcurl reads the body from: the open file, never past the size the request announced.
struct BodySource {
    int fd;
    curl_off_t size;
    curl_off_t left;
};

// A file cut short while it is sent fails the attempt, rather than leave the server waiting for
// the announced rest until the time-out; one that has grown is sent as far as it was announced.
std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* source)
{
    auto* body = static_cast<BodySource*>(source);
    std::size_t const wanted = static_cast<std::size_t>(std::min<curl_off_t>(size * count, body->left));
    if (wanted == 0) return 0;
    ssize_t read;
    do {
        read = ::read(body->fd, buffer, wanted);
    } while (read < 0 && errno == EINTR);
    if (read <= 0) return CURL_READFUNC_ABORT;
    body->left -= static_cast<curl_off_t>(read);
    return static_cast<std::size_t>(read);
}

// A kept connection found closed when the request is sent again is retried on a new one, from
// the start of the body.
int seekBody(void* source, curl_off_t offset, int origin)
{
    auto* body = static_cast<BodySource*>(source);
    if (origin != SEEK_SET || offset < 0 || offset > body->size) return CURL_SEEKFUNC_CANTSEEK;
    if (::lseek(body->fd, static_cast<off_t>(offset), SEEK_SET) != offset) return CURL_SEEKFUNC_FAIL;
    body->left = body->size - offset;
    return CURL_SEEKFUNC_OK;
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

// The file opened for reading without blocking: a FIFO or a device must not hold the worker
// before its type has been looked at on the descriptor.
class ReadOnlyFile {
public:
    explicit ReadOnlyFile(boost::filesystem::path const& path)
        : m_fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY))
    {}
    ReadOnlyFile(ReadOnlyFile const&) = delete;
    ReadOnlyFile& operator=(ReadOnlyFile const&) = delete;
    ~ReadOnlyFile()
    {
        if (m_fd >= 0) ::close(m_fd);
    }
    int fd() const { return m_fd; }

private:
    int m_fd;
};

std::int64_t modifiedNs(struct stat const& info)
{
    return std::int64_t(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
}

struct HeaderList {
    curl_slist* list = nullptr;
    HeaderList(HeaderList const&) = delete;
    HeaderList& operator=(HeaderList const&) = delete;
    explicit HeaderList(char const* header) : list(curl_slist_append(nullptr, header)) {}
    ~HeaderList() { curl_slist_free_all(list); }
};

// The URL's scheme in lower case ("" when it has none): scheme names are case-insensitive.
std::string schemeOf(std::string const& url)
{
    std::string::size_type const end = url.find("://");
    if (end == std::string::npos || end == 0) return {};
    std::string scheme = url.substr(0, end);
    for (char& c : scheme) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return {};
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return scheme;
}

// "scheme://host:port" of a URL, without credentials, path or query (which may carry a signature).
std::string originOf(std::string const& url)
{
    std::string::size_type const start = url.find("://") + 3;
    std::string authority = url.substr(start, url.find_first_of("/?#", start) - start);
    if (std::string::size_type const at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
    return url.substr(0, start) + authority;
}

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

    static RestStep const store{4, 31, 32, "Failed to get upload URL.", "get upload URL", false};
    // A new MD5 pass for every attempt: the file may have changed meanwhile.
    bool const done = runRestStep(store, [&](auto settle) {
        std::string md5;
        if (!hashFile(md5)) return StepResult::failed;
        StoreClient client(m_io, boost::bind(&FileUploader::handleGetStorageUploadURLResponse, this, _1, _2, _3, _4),
                           storage.host, storage.port, m_authToken, storage.accountPart, storage.tls, storage.path);

        StoreRequest request;
        request.metadata.add("buildnumber", version::get_build_version());
        request.metadata.add("_hostname", hostName());
        request.metadata.add("_mac", os::NetworkInterfaces::uniqueMacAddress());
        request.metadata.add("_commonname", controller::CommonName::GetCommonName());
        request.metadata.add("datecreated", ISO8601Time(std::time(nullptr)));
        request.metadata.add("_filename", m_path.filename().string());
        request.metadata.add("_md5checksum", md5);
        // Built-in keys come first; a caller's key equal to one of them is dropped by Metadata.
        for (auto const& [key, value] : m_metadata) request.metadata.add(key, value);
        request.contentType.value = "binary/octet-stream";
        request.name.value = m_name;
        request.type.value = m_type;
        return settle(client.store(request));
    });
    if (done && storage.tls && schemeOf(m_uploadURL) == "http") {
        WORKER_LOG_WARN("[FileUploader] The upload URL is plain http although the Storage service was asked "
                        "over https: the file will travel unencrypted to "
                        << originOf(m_uploadURL));
    }
    return done;
}

void FileUploader::handleGetStorageUploadURLResponse(StoreResponse response, veltrun::TavixErrorResponse error,
                                                     unsigned int status, boost::system::error_code const& ec)
{
    auto const succeeded = [&] {
        WORKER_LOG_DEBUG("[FileUploader] Upload URL: " << response.url.value << " href: " << response.href.value
                                                       << " expires: " << response.expires.value);
        m_uploadURL = response.url.value;
        boost::mutex::scoped_lock lock(m_mutex);
        mediaLocation = m_storageURL + "/media";
        return true;
    };
    auto const failed = [&] {
        WORKER_LOG_ERROR("[FileUploader] Unable to get upload URL. " << describeFailure(ec, error));
    };
    answerRestStep(ec, status, error, "get URL to upload file", succeeded, failed);
}

bool FileUploader::hashFile(std::string& md5)
{
    m_hashed = {};
    ReadOnlyFile const file(m_path);
    struct stat info {};
    boost::system::error_code hashError;
    if (file.fd() < 0 || ::fstat(file.fd(), &info) != 0) {
        hashError.assign(errno, boost::system::generic_category());
    } else if (!S_ISREG(info.st_mode)) {
        WORKER_LOG_ERROR("[FileUploader] File " << m_path << " is not a regular file.");
        setError(45, "Not a regular file.");
        return false;
    } else {
        md5 = crypto::computeFileHash(file.fd(), "md5", hashError, crypto::CryptoEncoding(2),
                                      [this] { return cancelled(); });
        if (!hashError) m_hashed = {info.st_size, modifiedNs(info)};
    }
    if (cancelled()) return false;
    if (hashError) {
        // Logged only: the upload goes on, deliberately.
        WORKER_LOG_ERROR("[FileUploader] Unable to compute MD5 of file: " << m_path.string()
                                                                          << ". Error code: " << hashError.value()
                                                                          << " Error message: " << hashError.message());
    }
    return true;
}

bool FileUploader::UploadFile()
{
    initCurlOnce();
    for (int retries = kAttempts;;) {
        setError(0, "");
        step = 5;
        bool retry = false;
        if (sendOnce(retry)) return true;
        if (!retry || cancelled()) return false;

        --retries;
        WORKER_LOG_WARN("[FileUploader] Uploading file " << m_path.string() << " failed. Retries left: " << retries);
        if (retries < 1) {
            WORKER_LOG_ERROR("[FileUploader] Upload failed. No more retries");
            return false;
        }
        WORKER_LOG_INFO("[FileUploader] Waiting 10 seconds to retry...");
        if (!pauseUnlessCancelled(std::chrono::seconds(10))) return false;
    }
}

bool FileUploader::sendOnce(bool& retry)
{
    m_lastStatus = 0;
    // libcurl speaks far more than HTTP: a file:// or scp:// URL from the answer would read or
    // overwrite what it names. Refused before anything is opened.
    std::string const scheme = schemeOf(m_uploadURL);
    if (scheme != "http" && scheme != "https") {
        std::string const message = "Upload failed. The upload URL's scheme is not http or https"
            + (scheme.empty() ? std::string(".") : ": " + scheme + ".");
        WORKER_LOG_ERROR("[FileUploader] " << message);
        return setError(44, message), false;
    }

    ReadOnlyFile const file(m_path);
    if (file.fd() < 0) {
        int const error = errno;
        WORKER_LOG_ERROR("[FileUploader] Error uploading file "
                         << m_path.string() << ": fopen() failed: " << std::strerror(error) << " (" << error << ")");
        if (error == 0) return setError(41, "Unknown error trying to open file."), false;
        return setError(error, std::strerror(error)), false;
    }
    struct stat info {};
    if (::fstat(file.fd(), &info) != 0) {
        int const error = errno;
        WORKER_LOG_ERROR("[FileUploader] Error uploading file "
                         << m_path.string() << ": fstat() failed: " << std::strerror(error) << " (" << error << ")");
        return setError(error == 0 ? 42 : error, std::strerror(error)), false;
    }
    if (!S_ISREG(info.st_mode)) {
        WORKER_LOG_ERROR("[FileUploader] Error uploading file " << m_path.string() << ": not a regular file.");
        return setError(45, "Not a regular file."), false;
    }
    // The store will reject an MD5 that is not the body's: a changed file cannot succeed.
    if (m_hashed.size >= 0 && (info.st_size != m_hashed.size || modifiedNs(info) != m_hashed.mtimeNs)) {
        WORKER_LOG_ERROR("[FileUploader] Error uploading file " << m_path.string() << ": it changed since its MD5 "
                                                                << "was taken (" << m_hashed.size << " bytes then, "
                                                                << info.st_size << " now).");
        return setError(46, "File changed since its MD5 was taken."), false;
    }
    // The road the REST steps took; settings or a proxy that cannot be used are not worth a retry.
    boost::system::error_code proxyError;
    auto const proxy = restclient::detail::curlProxyFor(m_uploadURL, proxyError);
    if (proxyError) {
        std::string const message = "Upload failed. " + proxyError.message();
        WORKER_LOG_ERROR("[FileUploader] " << message);
        return setError(proxyError.category() == net::http::proxy_category() ? 48 : 47, message), false;
    }
    std::string const clientCert = controller::SoapHelper::GetClientCertFile();
    std::string const caFile = GetCACertFile();
    bool const oldProtocol = controller::SoapHelper::GetDisableTLS();
    auto handle = storage::detail::TransferHandle::take({caFile, clientCert, oldProtocol, proxy ? proxy->route() : ""},
                                                        controller::Settings::current().connectionReuse);
    CURL* const curl = handle.get();
    if (!curl) {
        WORKER_LOG_ERROR("[FileUploader] Could not init curl.");
        return setError(43, "Could not init curl."), false;
    }
    restclient::detail::setCurlProxy(curl, proxy);
    if (proxy) WORKER_LOG_DEBUG("[FileUploader] Uploading through the proxy " << proxy->address());

    curl_off_t const size = info.st_size;
    bytesSent = 0;
    bytesTotal = size;
    ProgressRecord progress{0.0, curl, this};
    curl_off_t maxSendSpeed = 0;
    {
        boost::mutex::scoped_lock lock(m_mutex);
        progress.stallSeconds = double(m_stallTimeout.count());
        maxSendSpeed = static_cast<curl_off_t>(m_maxSendSpeed);
    }
    HeaderList const headers("Content-Type: binary/octet-stream");
    std::string answer;
    BodySource source{file.fd(), size, size};
    curl_easy_setopt(curl, CURLOPT_URL, m_uploadURL.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_PUT, 1L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &FileUploader::curl_progress_callback);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &progress);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &source);
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &seekBody);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, &source);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, size);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    if (maxSendSpeed > 0) curl_easy_setopt(curl, CURLOPT_MAX_SEND_SPEED_LARGE, maxSendSpeed);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &keepAnswer);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);

    long const megabytes = static_cast<long>(size / 1000000) + 1;
    long timeout = 10 + 200 * megabytes;
    WORKER_LOG_DEBUG("[FileUploader] Upload timeout is " << 10 << " + " << 200 << " * " << megabytes << " = " << timeout
                                                         << " seconds.");
    // A capped transfer takes as long as the cap says: the size-based time-out must not end it.
    if (maxSendSpeed > 0) timeout = std::max<long>(timeout, 10 + 2 * static_cast<long>(size / maxSendSpeed));
    if (timeout > kMaxTimeoutSeconds) {
        WORKER_LOG_DEBUG("[FileUploader] Upload timeout is too long, setting it to 82800 seconds (23 hours)");
        timeout = kMaxTimeoutSeconds;
    }
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeout);

    if (scheme == "https") {
        if (!clientCert.empty()) {
            curl_easy_setopt(curl, CURLOPT_SSLCERT, clientCert.c_str());
            curl_easy_setopt(curl, CURLOPT_SSLKEY, clientCert.c_str());
        }
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
        // Kept as the controller has always had it: the older-protocol setting asks for SSLv3.
        curl_easy_setopt(curl, CURLOPT_SSLVERSION, oldProtocol ? CURL_SSLVERSION_SSLv3 : CURL_SSLVERSION_TLSv1_2);
        boost::system::error_code unparsed;
        net::http::Url const url = net::http::Url::createUrl(m_uploadURL, unparsed);
        if (!unparsed && !oldProtocol) handle.offerRestSessions(caFile, clientCert, url.host(), url.port());
    }

    CURLcode const result = curl_easy_perform(curl);
    retry = !cancelled();
    if (result != CURLE_OK) {
        // A stall is libcurl's time-out, found sooner.
        CURLcode const failure = progress.stalled ? CURLE_OPERATION_TIMEDOUT : result;
        std::string message = std::string("Upload failed. curl_easy_perform() failed: ") + curl_easy_strerror(failure);
        if (progress.stalled) message += fmt::format(" (no byte moved for {:.0f} seconds)", progress.stallSeconds);
        WORKER_LOG_INFO("[FileUploader] " << message);
        // The message stays libcurl's; the log names the file it could not use.
        if (failure == CURLE_SSL_CACERT_BADFILE)
            WORKER_LOG_ERROR("[FileUploader] The CA bundle " << caFile << " cannot be used.");
        if (failure == CURLE_SSL_CERTPROBLEM)
            WORKER_LOG_ERROR("[FileUploader] The client certificate " << clientCert << " cannot be used.");
        setError(failure, message);
        return false;
    }
    handle.keep(); // an answer came back whole: the connection serves the next upload
    long code = 0;
    CURLcode const codeRead = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
    if (codeRead != CURLE_OK) {
        std::string const message = std::string("Upload failed. Error: ") + curl_easy_strerror(codeRead);
        WORKER_LOG_ERROR("[FileUploader] " << message);
        setError(codeRead, message);
        return false;
    }
    m_lastStatus = static_cast<std::int32_t>(code);
    if (code != 200) {
        std::string const message = "Upload failed. Response code: " + std::to_string(code);
        WORKER_LOG_ERROR("[FileUploader] " << message << (answer.empty() ? "" : " Answer: ") << answer);
        setError(static_cast<int>(code), message);
        return false;
    }
    double speed = 0;
    double total = 0;
    curl_easy_getinfo(curl, CURLINFO_SPEED_UPLOAD, &speed);
    curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME, &total);
    WORKER_LOG_INFO(fmt::format("[FileUploader] Upload of {} succeeded. Speed: {:.3f} bytes/sec over {:.3f} seconds.",
                                m_path.string(), speed, total));
    bytesSent = size;
    return true;
}

int FileUploader::curl_progress_callback(void* data, std::int64_t, std::int64_t downloaded, std::int64_t uploadTotal,
                                         std::int64_t uploaded)
{
    auto* progress = static_cast<ProgressRecord*>(data);
    // Called at least once a second, moving or not: the place to hear a cancel and see a stall.
    if (progress->uploader->cancelled()) return 1;
    double elapsed = 0;
    curl_easy_getinfo(progress->curl, CURLINFO_TOTAL_TIME, &elapsed);
    if (progress->stalledAt(elapsed, uploaded + downloaded)) return 1;
    if (uploadTotal == 0) return 0;
    progress->uploader->bytesSent = uploaded;

    double speed = 0;
    curl_easy_getinfo(progress->curl, CURLINFO_SPEED_UPLOAD, &speed);
    if (elapsed - progress->lastReport < 10.0) return 0;
    progress->lastReport = elapsed;
    WORKER_LOG_INFO(fmt::format("[FileUploader] Uploading file. {} of {} bytes. {:.2f} seconds elapsed. {:.2f} "
                                "bytes/sec.",
                                uploaded, uploadTotal, elapsed, speed));
    return 0;
}

} // namespace tavix::restclient::storage
