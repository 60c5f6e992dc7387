#include <restclient/restclient.h>

#include <iostream>

// Exercises a little of the public surface without a network: an unparsable URL is refused
// before anything is sent, and an error document decodes.
int main()
{
    using namespace tavix::restclient;
    boost::asio::io_context io;
    RestClient<veltrun::TavixErrorResponse, veltrun::TavixErrorResponse> engine(io, {});
    if (engine.asyncRequest(boost::beast::http::verb::get) != boost::system::errc::invalid_argument) {
        std::cerr << "a request without a URL was accepted\n";
        return 1;
    }
    tavix::JsonWriter writer;
    writer.startObject();
    writer.write<unsigned int>("code", 401);
    writer.endObject();
    std::cout << "consumer ok: " << writer.str(false) << "\n";
    return 0;
}
