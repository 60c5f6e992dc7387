/// @file
/// The request-signing hook of the geo, locator and registration clients. A client holding no
/// bearer token asks it for the whole "Authorization" value of a request it is about to send.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavix::restclient {

/// A request-signing hook: called with the method ("GET"), the full URL, the body ("" when there
/// is none) and the header pairs (the clients pass none); returns the whole header value, or ""
/// to send no Authorization. Called on the thread that calls the client's operation, before
/// anything is sent; what it throws leaves that operation.
using AuthCallback = std::string (*)(std::string const& method, std::string const& url, std::string const& body,
                                     std::vector<std::pair<std::string, std::string>> const& headers);

/// The Authorization value a client sends: the bearer token when it has one, else what the
/// hook (when set) signs; "" means no header.
inline std::string authorizationFor(std::string const& token, AuthCallback hook, std::string const& method,
                                    std::string const& url, std::string const& body)
{
    if (!token.empty()) return "Bearer " + token;
    if (hook) return hook(method, url, body, {});
    return {};
}

} // namespace tavix::restclient
