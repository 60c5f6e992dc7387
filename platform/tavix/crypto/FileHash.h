/// @file
/// Digests of whole files, streamed through OpenSSL in constant memory.
#pragma once

#include <tavix/Export.h>

#include <boost/function.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::crypto {

/// How a digest is returned.
enum CryptoEncoding {
    Binary = 0,  ///< the raw digest bytes
    Base64 = 1,  ///< Base64 text
    HexLower = 2 ///< lower-case hexadecimal text (what the uploader sends as `_md5checksum`)
};

/// The digest of the file at `path`. `algorithm` is an OpenSSL digest name ("md5", "sha256" ...).
/// On error `error` is set and the result is empty: the errno of opening or reading the file
/// (generic category), `invalid_argument` for an unknown algorithm, `not_enough_memory`.
/// Reads whatever the path names: a FIFO or a device may block or never end.
TAVIX_EXPORT std::string computeFileHash(std::string const& path, std::string const& algorithm,
                                         boost::system::error_code& error, CryptoEncoding encoding);
/// The same over an open descriptor, from its current offset to its end (the caller keeps it
/// open and decides what it may be). Given up with `operation_canceled` when `cancelled`, asked
/// between chunks, returns true; an empty `cancelled` is never asked.
TAVIX_EXPORT std::string computeFileHash(int fd, std::string const& algorithm, boost::system::error_code& error,
                                         CryptoEncoding encoding, boost::function<bool()> const& cancelled);

} // namespace tavix::crypto
