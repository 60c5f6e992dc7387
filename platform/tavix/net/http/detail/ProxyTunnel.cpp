#include <tavix/net/http/detail/ErrorCategories.h>

#include <tavix/net/http/detail/ProxyTunnel.h>

#include <tavix/net/http/ProxyChoice.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace tavix::net::http {

namespace beast = boost::beast;
using boost::system::error_code;

namespace {

struct Tunnel {
    std::shared_ptr<Connection> connection;
    beast::http::request<beast::http::empty_body> request;
    beast::flat_buffer buffer;
    beast::http::response_parser<beast::http::empty_body> answer;
    std::function<void(error_code)> done;
};

} // namespace

void openTunnel(std::shared_ptr<Connection> const& connection, std::string const& authority,
                std::string const& authorization, std::function<void(error_code)> done)
{
    auto tunnel = std::make_shared<Tunnel>();
    tunnel->connection = connection;
    tunnel->done = std::move(done);
    tunnel->request = {beast::http::verb::connect, authority, 11};
    tunnel->request.set(beast::http::field::host, authority);
    if (!authorization.empty()) tunnel->request.set(beast::http::field::proxy_authorization, authorization);

    auto onStrand = [&strand = connection->strand()](auto handler) {
        return boost::asio::bind_executor(strand, std::move(handler));
    };
    beast::http::async_write(
        connection->socket(), tunnel->request, onStrand([tunnel, onStrand](error_code ec, std::size_t) {
            if (ec) return tunnel->done(ec);
            // The head alone: the proxy's answer to CONNECT ends with it, what follows is the origin's.
            beast::http::async_read_header(tunnel->connection->socket(), tunnel->buffer, tunnel->answer,
                                           onStrand([tunnel](error_code ec, std::size_t) {
                                               unsigned const status = tunnel->answer.get().result_int();
                                               if (!ec && status / 100 != 2) ec.assign(int(status), proxy_category());
                                               tunnel->done(ec);
                                           }));
        }));
}

} // namespace tavix::net::http
