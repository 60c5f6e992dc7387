#include <restclient/account/SplitUrl.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace tavix::restclient::account {

bool split_URL(std::string const& url, std::string& host, unsigned int& port, bool& tls, std::string& path,
               std::string& accountPart)
{
    std::size_t const separator = url.find("://");
    if (separator == std::string::npos) return false;

    std::size_t const hostStart = separator + 3;
    std::size_t const colon = std::min(url.find(':', hostStart), url.size());
    std::size_t const slash = std::min(url.find('/', hostStart), url.size());
    host = url.substr(hostStart, std::min(colon, slash) - hostStart);

    std::string scheme = url.substr(0, separator);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    // A ":" behind the first "/" belongs to the path.
    std::string const portText = slash > colon ? url.substr(colon + 1, slash - colon - 1) : std::string();

    path = url.substr(slash);
    tls = scheme != "http";
    if (portText.empty()) {
        port = tls ? 443 : 80;
    } else {
        port = static_cast<unsigned int>(std::strtol(portText.c_str(), nullptr, 10));
    }

    static std::string const accounts = "accounts/";
    std::size_t const found = path.find(accounts);
    if (found != std::string::npos) {
        accountPart = path.substr(found + accounts.size());
        path.resize(found + accounts.size() - 1);
    }
    return true;
}

} // namespace tavix::restclient::account
