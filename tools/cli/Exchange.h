// Runs one client request to its end for the command-line tool and reports failures as text.
#pragma once

#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/function.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <iostream>
#include <string>

namespace tavix::cli {

template <typename Response, typename Error = restclient::veltrun::TavixErrorResponse>
struct Outcome {
    bool done = false;
    Response response;
    Error error;
    unsigned int status = 0;
    boost::system::error_code ec;

    boost::function<void(Response const&, Error, unsigned int, boost::system::error_code const&)> callback()
    {
        return [this](Response const& r, Error e, unsigned int s, boost::system::error_code const& ec) {
            done = true;
            response = r;
            error = e;
            status = s;
            this->ec = ec;
        };
    }
};

inline std::string describe(restclient::veltrun::TavixErrorResponse const& e)
{
    return "code " + std::to_string(e.code.value) + ", sub-code " + std::to_string(e.subCode.value) + ": " +
           e.message.value + (e.details.value.empty() ? "" : " (" + e.details.value + ")");
}

inline std::string describe(restclient::veltrun::BasicErrorResponse const& e) { return e.message.value; }

// True when the request was sent and answered with status 200; otherwise says why on stderr.
template <typename Response, typename Error>
bool finish(boost::asio::io_context& io, boost::system::error_code const& started, Outcome<Response, Error> const& o,
            std::string const& what)
{
    if (started) {
        std::cerr << what << ": not sent: " << started.message() << "\n";
        return false;
    }
    io.restart();
    io.run_for(std::chrono::seconds(90));
    if (!o.done) {
        std::cerr << what << ": no answer\n";
        return false;
    }
    if (o.ec) {
        std::cerr << what << ": " << o.ec.message() << " (status " << o.status << ")\n";
        return false;
    }
    if (o.status != 200) {
        std::cerr << what << ": status " << o.status << ", " << describe(o.error) << "\n";
        return false;
    }
    return true;
}

} // namespace tavix::cli
