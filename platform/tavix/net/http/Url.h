/// @file
/// An absolute URL checked by libcurl's URL parser. Composed URL texts are kept as they
/// stand (doubled slashes and unescaped query text included); only what the parser refuses,
/// a space in the host for one, is an error.
#pragma once

#include <tavix/Export.h>

#include <boost/system/error_code.hpp>

#include <string>

namespace tavix::net::http {

/// Errors of `Url::createUrl` (named "tavix.url"): the values are libcurl's CURLUcode, the
/// messages its texts.
TAVIX_EXPORT boost::system::error_category const& url_category();

/// @brief A parsed absolute URL: what a request is sent to. A plain value.
class TAVIX_EXPORT Url {
public:
    /// Not valid until made by `createUrl`.
    Url() = default;

    /// Parses `text`: a valid Url with `ec` cleared, or an invalid one with `ec` set in
    /// url_category() (a relative text, a bad host or port ...). Any scheme libcurl accepts
    /// parses; HttpClient refuses the others than http and https.
    static Url createUrl(std::string const& text, boost::system::error_code& ec);

    /// True when made by a successful `createUrl`.
    bool isValid() const { return m_valid; }
    /// The text the URL was made from.
    std::string const& toString() const { return m_text; }

    std::string const& scheme() const { return m_scheme; } ///< lower case
    std::string const& host() const { return m_host; }     ///< IPv6 without brackets
    unsigned short port() const { return m_port; }         ///< the scheme's default when absent
    std::string const& target() const { return m_target; } ///< path and query, as written

private:
    bool m_valid = false;
    std::string m_text;
    std::string m_scheme;
    std::string m_host;
    unsigned short m_port = 0;
    std::string m_target;
};

} // namespace tavix::net::http
