#include <tools/cli/Commands.h>
#include <tools/cli/Interrupt.h>
#include <tools/cli/Progress.h>

#include <restclient/detail/CurlProxy.h>
#include <restclient/storage/FileUploader.h>

#include <boost/filesystem/path.hpp>
#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavix::cli {

namespace {

using namespace tavix::restclient;

// How soon a Ctrl-C is heard while a transfer runs.
constexpr std::chrono::milliseconds kInterruptCheck{200};
constexpr int kCancelled = 49;

struct UploadArgs {
    std::string file, name, type = kDefaultUploadType;
    std::vector<std::string> meta;
    long stallSeconds = 60;
};

struct DownloadArgs {
    std::string url, file;
    bool force = false;
    long stallSeconds = 60;
    long timeoutSeconds = 3600;
};

char const* stage(int step)
{
    switch (step) {
    case 1: return "authenticating";
    case 2: return "locating the Account service";
    case 3: return "getting the Storage service URL";
    case 4: return "getting the upload URL";
    case 5: return "sending the file";
    default: return "starting";
    }
}

std::chrono::milliseconds lineInterval(Options const& options)
{
    return std::chrono::milliseconds(static_cast<long long>(options.progressSeconds * 1000));
}

Exit upload(Session& session, UploadArgs const& args)
{
    std::map<std::string, std::string> metadata;
    if (Exit const e = parseMetadata(args.meta, metadata); e != ok) return e;
    Options const& options = session.options;
    session.storeGivenToken();
    boost::filesystem::path const path(args.file);
    std::string const name = args.name.empty() ? path.filename().string() : args.name;

    Interrupts const interrupts;
    storage::FileUploader uploader(path, name, args.type, metadata, options.appKey);
    uploader.SetCACertFile(session.settings().caFile);
    uploader.SetStallTimeout(std::chrono::seconds(args.stallSeconds));
    Progress progress("upload", lineInterval(options));
    while (!uploader.WaitFinished(std::min(progress.pollInterval(), kInterruptCheck))) {
        if (Interrupts::caught()) uploader.Cancel();
        progress.update(uploader.bytesSent, uploader.bytesTotal, stage(uploader.step));
    }
    if (uploader.errorCode == kCancelled && Interrupts::caught()) return Interrupts::exit("upload of " + args.file);
    if (uploader.bytesTotal > 0) progress.finish(uploader.bytesSent, uploader.bytesTotal);

    Json::Value document;
    document["file"] = args.file;
    document["name"] = name;
    document["type"] = args.type;
    document["bytes"] = Json::Int64(uploader.bytesSent);
    document["mediaLocation"] = uploader.mediaLocation;
    document["errorCode"] = uploader.errorCode.load();
    document["errorMessage"] = uploader.errorMessage;
    if (uploader.errorCode != 0) {
        session.out.printError(document);
        return fail(uploadFailed,
                    "upload of " + args.file + " failed: error " + std::to_string(uploader.errorCode) + ": "
                        + uploader.errorMessage);
    }
    session.out.print(document, [&](std::ostream& os) {
        os << "name: " << name << "\nbytes: " << uploader.bytesSent << "\nmediaLocation: " << uploader.mediaLocation
           << "\noutcome: uploaded (error code 0)\n";
    });
    return ok;
}

using Curl = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

int showProgress(void* progress, curl_off_t total, curl_off_t done, curl_off_t, curl_off_t)
{
    if (Interrupts::caught()) return 1;
    static_cast<Progress*>(progress)->update(done, total);
    return 0;
}

// The URL's scheme in lower case; "" when it has none.
std::string schemeOf(std::string const& url)
{
    std::string::size_type const end = url.find("://");
    if (end == std::string::npos) return {};
    std::string scheme = url.substr(0, end);
    for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return scheme;
}

// FILE.part, made here and now: never an existing file, never through a symbolic link.
File createPart(std::string const& part, int& error)
{
    int const fd = ::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    error = errno;
    if (fd < 0) return File(nullptr, &std::fclose);
    File file(::fdopen(fd, "wb"), &std::fclose);
    if (!file) error = errno, ::close(fd);
    return file;
}

// The body goes to FILE.part first, so that a failed download leaves no file that looks whole;
// only http and https are spoken (libcurl knows many more schemes, file:// among them), and a
// silent or stalled server ends the download instead of holding it for ever.
Exit download(Session& session, DownloadArgs const& args)
{
    std::string const scheme = schemeOf(args.url);
    if (scheme != "http" && scheme != "https") {
        return fail(badUsage,
                    "download: only http and https URLs are fetched"
                        + (scheme.empty() ? std::string() : ", not " + scheme));
    }
    std::string const& target = args.file;
    struct stat existing {};
    if (!args.force && ::lstat(target.c_str(), &existing) == 0) {
        return fail(localFailure, "download: " + target + " exists; --force replaces it");
    }
    // From before FILE.part exists, so that Ctrl-C never leaves it behind.
    Interrupts const interrupts;
    std::string const part = target + ".part";
    int openError = 0;
    File file = createPart(part, openError);
    if (!file) {
        std::string const why =
            openError == EEXIST ? "it exists (remove it if no download is writing it)" : std::strerror(openError);
        return fail(localFailure, "download: cannot create " + part + ": " + why);
    }
    Curl curl(curl_easy_init(), &curl_easy_cleanup);
    auto discard = [&part, &file] {
        file.reset();
        std::remove(part.c_str());
    };
    auto failed = [&discard](Exit e, std::string const& message) {
        discard();
        return fail(e, "download: " + message);
    };
    if (!curl) return failed(localFailure, "cannot initialise libcurl");

    Progress progress("download", lineInterval(session.options));
    controller::Settings const& settings = session.settings();
    curl_easy_setopt(curl.get(), CURLOPT_URL, args.url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl.get(), CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, &showProgress);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &progress);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, 10L);
    // Under a byte a second for the stall period: the server has stopped sending.
    curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_LOW_SPEED_TIME, args.stallSeconds);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, args.timeoutSeconds);
    boost::system::error_code proxyError;
    auto const proxy = restclient::detail::curlProxyFor(args.url, proxyError);
    if (proxyError) return failed(badUsage, proxyError.message());
    restclient::detail::setCurlProxy(curl.get(), proxy);
    if (!settings.caFile.empty()) curl_easy_setopt(curl.get(), CURLOPT_CAINFO, settings.caFile.c_str());
    if (!settings.clientCertFile.empty()) {
        curl_easy_setopt(curl.get(), CURLOPT_SSLCERT, settings.clientCertFile.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_SSLKEY, settings.clientCertFile.c_str());
    }
    CURLcode const code = curl_easy_perform(curl.get());
    long status = 0;
    curl_off_t bytes = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl.get(), CURLINFO_SIZE_DOWNLOAD_T, &bytes);

    if (Interrupts::caught()) {
        discard();
        return Interrupts::exit("download of " + args.url.substr(0, args.url.find('?')));
    }
    if (code != CURLE_OK) {
        std::string const message = "error " + std::to_string(code) + " (libcurl): " + curl_easy_strerror(code);
        return failed(code == CURLE_WRITE_ERROR ? localFailure : transport, message);
    }
    if (status != 200) return failed(serviceError, "status " + std::to_string(status));
    bool const written = std::fclose(file.release()) == 0;
    if (!written || std::rename(part.c_str(), target.c_str()) != 0) {
        return failed(localFailure, "cannot write " + target + ": " + std::strerror(errno));
    }
    progress.finish(bytes, bytes);

    Json::Value document;
    document["file"] = target;
    document["bytes"] = Json::Int64(bytes);
    session.out.print(document, [&](std::ostream& os) { printFields(os, document); });
    return ok;
}

} // namespace

Exit parseMetadata(std::vector<std::string> const& pairs, std::map<std::string, std::string>& metadata)
{
    for (std::string const& pair : pairs) {
        auto const eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) return fail(badUsage, "--meta takes key=value, not '" + pair + "'");
        metadata[pair.substr(0, eq)] = pair.substr(eq + 1);
    }
    return ok;
}

void addTransferCommands(CLI::App& app, Session& session, Run& run)
{
    auto const args = std::make_shared<UploadArgs>();
    CLI::App* sub = app.add_subcommand(
        "upload", "Upload a file through the library's uploader: token, Locator, Account, upload URL, transfer");
    sub->add_option("FILE", args->file, "the file to upload")->required();
    sub->add_option("--name", args->name, "the stored object's name (default: the file's name)");
    sub->add_option("--type", args->type, "the stored object's type")->capture_default_str();
    sub->add_option("--meta", args->meta, "extra metadata, key=value (repeatable)")->allow_extra_args(false);
    sub->add_option("--stall-timeout", args->stallSeconds,
                    "seconds without a byte moved before a transfer attempt fails")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    onParsed(sub, run, [&session, args] { return upload(session, *args); });

    auto const fetch = std::make_shared<DownloadArgs>();
    sub = app.add_subcommand("download", "Fetch the body of a pre-signed download URL (http or https) into a file");
    sub->add_option("URL", fetch->url, "the download URL (\"url\" of download-url)")->required();
    sub->add_option("FILE", fetch->file, "where to write the body (through FILE.part)")->required();
    sub->add_flag("--force", fetch->force, "replace FILE when it exists");
    sub->add_option("--stall-timeout", fetch->stallSeconds, "seconds without a byte before the download fails")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    sub->add_option("--timeout", fetch->timeoutSeconds, "seconds the whole download may take")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    onParsed(sub, run, [&session, fetch] { return download(session, *fetch); });
}

} // namespace tavix::cli
