// The same HTTPS request as one_request_library with minimal Boost.Beast code: connect,
// handshake with the client certificate, one GET.
//
//   one_request_beast <host> <port> <token> <ca-file> <client-cert-file>
#include <bench/one_request/PeakMemory.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <string>

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s <host> <port> <token> <ca-file> <client-cert-file>\n", argv[0]);
        return 2;
    }
    namespace asio = boost::asio;
    namespace http = boost::beast::http;
    std::string const host = argv[1];
    asio::io_context io;
    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.load_verify_file(argv[4]);
    tls.use_certificate_chain_file(argv[5]);
    tls.use_private_key_file(argv[5], asio::ssl::context::pem);
    tls.set_verify_mode(asio::ssl::verify_peer);

    asio::ssl::stream<asio::ip::tcp::socket> stream(io, tls);
    stream.set_verify_callback(asio::ssl::host_name_verification(host));
    http::request<http::empty_body> request{http::verb::get, "/locator/rest/locations/ACCOUNT", 11};
    request.set(http::field::host, host + ":" + argv[2]);
    request.set(http::field::accept, "application/json");
    request.set(http::field::authorization, std::string("Bearer ") + argv[3]);
    http::response<http::string_body> response;
    boost::beast::flat_buffer buffer;
    boost::system::error_code ec;
    asio::connect(stream.next_layer(), asio::ip::tcp::resolver(io).resolve(host, argv[2], ec), ec);
    if (!ec) stream.handshake(asio::ssl::stream_base::client, ec);
    if (!ec) http::write(stream, request, ec);
    if (!ec) http::read(stream, buffer, response, ec);
    return tavix::bench::report(ec ? 0 : response.result_int());
}
