/// @file
/// A record that writes itself into a JsonWriter and reads itself from parsed JSON.
#pragma once

#include <restclient/Export.h>
#include <tavix/JsonWriter.h>

#include <json/value.h>

namespace tavix::restclient {

/// @brief A record that travels both ways: written into request bodies, read from answers.
///
/// Not deleted through this base (its destructor is protected).
class RESTCLIENT_EXPORT IWebSerializable {
public:
    /// Writes the record into whatever container `writer` has open.
    virtual void serialize(JsonWriter& writer) const = 0;
    /// Reads the record from `document`; what is missing or of another kind is left as it was.
    virtual void deserialize(Json::Value const& document) = 0;

protected:
    ~IWebSerializable() = default;
};

} // namespace tavix::restclient
