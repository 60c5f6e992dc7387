// A record that writes itself into a JsonWriter and reads itself from parsed JSON.
#pragma once

#include <restclient/Export.h>
#include <tavix/JsonWriter.h>

#include <json/value.h>

namespace tavix::restclient {

class RESTCLIENT_EXPORT IWebSerializable {
public:
    virtual void serialize(JsonWriter& writer) const = 0;
    virtual void deserialize(Json::Value const& document) = 0;

protected:
    ~IWebSerializable() = default;
};

} // namespace tavix::restclient
