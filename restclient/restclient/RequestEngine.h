// The request engine every service client holds: it sends one prepared request over the
// platform HTTP client and hands the typed answer to a single completion callback.
//
// One engine delivers one completion in its life. The HTTP client is created on the first
// request and keeps the first completion relay; a second request detaches that relay, so its
// answer is dropped. Callers that need a second exchange use a new client object.
#pragma once

#include <restclient/IWebResponse.h>

#include <tavix/net/http/HttpClient.h>

#include <boost/bind/bind.hpp>
#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include <json/reader.h>

#include <memory>
#include <sstream>
#include <string>

namespace tavix::restclient {

template <typename Response, typename ErrorResponse>
class RestClient {
public:
    using Callback =
        boost::function<void(Response const&, ErrorResponse, unsigned int, boost::system::error_code const&)>;

    // Relays the HTTP client's completion to its owner while there is one; a completion that
    // arrives after the owner let go is dropped.
    class HandleResponseShim {
    public:
        explicit HandleResponseShim(RestClient* owner) : m_owner(owner) {}
        virtual ~HandleResponseShim() = default;

        void handleResponse(net::http::HttpResponse const& response, boost::system::error_code const& ec)
        {
            if (m_owner) m_owner->handleResponse(response, ec);
        }
        void detach() { m_owner = nullptr; }

    private:
        RestClient* m_owner;
    };

    RestClient(boost::asio::io_context& io, Callback callback) : m_io(io), m_callback(std::move(callback)) {}
    RestClient(RestClient const&) = delete;
    RestClient& operator=(RestClient const&) = delete;

    virtual ~RestClient()
    {
        if (m_shim) m_shim->detach();
        m_shim.reset();
        m_callback.clear();
    }

    boost::system::error_code asyncRequest(boost::beast::http::verb verb)
    {
        if (!m_request.url().isValid())
            return boost::system::errc::make_error_code(boost::system::errc::invalid_argument);
        m_request.method(verb);
        std::string const& payload = m_request.payload();
        if (!payload.empty()) m_request.contentLength(std::to_string(payload.size()));

        if (m_shim) m_shim->detach();
        m_shim = boost::make_shared<HandleResponseShim>(this);
        if (!m_http) {
            net::http::HttpClient::Completion relay = boost::bind(&HandleResponseShim::handleResponse, m_shim,
                                                                  boost::placeholders::_1, boost::placeholders::_2);
            m_http = std::make_shared<net::http::HttpClient>(m_io, relay);
        }
        return m_http->asyncRequest(m_request);
    }

    // The one way the clients set the request's Authorization header.
    void authorization(std::string const& value) { m_request.setField("Authorization", value); }

    net::http::HttpRequest& request() { return m_request; }

    void handleResponse(net::http::HttpResponse const& response, boost::system::error_code const& ec)
    {
        m_http->close(true);
        if (!m_callback) return;

        Response document;
        ErrorResponse error;
        boost::system::error_code result;
        unsigned int const status = response.status();
        if (ec) {
            result = ec;
        } else {
            Json::Value root;
            if (parse(response.payload(), root)) {
                if (status == 200) {
                    document.handleResponse(root);
                } else {
                    error.handleResponse(root);
                }
            } else if (status == 200) {
                result = boost::system::errc::make_error_code(boost::system::errc::bad_message);
            }
        }
        // A copy, so that a callback which destroys this client does not destroy itself mid-call.
        Callback callback = m_callback;
        callback(document, error, status, result);
    }

private:
    static bool parse(std::string const& body, Json::Value& root)
    {
        // Default-configured and built once: constructing a builder costs as much as a small parse.
        static Json::CharReaderBuilder const builder;
        std::istringstream in(body);
        std::string ignored;
        try {
            return Json::parseFromStream(builder, in, &root, &ignored);
        } catch (Json::Exception const&) {
            // The reader throws rather than fails on some bodies (nesting deeper than its
            // stack limit): still a body that does not parse, not an error to raise.
            return false;
        }
    }

    boost::asio::io_context& m_io;
    std::shared_ptr<net::http::HttpClient> m_http;
    net::http::HttpRequest m_request;
    Callback m_callback;
    boost::shared_ptr<HandleResponseShim> m_shim;
};

} // namespace tavix::restclient
