/// @file
/// One service endpoint as the locator service describes it: the service's name, the kind of
/// its URL and the URL itself.
#pragma once

#include <restclient/IWebSerializable.h>
#include <restclient/Value.h>

#include <string>

namespace tavix::restclient::locator {

/// @brief One service endpoint from the Locator: which service, what kind of URL, and the URL.
class RESTCLIENT_EXPORT Endpoint : public IWebSerializable {
public:
    /// All three empty.
    Endpoint();
    /// @name Copy
    /// @{

    /// Member-wise.
    Endpoint(Endpoint const& other) = default;
    Endpoint& operator=(Endpoint const& other) = default;
    /// @}
    virtual ~Endpoint() = default;

    /// An object holding all three keys, empty or not.
    void serialize(JsonWriter& writer) const override;
    /// Takes each key that is present as a JSON string; the others keep their value, as do all
    /// three when `document` is not an object.
    void deserialize(Json::Value const& document) override;

    Value<std::string> serviceName;     ///< "serviceName", e.g. "ACCOUNT"
    Value<std::string> endPointURLType; ///< "endPointURLType"; the uploader refuses "PROXY"
    Value<std::string> endPointURL;     ///< "endPointURL"
};

} // namespace tavix::restclient::locator
