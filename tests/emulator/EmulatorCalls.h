// What the emulator's own tests send it: one HTTP(S) exchange through the platform client, and
// raw bytes on a socket for what that client never sends (Expect: 100-continue, chunked bodies).
#pragma once

#include <tavix/net/http/HttpClient.h>
#include <tests/support/Loopback.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/verb.hpp>

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavix::emulator::calls {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Reply {
    unsigned status = 0; // 0: no answer (see ec)
    std::string body;
    Json::Value json; // null unless the body is JSON
    boost::beast::http::fields fields;
    boost::system::error_code ec;
};

inline Reply exchange(boost::beast::http::verb method, std::string const& url, std::string const& body = {},
                      Headers const& headers = {})
{
    boost::asio::io_context io;
    Reply reply;
    bool done = false;
    net::http::HttpClient client(io, [&](net::http::HttpResponse const& response, boost::system::error_code const& ec) {
        reply.status = response.status(), reply.body = response.payload(), reply.fields = response.fields();
        reply.ec = ec, done = true;
    });
    net::http::HttpRequest request;
    boost::system::error_code ec;
    request.url(net::http::Url::createUrl(url, ec));
    EXPECT_FALSE(ec) << url;
    request.method(method);
    for (auto const& [name, value] : headers) request.setField(name, value);
    request.payload(body);
    client.asyncRequest(request);
    EXPECT_TRUE(test::runUntil(
        io, [&] { return done; }, std::chrono::seconds(30)))
        << url;
    std::istringstream in(reply.body);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &reply.json, &errors)) reply.json = Json::Value();
    return reply;
}

inline Headers bearer(std::string const& token) { return {{"Authorization", "Bearer " + token}}; }

// Polls `done` until it holds (true) or 10 s have passed (false).
inline bool eventually(std::function<bool()> const& done)
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A fresh connection to the server on 127.0.0.1: bytes go out as they stand, answers are read as they come.
struct RawConnection {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket{io};
    std::string received;

    explicit RawConnection(unsigned short port) { socket.connect({boost::asio::ip::make_address("127.0.0.1"), port}); }
    // A peer that has closed already is no failure here: what it answered is what counts.
    void send(std::string const& bytes)
    {
        boost::system::error_code ignored;
        boost::asio::write(socket, boost::asio::buffer(bytes), ignored);
    }
    // The next head the server sends ("HTTP/1.1 100 Continue\r\n\r\n", say), or "" after 10 s.
    std::string nextHead()
    {
        std::string head;
        boost::asio::async_read_until(socket, boost::asio::dynamic_buffer(received), "\r\n\r\n",
                                      [&](boost::system::error_code ec, std::size_t n) {
                                          if (!ec) head = received.substr(0, n), received.erase(0, n);
                                      });
        io.restart();
        io.run_for(std::chrono::seconds(10));
        return head;
    }
    // Everything until the server closes, or "" after 10 s.
    std::string rest()
    {
        bool closed = false;
        boost::asio::async_read(
            socket, boost::asio::dynamic_buffer(received),
            [&](boost::system::error_code ec, std::size_t) { closed = ec == boost::asio::error::eof; });
        io.restart();
        io.run_for(std::chrono::seconds(10));
        return closed ? received : std::string();
    }
};

} // namespace tavix::emulator::calls
