// How a token is shown wherever it is shown at all: in the workers' DEBUG lines, by the tool,
// on the emulator's control route (internal).
#pragma once

#include <string>

namespace tavix::restclient::detail {

// The first 9 characters of a token, then one "*" for each further character.
inline std::string maskToken(std::string const& token)
{
    constexpr std::size_t shown = 9;
    if (token.size() <= shown) return token;
    return token.substr(0, shown) + std::string(token.size() - shown, '*');
}

} // namespace tavix::restclient::detail
