#include <tests/support/ForwardProxy.h>

#include <tavix/net/http/Url.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <openssl/evp.h>

#include <array>

namespace tavix::test {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

std::string basic(std::string const& credentials)
{
    std::string encoded(4 * ((credentials.size() + 2) / 3) + 1, '\0');
    int const n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                  reinterpret_cast<unsigned char const*>(credentials.data()), int(credentials.size()));
    encoded.resize(std::size_t(n));
    return "Basic " + encoded;
}

// Bytes from one socket to the other until the first ends; then the second hears the end too.
class Pump : public std::enable_shared_from_this<Pump> {
public:
    Pump(std::shared_ptr<void> owner, tcp::socket& from, tcp::socket& to)
        : m_owner(std::move(owner)), m_from(from), m_to(to)
    {}
    void run()
    {
        m_from.async_read_some(asio::buffer(m_data), [self = shared_from_this()](error_code ec, std::size_t n) {
            if (ec) {
                error_code ignored;
                self->m_to.shutdown(tcp::socket::shutdown_send, ignored);
                return;
            }
            asio::async_write(self->m_to, asio::buffer(self->m_data, n), [self](error_code ec, std::size_t) {
                if (!ec) self->run();
            });
        });
    }

private:
    std::shared_ptr<void> m_owner; // keeps both sockets alive
    tcp::socket& m_from;
    tcp::socket& m_to;
    std::array<char, 16384> m_data;
};

} // namespace

class ForwardProxy::Session : public std::enable_shared_from_this<Session> {
public:
    Session(ForwardProxy& proxy, tcp::socket client) : m_proxy(proxy), m_client(std::move(client)), m_origin(proxy.m_io)
    {}

    void start()
    {
        http::async_read_header(m_client, m_buffer, m_head, [self = shared_from_this()](error_code ec, std::size_t) {
            if (!ec) self->onHead();
        });
    }

private:
    void onHead()
    {
        auto const& head = m_head.get();
        m_seen.method = std::string(head.method_string());
        m_seen.target = std::string(head.target());
        if (auto const field = head.find(http::field::proxy_authorization); field != head.end()) {
            m_seen.proxyAuthorization = std::string(field->value());
        }
        Options const& options = m_proxy.m_options;
        if (options.silent) {
            m_proxy.record(m_seen);
            std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
            m_proxy.m_silenced.push_back(shared_from_this());
            return;
        }
        if (options.refuseWith) return refuse(options.refuseWith);
        if (!options.credentials.empty() && m_seen.proxyAuthorization != basic(options.credentials)) return refuse(407);

        std::string host, port;
        if (head.method() == http::verb::connect) {
            std::string const authority = m_seen.target;
            auto const colon = authority.rfind(':');
            host = authority.substr(0, colon), port = authority.substr(colon + 1);
            if (host.size() > 1 && host.front() == '[') host = host.substr(1, host.size() - 2);
        } else {
            error_code ec;
            net::http::Url const url = net::http::Url::createUrl(m_seen.target, ec);
            if (ec || url.scheme() != "http") return refuse(400);
            host = url.host(), port = std::to_string(url.port());
            m_forwardHead = std::string(head.method_string()) + " " + url.target() + " HTTP/1.1\r\n";
            for (auto const& field : head) {
                std::string const name(field.name_string());
                if (field.name() == http::field::proxy_authorization || field.name() == http::field::connection
                    || name == "Proxy-Connection") {
                    continue;
                }
                m_forwardHead += name + ": " + std::string(field.value()) + "\r\n";
            }
            m_forwardHead += "Connection: close\r\n\r\n";
        }
        error_code ec;
        auto const address = asio::ip::make_address(host, ec);
        if (ec) return refuse(502);
        m_origin.async_connect(tcp::endpoint(address, static_cast<unsigned short>(std::stoul(port))),
                               [self = shared_from_this()](error_code ec) { self->onOrigin(ec); });
    }

    void onOrigin(error_code ec)
    {
        if (ec) return refuse(502);
        m_seen.passed = true;
        m_proxy.record(m_seen);
        bool const tunnel = m_forwardHead.empty();
        // To the client for a tunnel, else to the origin: what goes first, then whatever the
        // client sent after the head.
        m_first = tunnel ? "HTTP/1.1 200 Connection established\r\n\r\n" : m_forwardHead;
        if (!tunnel) m_first += boost::beast::buffers_to_string(m_buffer.data());
        asio::async_write(tunnel ? m_client : m_origin, asio::buffer(m_first),
                          [self = shared_from_this(), tunnel](error_code ec, std::size_t) {
                              if (ec) return;
                              if (tunnel && self->m_buffer.size() > 0) return; // nothing may precede the tunnel
                              std::make_shared<Pump>(self, self->m_client, self->m_origin)->run();
                              std::make_shared<Pump>(self, self->m_origin, self->m_client)->run();
                          });
    }

    void refuse(unsigned status)
    {
        m_proxy.record(m_seen);
        auto answer = std::make_shared<http::response<http::string_body>>(http::int_to_status(status), 11);
        if (status == 407) answer->set(http::field::proxy_authenticate, "Basic realm=\"proxy\"");
        answer->set(http::field::connection, "close");
        answer->body() = "refused by the proxy";
        answer->prepare_payload();
        http::async_write(m_client, *answer, [self = shared_from_this(), answer](error_code, std::size_t) {
            error_code ignored;
            self->m_client.shutdown(tcp::socket::shutdown_both, ignored);
        });
    }

    ForwardProxy& m_proxy;
    tcp::socket m_client;
    tcp::socket m_origin;
    boost::beast::flat_buffer m_buffer;
    http::request_parser<http::empty_body> m_head;
    Seen m_seen;
    std::string m_forwardHead;
    std::string m_first;
};

ForwardProxy::ForwardProxy() : ForwardProxy(Options()) {}

ForwardProxy::ForwardProxy(Options options)
    : m_options(std::move(options)), m_acceptor(m_io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)),
      m_port(m_acceptor.local_endpoint().port())
{
    accept();
    m_thread = std::thread([this] { m_io.run(); });
}

ForwardProxy::~ForwardProxy()
{
    m_io.stop();
    m_thread.join();
}

std::string ForwardProxy::url(std::string const& userinfo) const
{
    return "http://" + (userinfo.empty() ? "" : userinfo + "@") + "127.0.0.1:" + std::to_string(m_port);
}

std::vector<ForwardProxy::Seen> ForwardProxy::requests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_seen;
}

std::size_t ForwardProxy::passed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (Seen const& seen : m_seen) count += seen.passed;
    return count;
}

void ForwardProxy::accept()
{
    m_acceptor.async_accept([this](error_code ec, tcp::socket socket) {
        if (ec) return;
        std::make_shared<Session>(*this, std::move(socket))->start();
        accept();
    });
}

void ForwardProxy::record(Seen seen)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.push_back(std::move(seen));
}

} // namespace tavix::test
