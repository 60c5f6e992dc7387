// Every response document's handleResponse on whatever JSON a server may send. The documented
// ways for a document to refuse a shape are jsoncpp's exceptions (an array where an object is
// expected) and bad_lexical_cast from the users' text count; anything else is a finding.
#include <fuzz/FuzzSupport.h>

#include <restclient/account/AccountClient.h>
#include <restclient/account/AccountUserClient.h>
#include <restclient/geo/GeoClient.h>
#include <restclient/httplite/RegistrationClient.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/ResourceResponse.h>
#include <restclient/storage/StoreClient.h>
#include <restclient/veltrun/BasicErrorResponse.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/lexical_cast.hpp>

using namespace tavix::restclient;

namespace {

template <typename... Document>
void decodeEach(Json::Value const& root)
{
    auto decode = [&root](auto document) {
        try {
            document.handleResponse(root);
        } catch (Json::Exception const&) {
        } catch (boost::bad_lexical_cast const&) {}
        // Callbacks get copies; what a half-read document holds must copy.
        auto copy = document;
        static_cast<void>(copy);
    };
    (decode(Document()), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Json::Value root;
    if (!tavix::fuzz::parseJson(tavix::fuzz::text(data, size), root)) return 0;
    decodeEach<account::AccountResponse, account::AccountUserResponse, account::AccountUserListResponse,
               geo::GeoResponse, httplite::RegistrationResponse, locator::LocationResponse, locator::LocationsResponse,
               storage::ResourceResponse, storage::ResourcesResponse, storage::URLResponse, storage::StoreResponse,
               veltrun::TavixErrorResponse, veltrun::BasicErrorResponse>(root);
    return 0;
}
