// Asks the Storage service whether a file is already stored: the upload queue's guard against
// sending twice an entry whose earlier attempt may have reached the service.
#pragma once

#include <boost/function.hpp>

#include <cstdint>
#include <string>

namespace tavix::restclient::storage::detail {

struct StoredQuery {
    std::string appKey;
    std::string name;
    std::string type;
    std::string md5; // hex, as the upload sends it in "_md5checksum"
    std::int64_t size = 0;
};

enum class Stored { yes, no, unknown };

// Authenticates as the uploader does, finds the Storage service through the Locator and Account
// services and searches by name and type; an object counts when its name, type, size and MD5 all
// match. `unknown` (with `why`) when any of that fails or `cancelled` turns true. Blocks at most
// a few request time-outs.
Stored findStored(StoredQuery const& query, boost::function<bool()> const& cancelled, std::string& why);

} // namespace tavix::restclient::storage::detail
