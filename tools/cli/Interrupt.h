// Ctrl-C and SIGTERM during a transfer: the handler only notes the signal; the transfer sees it
// within a second, stops, removes what it wrote and the tool exits with 128 + the signal, as a
// shell reports a program the signal ended. Other commands keep the default (they end at once).
#pragma once

#include <tools/cli/Output.h>

namespace tavix::cli {

class Interrupts {
public:
    // Catches SIGINT and SIGTERM until destroyed.
    Interrupts();
    Interrupts(Interrupts const&) = delete;
    Interrupts& operator=(Interrupts const&) = delete;
    ~Interrupts();

    // The signal caught, 0 while none.
    static int caught();
    // Says on stderr that `what` was interrupted; the exit status for the signal.
    static Exit exit(std::string const& what);
};

} // namespace tavix::cli
