// The peer of the upload chain benchmark: the five requests of one upload (token, Locator,
// Account, store, PUT) replayed by bare libcurl over one kept-alive handle, as a program that
// knows its way around the cloud would send them, nothing checked beyond the status.
#pragma once

#include <tools/emulator/HttpServer.h>

#include <string>
#include <vector>

namespace tavix::bench {

struct ChainTls {
    std::string caFile;
    std::string clientCertFile; // certificate and key in one PEM
};

// `chain`: the four REST requests of one upload as the emulator captured them, in order;
// `baseUrl`: where to send them. Each round sends them and PUTs `body` to the URL the store
// answer names. Returns the mean milliseconds per round; throws on a failed request.
double replayChain(std::vector<emulator::CapturedRequest> const& chain, std::string const& baseUrl,
                   std::string const& body, ChainTls const& tls, int rounds);

} // namespace tavix::bench
