// Runs one client request to its end on the caller's io_context and sorts the outcome into the
// tool's failure classes, telling why on stderr.
#pragma once

#include <tools/cli/Output.h>

#include <restclient/RequestEngine.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <string>

namespace tavix::cli {

// The HTTP client's own exchange time-out ends every request well before this.
inline constexpr std::chrono::seconds kReplyBound{120};

template <typename Response, typename Error = restclient::veltrun::TavixErrorResponse>
struct Reply {
    bool done = false;
    Response response;
    Error error;
    unsigned int status = 0;
    boost::system::error_code ec;

    typename restclient::RestClient<Response, Error>::Callback callback()
    {
        return [this](Response const& r, Error e, unsigned int s, boost::system::error_code const& c) {
            done = true, response = r, error = std::move(e), status = s, ec = c;
        };
    }
};

// Runs `io` until `done` holds. A document handler that throws (a malformed answer the library
// lets out of io_context::run) ends the wait as the service's failure.
Exit runUntilDone(boost::asio::io_context& io, bool const& done, std::string const& what);

Exit transportFailure(std::string const& what, boost::system::error_code const& ec);

// ok when the request `started` was answered with status 200.
template <typename Response, typename Error>
Exit await(boost::asio::io_context& io, boost::system::error_code const& started, Reply<Response, Error> const& reply,
           std::string const& what, Output const& out)
{
    if (started) return transportFailure(what + ": not sent", started);
    if (Exit const e = runUntilDone(io, reply.done, what); e != ok) return e;
    if (reply.ec && reply.status == 0) return transportFailure(what, reply.ec);
    if (reply.ec) {
        return fail(serviceError,
                    what + ": malformed answer (status " + std::to_string(reply.status) + "): error "
                        + std::to_string(reply.ec.value()) + ": " + reply.ec.message());
    }
    if (reply.status != 200) {
        out.printError(toJson(reply.error));
        return fail(serviceError, what + ": status " + std::to_string(reply.status) + ", " + describe(reply.error));
    }
    return ok;
}

} // namespace tavix::cli
