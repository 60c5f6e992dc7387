// The fault matrix: each row is one way the peer (or the file being sent) misbehaves. One driver
// runs it against a REST caller (a LocationClient through RestClient) and, where it applies,
// against FileUploader, whose Locator the same peer is; every run must end with the row's
// documented outcome within a generous bound, and the process must go on. The matrix is printed.
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/FileUploader.h>

#include <tavix/net/http/HttpClient.h>
#include <tests/support/IssuedCertificate.h>
#include <tests/support/Loopback.h>
#include <tests/support/RawPeer.h>
#include <tests/support/ScopedControllerConfig.h>
#include <tests/support/TestCerts.h>
#include <tools/emulator/CloudEmulator.h>

#include <boost/asio/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/filesystem/operations.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <future>
#include <iostream>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using restclient::storage::FileUploader;
using After = RawPeer::After;
using boost::system::error_code;
namespace fs = boost::filesystem;

// Short enough for the stall rows, ample for any loopback exchange.
net::http::ClientOptions const kOptions{2s, 3s, 64 * 1024};
// Ample for every row, the transfer's three attempts 10 s apart included: a row that reaches it hangs.
constexpr auto kBound = 60s;
std::string const kToken = emulator::kDefaultToken;
std::size_t const kBigFile = 16 << 20; // well past what the socket buffers take in while the peer holds

enum class Tls { untrusted, otherName, expired, wantsClientCertificate };
enum class Transfer {
    none,
    olderProtocol,
    expiredUrl,
    truncated,
    grown,
    deleted,
    scheme,           // the store hands out a URL of another scheme (Peer::what)
    upperCaseHttps,   // "HTTPS://": the CA bundle must still apply
    notRegular,       // the file is a FIFO, a device or a directory (Peer::what)
    stallAfter1MB,    // the target takes 1 MB of the body, then nothing
    grownBeforeRetry, // the first PUT fails; the file grows before the retry
    fifoBeforeRetry,  // the first PUT fails; the file is replaced by a FIFO before the retry
    cancelInToken,
    cancelInLocate,
    cancelInHash,
    cancelInTransfer,
    cancelInPause,
};

// How the peer misbehaves.
struct Peer {
    enum Kind { raw, tls, refused, unresolvable, transfer } kind = raw;
    std::string reply{};              // raw: the bytes answered to every request
    After after = After::close;       // raw: what follows them
    bool https = false;               // raw: the client speaks TLS to it all the same
    Tls certificate = Tls::untrusted; // tls: what it shows
    Transfer change = Transfer::none;
    std::string token = kToken; // the bearer token the clients hold
    std::string what{};         // transfer: the scheme, or the kind of special file
};
Peer raw(std::string reply, After after = After::close) { return {Peer::raw, std::move(reply), after}; }
Peer tls(Tls certificate) { return {Peer::tls, {}, After::close, true, certificate}; }
Peer kind(Peer::Kind kind) { return {kind}; }
Peer transfer(Transfer change, std::string what = {})
{
    return {Peer::transfer, {}, After::close, false, Tls::untrusted, change, kToken, std::move(what)};
}
Peer withToken(Peer peer, std::string token) { return peer.token = std::move(token), peer; }

std::string answer(std::string const& statusLine, std::string const& contentType, std::string const& body)
{
    return "HTTP/1.1 " + statusLine + "\r\nContent-Type: " + contentType
        + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
std::string endpoint(std::string const& type)
{
    return answer("200 OK", "application/json",
                  R"({"tavixServerEndpoint": {"serviceName": "ACCOUNT", "endPointURLType": ")" + type
                      + R"(", "endPointURL": "http://127.0.0.1:1/account"}})");
}
std::string overTheLimit(bool chunked)
{
    std::string const body(kOptions.maxBodySize + 1, 'x');
    if (!chunked) return answer("200 OK", "application/json", body);
    return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + fmt::format("{:x}\r\n", body.size()) + body
        + "\r\n0\r\n\r\n";
}

// What a REST caller sees: the completion's error (nullopt: some transport error), status and
// documents, or the exception out of io_context::run().
struct Rest {
    std::optional<error_code> ec;
    unsigned status = 0;
    std::string documents{}; // "endpoint <type>", "error <code>", "throws ..." or "" for defaults
};
// What FileUploader ends with: the error code and the start of its message.
struct Upload {
    int code;
    std::string message;
};
Upload const kLocateFailed{12, "Unable to locate Account service"};
Upload const kNotRegular{45, "Not a regular file."};
Upload const kChanged{46, "File changed since its MD5 was taken."};
Upload const kCancelled{49, "Upload cancelled."};
Upload refusedScheme(std::string const& scheme)
{
    return {44, "Upload failed. The upload URL's scheme is not http or https: " + scheme + "."};
}
// A cancelled upload ends within this of the Cancel call, at whatever step it was.
constexpr auto kCancelBound = 2s;

struct Row {
    std::string name;
    Peer peer;
    std::optional<Rest> rest;                          // unset: not run against the REST caller
    std::optional<Upload> upload;                      // unset: not run against the uploader
    bool nothingSent = false;                          // a raw peer sees no connection at all
    std::optional<std::chrono::milliseconds> within{}; // transfer: the end comes this soon after the start
};

// What GoogleTest shows of a row: its name, not its megabyte replies.
void PrintTo(Row const& row, std::ostream* out) { *out << row.name; }

// Checks `done` every few milliseconds until it holds (true) or `kBound` has passed (false).
bool pollUntil(std::function<bool()> const& done)
{
    auto const deadline = std::chrono::steady_clock::now() + kBound;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

error_code const kNone{};
std::optional<error_code> const kSomeError;
template <class Enum>
std::optional<error_code> is(Enum e)
{
    using boost::system::errc::make_error_code;
    return error_code(make_error_code(e)); // the enum's own, found by argument-dependent lookup
}

std::vector<Row> rows()
{
    std::string const html = "<html><body>Service Unavailable</body></html>";
    return {
        {"connection refused", kind(Peer::refused), Rest{is(boost::asio::error::connection_refused)}, kLocateFailed},
        {"host name does not resolve", kind(Peer::unresolvable), Rest{is(boost::asio::error::host_not_found)},
         kLocateFailed},
        {"reset during the head", raw("HTTP/1.1 200 OK\r\nContent-Ty", After::reset),
         Rest{is(boost::asio::error::connection_reset)}, kLocateFailed},
        {"reset during the body",
         raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"tavixServerEndpoint\": {", After::reset),
         Rest{is(boost::asio::error::connection_reset), 200}, kLocateFailed},
        {"closed without a reply", raw(""), Rest{is(boost::beast::http::error::end_of_stream)}, kLocateFailed},
        {"closed during the body", raw("HTTP/1.1 503 Service Unavailable\r\nContent-Length: 100\r\n\r\nshort"),
         Rest{is(boost::beast::http::error::partial_message), 503}, kLocateFailed},
        {"silent after the request", raw("", After::hold), Rest{is(boost::beast::error::timeout)}, kLocateFailed},
        {"stall after the head", raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n", After::hold),
         Rest{is(boost::beast::error::timeout), 200}, kLocateFailed},
        {"TCP only, no TLS handshake", Peer{Peer::raw, "", After::hold, true}, Rest{is(boost::beast::error::timeout)},
         kLocateFailed},
        {"garbage status line", raw("HTTP/1.1 two hundred OK\r\n\r\n"), Rest{is(boost::beast::http::error::bad_status)},
         kLocateFailed},
        {"not HTTP at all", raw("this is not HTTP at all\r\n\r\n"), Rest{is(boost::beast::http::error::bad_version)},
         kLocateFailed},
        {"oversized head", raw("HTTP/1.1 200 OK\r\nX-Padding: " + std::string(1 << 20, 'a') + "\r\n\r\n"),
         Rest{is(boost::beast::http::error::header_limit)}, kLocateFailed},
        {"body over the limit", raw(overTheLimit(false)), Rest{is(boost::beast::http::error::body_limit), 200},
         kLocateFailed},
        {"chunked body over the limit", raw(overTheLimit(true)), Rest{is(boost::beast::http::error::body_limit), 200},
         kLocateFailed},
        {"broken chunked encoding", raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc\r\n0\r\n\r\n"),
         Rest{is(boost::beast::http::error::bad_chunk), 200}, kLocateFailed},
        {"5xx with an HTML body", raw(answer("503 Service Unavailable", "text/html", html)), Rest{kNone, 503},
         kLocateFailed},
        {"200 with an HTML body", raw(answer("200 OK", "text/html", html)),
         Rest{is(boost::system::errc::bad_message), 200}, kLocateFailed},
        {"200 JSON of the wrong shape", raw(answer("200 OK", "application/json", "[1, 2]")),
         Rest{kNone, 0, "throws Json::LogicError"}, Upload{12, "Unable to locate Account service (malformed answer"}},
        {"401 on every request",
         raw(answer("401 Unauthorized", "application/json", R"({"TavixErrorResponse": {"code": 401, "subCode": 1}})")),
         Rest{kNone, 401, "error 401"}, kLocateFailed},
        {"Locator answers PROXY", raw(endpoint("PROXY")), Rest{kNone, 200, "endpoint PROXY"}, kLocateFailed},
        {"untrusted certificate", tls(Tls::untrusted), Rest{kSomeError}, kLocateFailed},
        {"host-name mismatch", tls(Tls::otherName), Rest{kSomeError}, kLocateFailed},
        {"expired certificate", tls(Tls::expired), Rest{kSomeError}, kLocateFailed},
        {"client certificate required, none configured", tls(Tls::wantsClientCertificate), Rest{kSomeError},
         kLocateFailed},
        {"token carrying CR/LF", withToken(raw(endpoint("REST")), "abc\r\nX-Injected: yes"),
         Rest{is(boost::system::errc::invalid_argument)}, kLocateFailed, true},
        {"expired pre-signed URL",
         transfer(Transfer::expiredUrl),
         {},
         Upload{403, "Upload failed. Response code: 403"}},
        // The first attempt stops where the file ends; the retry sees the file changed.
        {"file truncated during the transfer", transfer(Transfer::truncated), {}, kChanged},
        {"file grown during the transfer", transfer(Transfer::grown), {}, Upload{0, ""}},
        {"file deleted during the transfer", transfer(Transfer::deleted), {}, Upload{0, ""}},
        // libcurl takes the old setting as the lowest version it accepts: a current one is agreed on.
        {"older protocol on an HTTPS upload", transfer(Transfer::olderProtocol), {}, Upload{0, ""}},
        {"file grown before a retried PUT", transfer(Transfer::grownBeforeRetry), {}, kChanged},
        {"file replaced by a FIFO before a retried PUT", transfer(Transfer::fifoBeforeRetry), {}, kNotRegular},
        {"upload URL of scheme file", transfer(Transfer::scheme, "file"), {}, refusedScheme("file")},
        {"upload URL of scheme ftp", transfer(Transfer::scheme, "ftp"), {}, refusedScheme("ftp")},
        {"upload URL of scheme scp", transfer(Transfer::scheme, "scp"), {}, refusedScheme("scp")},
        {"upload URL of scheme gopher", transfer(Transfer::scheme, "gopher"), {}, refusedScheme("gopher")},
        {"upload URL of scheme dict", transfer(Transfer::scheme, "dict"), {}, refusedScheme("dict")},
        {"upload URL of scheme HTTPS, upper case", transfer(Transfer::upperCaseHttps), {}, Upload{0, ""}},
        {"a FIFO as the file", transfer(Transfer::notRegular, "fifo"), {}, kNotRegular},
        {"a character device as the file", transfer(Transfer::notRegular, "/dev/zero"), {}, kNotRegular},
        {"a directory as the file", transfer(Transfer::notRegular, "directory"), {}, kNotRegular},
        // Three attempts of 2 s without a byte, 10 s apart.
        {"transfer stalls after 1 MB",
         transfer(Transfer::stallAfter1MB),
         {},
         Upload{28, "Upload failed. curl_easy_perform() failed: Timeout was reached"}},
        {"cancelled in the token request", transfer(Transfer::cancelInToken), {}, kCancelled, false, kCancelBound},
        {"cancelled waiting for the Locator", transfer(Transfer::cancelInLocate), {}, kCancelled, false, kCancelBound},
        {"cancelled in the MD5 pass", transfer(Transfer::cancelInHash), {}, kCancelled, false, kCancelBound},
        {"cancelled in the transfer", transfer(Transfer::cancelInTransfer), {}, kCancelled, false, kCancelBound},
        {"cancelled between attempts", transfer(Transfer::cancelInPause), {}, kCancelled, false, kCancelBound},
    };
}

// One line of the printed matrix.
struct Result {
    std::string row, subject, expected, got;
    std::chrono::milliseconds time;
    bool passed;
};

std::string describe(Rest const& rest)
{
    if (rest.documents.rfind("throws", 0) == 0) return rest.documents;
    std::string text = !rest.ec ? "some error" : *rest.ec ? rest.ec->message() : "no error";
    text += fmt::format(", status {}", rest.status);
    return rest.documents.empty() ? text : text + ", " + rest.documents;
}
std::string describe(Upload const& upload) { return fmt::format("{} {}", upload.code, upload.message); }

bool matches(Rest const& expected, Rest const& got)
{
    bool const ec = expected.ec ? *expected.ec == *got.ec : bool(*got.ec);
    return ec && expected.status == got.status && expected.documents == got.documents;
}
bool matches(Upload const& expected, Upload const& got)
{
    return expected.code == got.code && got.message.rfind(expected.message, 0) == 0;
}

class FaultMatrix : public ::testing::TestWithParam<Row> {
protected:
    FaultMatrix() : dir(fs::temp_directory_path() / fs::unique_path("fault-matrix-%%%%-%%%%"))
    {
        fs::create_directories(dir);
        net::http::HttpClient::setDefaultOptions(kOptions);
    }
    ~FaultMatrix() override
    {
        net::http::HttpClient::setDefaultOptions({});
        boost::system::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    // A peer of the row's kind, alive as long as the object.
    struct Served {
        std::string host = "127.0.0.1";
        unsigned short port = 0;
        bool https = false;
        std::shared_ptr<void> alive;
        std::function<int()> connections; // a raw peer's count
        std::string url() const { return fmt::format("{}://{}:{}", https ? "https" : "http", host, port); }
    };
    Served serve(Peer const& peer)
    {
        Served served;
        served.https = peer.https;
        if (peer.kind == Peer::raw) {
            auto server = std::make_shared<RawPeer>(peer.reply, peer.after);
            served.port = server->port();
            served.alive = server;
            served.connections = [server] { return server->connections(); };
        } else if (peer.kind == Peer::tls) {
            auto server = std::make_shared<emulator::HttpServer>(
                [](emulator::Request const&) { return emulator::Response(boost::beast::http::status::ok, 11); },
                tlsFiles(peer.certificate));
            served.port = server->port();
            served.alive = server;
        } else if (peer.kind == Peer::refused) {
            // Bound, so that no other socket takes the port, and not listening.
            auto fd =
                std::shared_ptr<int>(new int(::socket(AF_INET, SOCK_STREAM, 0)), [](int* s) { ::close(*s), delete s; });
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t length = sizeof address;
            ::bind(*fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
            ::getsockname(*fd, reinterpret_cast<sockaddr*>(&address), &length);
            served.port = ntohs(address.sin_port);
            served.alive = fd;
        } else {
            served.host = "nowhere.invalid";
            served.port = 8080;
        }
        return served;
    }

    emulator::TlsFiles tlsFiles(Tls tls) const
    {
        emulator::TlsFiles files = certs::trustedServer();
        switch (tls) {
        case Tls::untrusted: return certs::untrustedServer();
        case Tls::otherName:
            return certs::issueServerCertificate(dir.string(), "elsewhere", "DNS:elsewhere.example", -1h, 24h);
        case Tls::expired:
            return certs::issueServerCertificate(dir.string(), "expired", "DNS:localhost,IP:127.0.0.1", -48h, -24h);
        case Tls::wantsClientCertificate:
            files.clientCa = certs::ca();
            files.requireClientCertificate = true;
            return files;
        }
        return files;
    }

    void writeSettings(std::string const& locatorUrl, std::string const& tokenUrl, std::string const& extra = {})
    {
        settings.write("locator_url = " + locatorUrl + "/locator/rest\nauth_url = " + tokenUrl
                       + "\nca_file = " + certs::ca() + "\ncommon_name = controller-7\n" + extra);
    }

    fs::path makeFile(std::string const& name, std::string const& content) const
    {
        std::ofstream((dir / name).string(), std::ios::binary) << content;
        return dir / name;
    }

    // Each uploader its own key: a new token, so that the Account URL cached process-wide by the
    // previous row is looked up afresh.
    std::unique_ptr<FileUploader> startUpload(fs::path const& file, std::string const& caFile = {},
                                              FileUploader::Finished finished = {})
    {
        auto uploader = std::make_unique<FileUploader>(file, "proj/" + file.filename().string(), "log",
                                                       std::map<std::string, std::string>{},
                                                       "fault-key-" + std::to_string(++m_keys), std::move(finished));
        uploader->SetCACertFile(caFile);
        return uploader;
    }

    Rest runRest(Row const& row, Served const& served)
    {
        boost::asio::io_context io;
        Completion<restclient::locator::LocationResponse, restclient::veltrun::TavixErrorResponse> done;
        Rest got{kNone};
        {
            restclient::locator::LocationClient client(io, done.callback(), served.host, served.port, row.peer.token,
                                                       served.https, "/locator/rest");
            client.getLocation("ACCOUNT");
            try {
                if (!done.wait(io, kBound)) return {kNone, 0, "no completion"};
            } catch (Json::LogicError const&) {
                got.documents = "throws Json::LogicError";
            }
        }
        runUntilIdle(io);
        if (!got.documents.empty()) return got;
        got.ec = done.ec;
        got.status = done.status;
        if (!done.response.endpoint.endPointURLType.value.empty())
            got.documents = "endpoint " + done.response.endpoint.endPointURLType.value;
        else if (done.error.code.value != 0) got.documents = "error " + std::to_string(done.error.code.value);
        return got;
    }

    Upload runUpload(Row const& row, Served const& served)
    {
        writeSettings(served.url(), cloud.tokenUrl());
        if (row.peer.token != kToken) {
            Json::Value issued;
            issued["access_token"] = row.peer.token, issued["token_type"] = "Bearer", issued["expires_in"] = 3600;
            cloud.scriptReply({200, issued.toStyledString(), "application/json", "/oauth/token"});
        }
        auto uploader = startUpload(makeFile("small.txt", "some bytes"));
        if (!uploader->WaitFinished(kBound)) return {uploader->step, "still running"};
        return {uploader->errorCode, uploader->errorMessage};
    }

    // A row that reaches the transfer: the uploader, and what it uploads to.
    struct TransferRun {
        Row const* row;
        std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
        std::atomic<std::chrono::steady_clock::rep> end{0}; // set by the uploader as it finishes
        FileUploader::Finished finished()
        {
            return [this](FileUploader const&) { end = std::chrono::steady_clock::now().time_since_epoch().count(); };
        }
        // First, so that it goes last: a worker still running then is cut off from its peers
        // and ends, instead of holding the destructor.
        std::unique_ptr<FileUploader> uploader;
        std::unique_ptr<emulator::CloudEmulator> cloud;
        std::unique_ptr<RawPeer> peer;
        std::unique_ptr<emulator::HttpServer> tlsPeer;
        // What the run must leave as it was: " [...]" when it did not.
        std::function<std::string()> untouched = [] { return std::string(); };
    };

    // Starts the row's upload and, for a file that changes, changes it while the peer holds the
    // body back. Returns once the uploader has reached the transfer, so that the next row may
    // rewrite the settings.
    std::unique_ptr<TransferRun> startTransfer(Row const& row)
    {
        auto run = std::make_unique<TransferRun>();
        run->row = &row;
        Transfer const change = row.peer.change;
        if (change == Transfer::olderProtocol) {
            emulator::EmulatorConfig config;
            config.tls = tlsFiles(Tls::wantsClientCertificate);
            run->cloud = std::make_unique<emulator::CloudEmulator>(config);
            writeSettings(run->cloud->baseUrl(), run->cloud->tokenUrl(),
                          "client_cert_file = " + certs::client() + "\ndisable_tls = true\n");
            run->uploader = startUpload(makeFile("tls.txt", "some bytes"), certs::ca(), run->finished());
        } else if (change == Transfer::expiredUrl) {
            emulator::EmulatorConfig config;
            config.signedUrlLifetime = -60s;
            run->cloud = std::make_unique<emulator::CloudEmulator>(config);
            writeSettings(run->cloud->baseUrl(), run->cloud->tokenUrl());
            run->uploader = startUpload(makeFile("expired.txt", "some bytes"), {}, run->finished());
        } else if (change == Transfer::scheme) {
            startRefusedScheme(*run, row.peer.what);
        } else if (change == Transfer::upperCaseHttps) {
            run->tlsPeer = std::make_unique<emulator::HttpServer>(
                [](emulator::Request const&) { return emulator::Response(boost::beast::http::status::ok, 11); },
                certs::trustedServer());
            scriptUploadUrl(fmt::format("HTTPS://127.0.0.1:{}/blobs/upper", run->tlsPeer->port()));
            run->uploader = startUpload(makeFile("upper.txt", "some bytes"), certs::ca(), run->finished());
        } else if (change == Transfer::notRegular) {
            run->uploader = startUpload(specialFile(row.peer.what), {}, run->finished());
        } else if (change >= Transfer::cancelInToken) {
            startCancelled(*run, change);
        } else {
            startChangingFile(*run, change);
        }
        pollUntil([&] { return run->uploader->step >= 5; });
        return run;
    }

    // The store's answer hands out `url`; the chain's other services are the emulator's.
    void scriptUploadUrl(std::string const& url, std::string const& tokenUrl = {})
    {
        Json::Value store;
        store["url"] = url;
        cloud.scriptReply({200, store.toStyledString(), "application/json", "/files"});
        writeSettings(cloud.baseUrl(), tokenUrl.empty() ? cloud.tokenUrl() : tokenUrl);
    }

    // Nothing may be reached: neither a peer at the URL's address nor the local file it names.
    void startRefusedScheme(TransferRun& run, std::string const& scheme)
    {
        run.peer = std::make_unique<RawPeer>("", After::close);
        fs::path const victim = makeFile("victim-" + scheme + ".txt", "keep me");
        scriptUploadUrl(scheme == "file" ? "file://" + victim.string()
                                         : fmt::format("{}://127.0.0.1:{}/blobs/x", scheme, run.peer->port()));
        RawPeer* peer = run.peer.get();
        run.untouched = [peer, victim] {
            std::ifstream in(victim.string());
            std::string const content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            return std::string(peer->connections() ? " [peer reached]" : "")
                + (content != "keep me" ? " [file written]" : "");
        };
        run.uploader = startUpload(makeFile("refused-" + scheme + ".txt", "some bytes"), {}, run.finished());
    }

    fs::path specialFile(std::string const& what) const
    {
        if (what == "fifo") {
            fs::path const fifo = dir / "fifo";
            ::mkfifo(fifo.c_str(), 0600);
            return fifo;
        }
        if (what == "directory") return dir;
        return what;
    }

    // Starts an upload and cancels it once it has reached the row's point; the row's time runs
    // from the Cancel call to the uploader's end.
    void startCancelled(TransferRun& run, Transfer change)
    {
        fs::path file = makeFile("cancelled-" + std::to_string(static_cast<int>(change)) + ".bin", "some bytes");
        std::function<bool()> reached = [&run] { return run.peer->connections() > 0; };
        if (change == Transfer::cancelInToken) {
            run.peer = std::make_unique<RawPeer>("", After::hold);
            writeSettings(cloud.baseUrl(), fmt::format("http://127.0.0.1:{}/oauth/token", run.peer->port()));
        } else if (change == Transfer::cancelInLocate) {
            run.peer = std::make_unique<RawPeer>("", After::hold);
            writeSettings(fmt::format("http://127.0.0.1:{}", run.peer->port()), cloud.tokenUrl());
        } else if (change == Transfer::cancelInHash) {
            // Sparse: nothing on disk, yet many seconds of hashing.
            fs::resize_file(file, std::uintmax_t(16) << 30);
            writeSettings(cloud.baseUrl(), cloud.tokenUrl());
            reached = [&run] { return run.uploader->step == 4; };
        } else if (change == Transfer::cancelInTransfer) {
            file = makeFile("cancelled-transfer.bin", std::string(kBigFile, 'x'));
            run.peer = std::make_unique<RawPeer>([](RawPeer::Connection& connection, int) {
                if (!connection.readHead().empty()) connection.waitUntilClosed();
            });
            scriptUploadUrl(fmt::format("http://127.0.0.1:{}/blobs/held", run.peer->port()));
            reached = [&run] { return run.uploader->step == 5 && run.uploader->bytesSent > 0; };
        } else {
            run.peer = std::make_unique<RawPeer>(answer("503 Service Unavailable", "text/plain", ""), After::close);
            scriptUploadUrl(fmt::format("http://127.0.0.1:{}/blobs/busy", run.peer->port()));
            reached = [&run] { return run.uploader->errorCode == 503; };
        }
        run.uploader = startUpload(file, {}, run.finished());
        pollUntil([&] { return reached() || run.uploader->step == 6; });
        run.uploader->Cancel();
        run.start = std::chrono::steady_clock::now();
    }

    // The Storage service hands out the peer's address; the peer takes the body only when it is
    // the file as it was, and holds the first attempt's body back until the file has changed.
    void startChangingFile(TransferRun& run, Transfer change)
    {
        auto const content = std::make_shared<std::string>(kBigFile, 'x');
        fs::path const file = makeFile("changing-" + std::to_string(static_cast<int>(change)) + ".bin", *content);
        if (change == Transfer::stallAfter1MB || change == Transfer::grownBeforeRetry
            || change == Transfer::fifoBeforeRetry) {
            run.peer = std::make_unique<RawPeer>([=](RawPeer::Connection& connection, int) {
                if (connection.readHead().empty()) return;
                if (change == Transfer::stallAfter1MB) {
                    if (connection.readBody(1 << 20)) connection.waitUntilClosed();
                    return;
                }
                if (!connection.readBody(kBigFile)) return;
                if (change == Transfer::grownBeforeRetry) {
                    std::ofstream(file.string(), std::ios::app) << "more";
                } else {
                    fs::remove(file);
                    ::mkfifo(file.c_str(), 0600);
                }
                connection.send(answer("503 Service Unavailable", "text/plain", ""));
            });
            scriptUploadUrl(fmt::format("http://127.0.0.1:{}/blobs/changing", run.peer->port()));
            run.uploader = startUpload(file, {}, run.finished());
            if (change == Transfer::stallAfter1MB) run.uploader->SetStallTimeout(2s);
            return;
        }
        auto const held = std::make_shared<std::atomic<bool>>(false);
        auto const release = std::make_shared<std::promise<void>>();
        std::shared_future<void> released = release->get_future().share();
        run.peer = std::make_unique<RawPeer>([=](RawPeer::Connection& connection, int index) {
            std::string const head = connection.readHead();
            if (head.empty()) return;
            if (index == 0) {
                *held = true;
                released.wait_for(kBound);
            }
            auto const body = connection.readBody(RawPeer::contentLength(head));
            if (!body) return;
            connection.send(*body == *content ? answer("200 OK", "text/plain", "")
                                              : answer("400 Bad Request", "text/plain", "not the file"));
        });
        scriptUploadUrl(fmt::format("http://127.0.0.1:{}/blobs/changing", run.peer->port()));
        run.uploader = startUpload(file, {}, run.finished());
        pollUntil([&] { return *held && run.uploader->bytesSent > 0; });
        if (change == Transfer::truncated) fs::resize_file(file, 1000);
        if (change == Transfer::grown) std::ofstream(file.string(), std::ios::app) << std::string(1 << 20, 'y');
        if (change == Transfer::deleted) fs::remove(file);
        release->set_value();
    }

    static Result record(Row const& row, std::string subject, std::string expected, std::string got, bool passed,
                         std::chrono::steady_clock::time_point start,
                         std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now())
    {
        auto const time = std::chrono::duration_cast<std::chrono::milliseconds>(end - start);
        return {row.name, std::move(subject), std::move(expected), std::move(got), time, passed};
    }
    // Runs one subject against the row's peer; a peer that saw nothing says so in the outcome.
    template <class Outcome>
    Result run(Row const& row, std::string subject, Outcome const& expected,
               std::function<Outcome(Served const&)> const& subjectRun)
    {
        auto const start = std::chrono::steady_clock::now();
        Served const served = serve(row.peer);
        Outcome const got = subjectRun(served);
        bool const nothingSent = served.connections && served.connections() == 0;
        std::string const silence = " [nothing sent]";
        return record(row, std::move(subject), describe(expected) + (row.nothingSent ? silence : ""),
                      describe(got) + (nothingSent ? silence : ""),
                      matches(expected, got) && nothingSent == row.nothingSent, start);
    }

    fs::path dir;
    emulator::CloudEmulator cloud; // the token endpoint, and the whole chain for the changing files
    ScopedControllerConfig settings;
    int m_keys = 0;
};

void print(std::vector<Result> const& results)
{
    std::string table =
        fmt::format("\n{:<46} {:<8} {:<58} {:<58} {:>8}\n", "row", "subject", "expected", "got", "time");
    for (Result const& r : results) {
        table += fmt::format("{:<46} {:<8} {:<58} {:<58} {:>6}ms{}\n", r.row, r.subject, r.expected.substr(0, 58),
                             r.got.substr(0, 58), r.time.count(), r.passed ? "" : "  FAILED");
    }
    std::cout << table << std::flush;
}

// Each row is a case of its own (`ctest -R FaultMatrix.*<row>` runs one), printed as its lines of
// the matrix.
TEST_P(FaultMatrix, EndsWithItsDocumentedOutcome)
{
    Row const& row = GetParam();
    std::vector<Result> results;
    if (row.peer.kind != Peer::transfer) {
        if (row.rest)
            results.push_back(run<Rest>(row, "REST", *row.rest, [&](Served const& s) { return runRest(row, s); }));
        if (row.upload)
            results.push_back(
                run<Upload>(row, "uploader", *row.upload, [&](Served const& s) { return runUpload(row, s); }));
    } else {
        std::unique_ptr<TransferRun> const run = startTransfer(row);
        pollUntil([&] { return run->end != 0; });
        Upload got{run->uploader->step, "still running"};
        auto end = run->start + kBound;
        if (run->end) {
            got = {run->uploader->errorCode, run->uploader->errorMessage};
            end = std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(run->end));
        }
        std::string const touched = run->untouched();
        bool const inTime = !row.within || end - run->start <= *row.within;
        std::string expected = describe(*row.upload);
        if (row.within) expected += fmt::format(" within {} ms", row.within->count());
        results.push_back(record(row, "uploader", expected, describe(got) + touched,
                                 matches(*row.upload, got) && touched.empty() && inTime, run->start, end));
    }

    print(results);
    for (Result const& r : results) EXPECT_TRUE(r.passed) << r.row << " (" << r.subject << "): got " << r.got;

    // None of it has left the process unable to upload.
    writeSettings(cloud.baseUrl(), cloud.tokenUrl());
    auto const uploader = startUpload(makeFile("after.txt", "after the matrix"));
    ASSERT_TRUE(uploader->WaitFinished(kBound));
    EXPECT_EQ(uploader->errorCode, 0) << uploader->errorMessage;
}

// "connection refused" → connection_refused: the name CTest shows and `ctest -R` matches.
std::string caseName(::testing::TestParamInfo<Row> const& info)
{
    std::string name;
    for (char c : info.param.name) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Rows, FaultMatrix, ::testing::ValuesIn(rows()), caseName);

} // namespace
} // namespace tavix::test
