// split_URL on any configured text: no crash, and the pieces it promises.
#include <fuzz/FuzzSupport.h>

#include <restclient/account/SplitUrl.h>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const url = tavix::fuzz::text(data, size);
    std::string host = "unset", path = "unset", accountPart = "unset";
    unsigned int port = 1;
    bool tls = false;
    bool const split = tavix::restclient::account::split_URL(url, host, port, tls, path, accountPart);

    FUZZ_CHECK(split == (url.find("://") != std::string::npos));
    if (!split) {
        FUZZ_CHECK(host == "unset" && path == "unset" && accountPart == "unset" && port == 1 && !tls);
        return 0;
    }
    FUZZ_CHECK(host.find_first_of(":/") == std::string::npos);
    FUZZ_CHECK(path.empty() || path.front() == '/');
    if (accountPart != "unset") FUZZ_CHECK(path.size() >= 8 && path.compare(path.size() - 8, 8, "accounts") == 0);
    return 0;
}
