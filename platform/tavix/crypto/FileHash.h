// Digests of whole files, streamed through OpenSSL in constant memory.
#pragma once

#include <tavix/Export.h>

#include <boost/function.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::crypto {

enum CryptoEncoding { Binary = 0, Base64 = 1, HexLower = 2 };

// `algorithm` is an OpenSSL digest name ("md5", "sha256" ...). On error `error` is set and the
// result is empty.
TAVIX_EXPORT std::string computeFileHash(std::string const& path, std::string const& algorithm,
                                         boost::system::error_code& error, CryptoEncoding encoding);
// The same over an open descriptor, from its current offset to its end (the caller keeps it
// open and decides what it may be). Given up with `operation_canceled` when `cancelled`, asked
// between chunks, returns true.
TAVIX_EXPORT std::string computeFileHash(int fd, std::string const& algorithm, boost::system::error_code& error,
                                         CryptoEncoding encoding, boost::function<bool()> const& cancelled);

} // namespace tavix::crypto
