// Faults drawn at random, request by request, so that a long run meets the trouble a real cloud
// gives: dropped connections, stalls, 5xx answers, 401s, pre-signed URLs that have already
// expired, and uploads stored whose answer never comes (the case that makes a sender store twice). One seeded generator
// draws them all: a seed gives the same sequence of draws, though which request each lands on depends on the order in
// which requests arrive.
//
// Written as text for the program's --faults flag and the control interface:
//   drop=0.02,stall=0.02,stall-ms=2000,5xx=0.02,401=0.02,expired-url=0.01,drop-after-body=0.02,seed=7
// and "spare=locations" keeps them off the requests with that path segment (here the Locator's).
#pragma once

#include <tools/emulator/HttpServer.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace tavix::emulator {

struct RandomFaults {
    double drop = 0;                          // "drop": close the connection instead of answering
    double stall = 0;                         // "stall": answer after a pause of up to `stallMax`
    std::chrono::milliseconds stallMax{2000}; // "stall-ms"
    double serverError = 0;                   // "5xx": 503 with the service's error document
    double unauthorized = 0;                  // "401": refuse the bearer token of a route that takes one
    double expiredUrl = 0;                    // "expired-url": a store request is given an upload URL that has expired
    // "drop-after-body": an upload's body is stored, then the connection closes unanswered
    double dropAfterBody = 0;
    std::uint64_t seed = 0; // "seed"
    std::string spare;      // "spare": a path segment whose requests take no fault
};

// Sets the members that `text` names ("" names none). False with `error` set on an unknown
// name, a probability outside 0..1 or a value that is not a number; `faults` is then unchanged.
bool parseRandomFaults(std::string const& text, RandomFaults& faults, std::string& error);
// Every member, in the form `parseRandomFaults` reads.
std::string formatRandomFaults(RandomFaults const& faults);

// Draws the faults and counts those it gives. Safe to use from several threads.
class FaultDice {
public:
    enum Kind { drop, stall, serverError, unauthorized, expiredUrl, dropAfterBody, kindCount };
    using Counts = std::array<std::uint64_t, kindCount>;
    static char const* name(Kind kind); // as in the text form: "drop", "5xx", ...

    explicit FaultDice(RandomFaults faults = {});
    // Starts over: the generator from the seed, the counts from 0.
    void configure(RandomFaults faults);
    RandomFaults faults() const;
    Counts injected() const;

    // One draw for a transport fault: a drop, a stall with its pause, or none.
    std::optional<Fault> transportFault();
    // Whether a request with these path segments is spared every fault (no draw is made for it).
    bool spares(std::vector<std::string> const& segments) const;
    // One draw for `kind` (5xx, 401, expired-url or drop-after-body): true when it is to be given.
    bool roll(Kind kind);

private:
    bool rollLocked(Kind kind, double probability);

    mutable std::mutex m_mutex;
    RandomFaults m_faults;
    std::mt19937_64 m_generator;
    Counts m_injected{};
};

} // namespace tavix::emulator
