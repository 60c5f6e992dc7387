#include <restclient/storage/detail/StoredCheck.h>

#include <restclient/account/AccountClient.h>
#include <restclient/detail/ServiceAddress.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/ResourceClient.h>
#include <restclient/storage/StoreClient.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/LocatorServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <boost/asio/io_context.hpp>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <vector>

namespace tavix::restclient::storage::detail {

namespace {

using restclient::detail::ServiceAddress;

// Longer than any one exchange's own time-outs: a last guard, not the usual end.
constexpr auto kRequestLimit = std::chrono::seconds(90);

// One request on a private io_context, waited for in slices so that a cancel is heard.
class Request {
public:
    Request(char const* what, boost::function<bool()> const& cancelled, std::string& why)
        : m_what(what), m_cancelled(cancelled), m_why(why)
    {}

    boost::asio::io_context io;

    // The completion for a client whose success document goes to `keep` (false: it lacks what
    // was asked).
    template <typename Response, typename Keep>
    auto completion(Keep keep)
    {
        return completion<Response>(
            [keep](Response const& response, unsigned int status) { return status == 200 && keep(response); }, 0);
    }
    // The same, `judge` taking the status too: false for a status it does not accept.
    template <typename Response, typename Judge>
    auto completion(Judge judge, int)
    {
        return [this, judge](Response const& response, veltrun::TavixErrorResponse const& error, unsigned int status,
                             boost::system::error_code const& ec) {
            m_answered = true;
            if (ec) return fail(ec.message());
            m_ok = judge(response, status);
            if (!m_ok) fail("HTTP " + std::to_string(status) + " " + error.message.value);
        };
    }

    bool wait(boost::system::error_code const& started)
    {
        if (started) return fail(started.message()), false;
        auto const deadline = std::chrono::steady_clock::now() + kRequestLimit;
        try {
            while (!m_answered) {
                if (m_cancelled()) return fail("cancelled"), false;
                if (std::chrono::steady_clock::now() > deadline) return fail("no answer in time"), false;
                io.run_for(std::chrono::milliseconds(100));
            }
        } catch (std::exception const& e) {
            // A document of the wrong shape: the service cannot be asked.
            return fail(std::string("malformed answer: ") + e.what()), false;
        }
        return m_ok;
    }

private:
    void fail(std::string const& text) { m_why = std::string(m_what) + ": " + text; }

    char const* m_what;
    boost::function<bool()> const& m_cancelled;
    std::string& m_why;
    bool m_answered = false;
    bool m_ok = false;
};

// The stored token of `appKey` when it is still valid, else a new one.
bool bearerToken(std::string const& appKey, boost::function<bool()> const& cancelled, std::string& token,
                 std::string& why)
{
    auto& store = controller::OAuthHelper::Instance();
    auto current = store.GetAuthToken(appKey);
    if (!current || std::time(nullptr) >= current->GetIssued() + current->GetDuration()) {
        std::string message;
        if (int const code =
                controller::AuthenticationServiceClient::AuthenticateController(appKey, message, cancelled)) {
            why = "authentication: " + std::to_string(code) + " " + message;
            return false;
        }
        current = store.GetAuthToken(appKey);
    }
    if (!current) return why = "authentication: no token stored", false;
    token = current->GetToken();
    return true;
}

// Characters a search filter can carry as they are: the clients insert arguments unescaped.
std::string plainPrefix(std::string const& text)
{
    std::string::size_type end = 0;
    while (end < text.size()
           && (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '-' || text[end] == '_'
               || text[end] == '.' || text[end] == '~'))
        ++end;
    return text.substr(0, end);
}

// True when `url` names the same scheme, host and port as `service`.
bool sameService(std::string const& url, ServiceAddress const& service)
{
    ServiceAddress other;
    return other.parse(url) && other.host == service.host && other.port == service.port && other.tls == service.tls;
}

// Whether the object's body is there (its download address is given), or nullopt when the
// service cannot say.
std::optional<bool> hasContent(Resource const& resource, std::string const& token,
                               boost::function<bool()> const& cancelled, std::string& why)
{
    Request request("Storage download address", cancelled, why);
    std::optional<bool> content;
    ResourceDownloadClient client(request.io,
                                  request.completion<URLResponse>(
                                      [&](auto const&, unsigned int status) {
                                          if (status == 200 || status == 404) content = status == 200;
                                          return content.has_value();
                                      },
                                      0));
    if (!request.wait(client.getDownloadURL(resource.url.href.value, token))) return std::nullopt;
    return content;
}

} // namespace

Stored findStored(StoredQuery const& query, boost::function<bool()> const& cancelled, std::string& why)
{
    std::string token;
    if (!bearerToken(query.appKey, cancelled, token, why)) return Stored::unknown;

    ServiceAddress locator;
    if (!locator.parse(restclient::detail::restLocatorUrl(controller::LocatorServiceClient::LocatorServiceUrl()))) {
        return why = "the Locator URL does not parse", Stored::unknown;
    }
    std::string accountUrl;
    {
        Request request("Locator", cancelled, why);
        locator::LocationClient client(request.io, request.completion<locator::LocationResponse>([&](auto const& r) {
            accountUrl = r.endpoint.endPointURL.value + "/v1/rest";
            return r.endpoint.serviceName.value == "ACCOUNT" && r.endpoint.endPointURLType.value != "PROXY";
        }),
                                       locator.host, locator.port, token, locator.tls, locator.path);
        if (!request.wait(client.getLocation("ACCOUNT"))) return Stored::unknown;
    }
    ServiceAddress account;
    if (!account.parse(accountUrl)) return why = "the Account URL does not parse", Stored::unknown;
    std::string storageUrl;
    {
        Request request("Account", cancelled, why);
        account::AccountClient client(request.io, request.completion<account::AccountResponse>([&](auto const& r) {
            storageUrl = r.storageURL;
            return !storageUrl.empty();
        }),
                                      account.host, account.port, token, account.tls, account.path);
        if (!request.wait(client.getCurrent())) return Stored::unknown;
    }
    ServiceAddress storage;
    if (!storage.parse(storageUrl)) return why = "the Storage URL does not parse", Stored::unknown;

    // Objects of this file: name, type and MD5 as the upload sent them.
    std::vector<Resource> candidates;
    {
        Request request("Storage search", cancelled, why);
        auto const keep = [&](ResourcesResponse const& r) {
            for (auto const& resource : r.resources) {
                if (resource.name.value == query.name && resource.type.value == query.type
                    && resource.metadata.get<std::string>("_md5checksum") == query.md5)
                    candidates.push_back(resource);
            }
            return true;
        };
        ResourceSearchClient client(request.io, request.completion<ResourcesResponse>(keep), storage.host, storage.port,
                                    token, storage.accountPart, storage.tls, storage.path);
        // The name's leading plain characters narrow the search; the exact name is compared here.
        std::string const type = plainPrefix(query.type) == query.type ? query.type : std::string();
        std::string const prefix = plainPrefix(query.name);
        if (!request.wait(type.empty() ? client.searchProject(prefix) : client.searchTypeProject(type, prefix))) {
            return Stored::unknown;
        }
    }
    std::vector<std::string> bodiless;
    for (auto const& resource : candidates) {
        // Links from the answer carry our token: only to the Storage service we asked.
        if (!sameService(resource.href.value, storage) || !sameService(resource.url.href.value, storage)) {
            return why = "an object's links lead away from the Storage service", Stored::unknown;
        }
        auto const length = static_cast<std::int64_t>(resource.contentLength.value);
        if (length == query.size && query.size > 0) return Stored::yes;
        if (length != 0) continue; // not this file's bytes
        // An empty body and no body at all both say 0, and so does a body of 4 GiB or more (the
        // length is read as 32 bits): the download address tells them apart.
        bool const lengthTells = query.size > 0 && query.size <= std::int64_t(UINT32_MAX);
        std::optional<bool> const content = lengthTells ? false : hasContent(resource, token, cancelled, why);
        if (!content) return Stored::unknown;
        if (*content) return Stored::yes;
        bodiless.push_back(resource.href.value);
    }
    // An object made by an attempt whose body never came. Removed before sending again: a body
    // still on its way from a killed sender then finds no object, and never lands as a second copy.
    for (auto const& href : bodiless) {
        Request request("Storage removal", cancelled, why);
        StoreClient client(
            request.io,
            request.completion<StoreResponse>(
                [](auto const&, unsigned int status) { return status == 200 || status == 204 || status == 404; }, 0),
            storage.host, storage.port, token, storage.accountPart, storage.tls, storage.path);
        if (!request.wait(client.remove(href))) return Stored::unknown;
    }
    return Stored::no;
}

} // namespace tavix::restclient::storage::detail
