#include <tools/cli/Blocking.h>

#include <tavix/controller/Settings.h>
#include <tavix/net/http/TlsFiles.h>

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
    std::string text =
        what + ": error " + std::to_string(ec.value()) + " (" + ec.category().name() + "): " + ec.message();
    // A CA bundle or client certificate that cannot be read: which one.
    auto const settings = controller::Settings::current();
    std::string which;
    if (net::http::checkTlsFiles(settings.caFile, settings.clientCertFile, &which) == ec) text += ": " + which;
    return fail(transport, text);
}

} // namespace tavix::cli
