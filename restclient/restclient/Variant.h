/// @file
/// The scalar value of a storage metadata entry and the two visitors that write it into and
/// read it from JSON.
///
/// The order of the alternatives fixes which one an index names, and the reader's tie-break
/// between the integer alternatives is deliberate: every non-negative number up to 4294967295
/// comes back as `unsigned int`, whatever alternative wrote it.
#pragma once

#include <restclient/Export.h>
#include <restclient/Value.h>
#include <tavix/JsonWriter.h>

#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>

#include <json/value.h>

#include <string>

namespace tavix::restclient {

/// The scalar of a metadata entry; the alternatives' order is fixed (see the file description).
using Variant = boost::variant<int, long long, unsigned int, unsigned long long, double, std::string, bool>;

/// @brief Value's writer for a Variant.
struct RESTCLIENT_EXPORT VariantSerializer {
    /// Writes the held alternative as the matching JSON scalar under `name` (appended when an
    /// array is open).
    void operator()(JsonWriter& writer, std::string const& name, Variant const& value) const;
};

/// @brief Value's reader for a Variant.
struct RESTCLIENT_EXPORT VariantDeserializer {
    /// Assigns the first alternative that `json` matches: string, bool, then the integers as
    /// unsigned int, unsigned long long, int, long long, then double. Null, arrays and objects
    /// leave `value` as it was.
    void operator()(Json::Value const& json, Variant& value) const;
};

/// A metadata value with its key as name.
using VariantValue = Value<Variant, VariantSerializer, VariantDeserializer>;

/// The alternative of type T that the variant holds, or a default T when it holds another; never
/// throws. Taking the concrete variant makes this the overload chosen over boost::get.
template <typename T>
T get(Variant const& variant)
{
    if (T const* held = boost::get<T>(&variant)) return *held;
    return T();
}

} // namespace tavix::restclient
