// One service endpoint as the locator service describes it: the service's name, the kind of
// its URL and the URL itself.
#pragma once

#include <restclient/IWebSerializable.h>
#include <restclient/Value.h>

#include <string>

namespace tavix::restclient::locator {

class RESTCLIENT_EXPORT Endpoint : public IWebSerializable {
public:
    Endpoint();
    Endpoint(Endpoint const& other) = default;
    Endpoint& operator=(Endpoint const& other) = default;
    virtual ~Endpoint() = default;

    // An object holding all three keys, empty or not.
    void serialize(JsonWriter& writer) const override;
    // Takes each key that is present as a JSON string; the others keep their value, as do all
    // three when `document` is not an object.
    void deserialize(Json::Value const& document) override;

    Value<std::string> serviceName;
    Value<std::string> endPointURLType;
    Value<std::string> endPointURL;
};

} // namespace tavix::restclient::locator
