#include <tools/cli/Commands.h>
#include <tools/cli/Progress.h>

#include <restclient/detail/CurlProxy.h>
#include <restclient/storage/FileUploader.h>

#include <platform/controller/OAuthHelper.h>

#include <boost/filesystem/path.hpp>
#include <curl/curl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>

namespace tavix::cli {

namespace {

using namespace tavix::restclient;

// What a token given with --token is taken to last: the upload is over long before.
constexpr long kGivenTokenSeconds = 24 * 3600;

struct UploadArgs {
    std::string file, name, type = "project";
    std::vector<std::string> meta;
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
    for (std::string const& pair : args.meta) {
        auto const eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) return fail(badUsage, "--meta takes key=value, not '" + pair + "'");
        metadata[pair.substr(0, eq)] = pair.substr(eq + 1);
    }
    Options const& options = session.options;
    // The uploader takes its token from the token store: a given one goes there first.
    if (!options.token.empty()) {
        controller::OAuthHelper::Instance().SetAuthToken(options.appKey, options.token, "Bearer", "",
                                                         std::time(nullptr), kGivenTokenSeconds);
    }
    boost::filesystem::path const path(args.file);
    std::string const name = args.name.empty() ? path.filename().string() : args.name;

    storage::FileUploader uploader(path, name, args.type, metadata, options.appKey);
    uploader.SetCACertFile(session.settings().caFile);
    Progress progress("upload", lineInterval(options));
    while (!uploader.WaitFinished(progress.pollInterval())) {
        progress.update(uploader.bytesSent, uploader.bytesTotal, stage(uploader.step));
    }
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
        return fail(uploadFailed, "upload of " + args.file + " failed: error " + std::to_string(uploader.errorCode) +
                                      ": " + uploader.errorMessage);
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
    static_cast<Progress*>(progress)->update(done, total);
    return 0;
}

// The body goes to FILE.part first, so that a failed download leaves no file that looks whole.
Exit download(Session& session, std::string const& url, std::string const& target)
{
    std::string const part = target + ".part";
    File file(std::fopen(part.c_str(), "wb"), &std::fclose);
    if (!file) return fail(localFailure, "cannot write " + part + ": " + std::strerror(errno));
    Curl curl(curl_easy_init(), &curl_easy_cleanup);
    if (!curl) return fail(localFailure, "cannot initialise libcurl");

    Progress progress("download", lineInterval(session.options));
    controller::Settings const& settings = session.settings();
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, file.get());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, &showProgress);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &progress);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, 10L);
    boost::system::error_code proxyError;
    restclient::detail::setCurlProxy(curl.get(), url, proxyError);
    if (proxyError) {
        std::remove(part.c_str());
        return fail(badUsage, "download: " + proxyError.message());
    }
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
    bool const written = std::fclose(file.release()) == 0;

    auto failed = [&part](Exit e, std::string const& message) {
        std::remove(part.c_str());
        return fail(e, "download: " + message);
    };
    if (code != CURLE_OK) {
        std::string const message = "error " + std::to_string(code) + " (libcurl): " + curl_easy_strerror(code);
        return failed(code == CURLE_WRITE_ERROR ? localFailure : transport, message);
    }
    if (status != 200) return failed(serviceError, "status " + std::to_string(status));
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

void addTransferCommands(CLI::App& app, Session& session, Run& run)
{
    auto const args = std::make_shared<UploadArgs>();
    CLI::App* sub = app.add_subcommand(
        "upload", "Upload a file through the library's uploader: token, Locator, Account, upload URL, transfer");
    sub->add_option("FILE", args->file, "the file to upload")->required();
    sub->add_option("--name", args->name, "the stored object's name (default: the file's name)");
    sub->add_option("--type", args->type, "the stored object's type")->capture_default_str();
    sub->add_option("--meta", args->meta, "extra metadata, key=value (repeatable)")->allow_extra_args(false);
    onParsed(sub, run, [&session, args] { return upload(session, *args); });

    auto const url = std::make_shared<std::string>();
    auto const file = std::make_shared<std::string>();
    sub = app.add_subcommand("download", "Fetch the body of a pre-signed download URL into a file");
    sub->add_option("URL", *url, "the download URL (\"url\" of download-url)")->required();
    sub->add_option("FILE", *file, "where to write the body")->required();
    onParsed(sub, run, [&session, url, file] { return download(session, *url, *file); });
}

} // namespace tavix::cli
