#include <tools/cli/Interrupt.h>

#include <csignal>
#include <iostream>

namespace tavix::cli {

namespace {

volatile std::sig_atomic_t s_caught = 0;
struct sigaction s_previous[2];
int const kSignals[2] = {SIGINT, SIGTERM};

extern "C" void note(int signal) { s_caught = signal; }

} // namespace

Interrupts::Interrupts()
{
    struct sigaction action {};
    action.sa_handler = note;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < 2; ++i) ::sigaction(kSignals[i], &action, &s_previous[i]);
}

Interrupts::~Interrupts()
{
    for (int i = 0; i < 2; ++i) ::sigaction(kSignals[i], &s_previous[i], nullptr);
}

int Interrupts::caught() { return s_caught; }

Exit Interrupts::exit(std::string const& what)
{
    std::cerr << "restclient: " << what << " interrupted (" << (s_caught == SIGINT ? "SIGINT" : "SIGTERM")
              << "), nothing left behind\n";
    return Exit(128 + s_caught);
}

} // namespace tavix::cli
