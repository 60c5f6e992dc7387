#include <tools/cli/Blocking.h>

#include <exception>

namespace tavix::cli {

Exit runUntilDone(boost::asio::io_context& io, bool const& done, std::string const& what)
{
    auto const deadline = std::chrono::steady_clock::now() + kReplyBound;
    io.restart();
    try {
        while (!done && !io.stopped() && std::chrono::steady_clock::now() < deadline) io.run_one_until(deadline);
    } catch (std::exception const& e) {
        return fail(serviceError, what + ": malformed answer: " + e.what());
    }
    if (!done) return fail(transport, what + ": no answer");
    return ok;
}

Exit transportFailure(std::string const& what, boost::system::error_code const& ec)
{
    return fail(transport,
                what + ": error " + std::to_string(ec.value()) + " (" + ec.category().name() + "): " + ec.message());
}

} // namespace tavix::cli
