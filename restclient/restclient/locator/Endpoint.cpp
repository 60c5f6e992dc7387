#include <restclient/locator/Endpoint.h>

namespace tavix::restclient::locator {

Endpoint::Endpoint()
    : serviceName("serviceName", ""), endPointURLType("endPointURLType", ""), endPointURL("endPointURL", "")
{}

void Endpoint::serialize(JsonWriter& writer) const
{
    writer.startObject();
    serviceName.serialize(writer);
    endPointURLType.serialize(writer);
    endPointURL.serialize(writer);
    writer.endObject();
}

void Endpoint::deserialize(Json::Value const& document)
{
    // A list entry that is not an object has no members, and still counts as an endpoint.
    if (!document.isObject()) return;
    serviceName.deserialize(document);
    endPointURLType.deserialize(document);
    endPointURL.deserialize(document);
}

} // namespace tavix::restclient::locator
