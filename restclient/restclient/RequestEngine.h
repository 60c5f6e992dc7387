/// @file
/// The request engine every service client holds: it sends one prepared request over the
/// platform HTTP client and hands the typed answer to a single completion callback.
///
/// One engine delivers one completion in its life. The HTTP client is created on the first
/// request and keeps the first completion relay; a second request detaches that relay, so its
/// answer is dropped. Callers that need a second exchange use a new client object.
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
#include <string>

namespace tavix::restclient {

/// @brief The request engine: one exchange, its answer parsed into `Response` (status 200) or
/// `ErrorResponse` (any other status), delivered to one callback.
///
/// @warning One engine, and so one client object, delivers exactly ONE completion in its life.
/// A second `asyncRequest` is accepted and sent (it returns success) but its answer is dropped
/// without a callback, and so is the first one's when it had not arrived yet: a blocking wait
/// for it (AsyncOperation) waits for ever, and nothing is logged. Use a new client object for
/// every request. This is deliberate.
///
/// Lifetimes: the io_context must outlive the engine and every exchange it started. The engine
/// may be destroyed with an exchange in flight (on the io_context's thread, or while the
/// io_context is not running): that completion is then dropped.
///
/// Threads: the callback runs on a thread that runs the io_context, inside `run()`.
///
/// Exceptions: a `Response::handleResponse` or `ErrorResponse::handleResponse` that throws
/// (jsoncpp's Json::LogicError for a document of a shape it refuses to index, an array where an
/// object is expected; boost::bad_lexical_cast from AccountUserListResponse), and a callback that
/// throws, propagate out of `io_context::run()` (or AsyncOperation::WaitUntilDone(io)) to
/// whoever runs it; the callback is then not called. Catch them there when the server is not
/// trusted.
/// @tparam Response      the success document, an IWebResponse default-constructible
/// @tparam ErrorResponse the error document, an IWebResponse default-constructible and copyable
template <typename Response, typename ErrorResponse>
class RestClient {
public:
    /// The completion: (success document, error document, HTTP status, error).
    ///
    /// - `ec` set: no usable answer. The transport's errors (boost::asio, beast, SSL,
    ///   net::http::proxy_category()), `errc::bad_message` for a 200 whose body is not JSON, or
    ///   the error of a request that could not start (as `asyncRequest` returned it). `status` is
    ///   that of the answer's head when one arrived (200 with beast::http::error::body_limit, for
    ///   one), else 0; both documents are empty.
    /// - `ec` clear, `status` 200: the success document is filled.
    /// - `ec` clear, any other status: the error document is filled from a JSON body (empty when
    ///   the body is not JSON).
    ///
    /// The documents fill only what the body carries: a missing member reads as its default.
    using Callback =
        boost::function<void(Response const&, ErrorResponse, unsigned int, boost::system::error_code const&)>;

    /// @brief Relays the HTTP client's completion to its owner while there is one; a completion
    /// that arrives after the owner let go is dropped. The engine's own plumbing.
    class HandleResponseShim {
    public:
        /// Relays to `owner` until `detach`.
        explicit HandleResponseShim(RestClient* owner) : m_owner(owner) {}
        virtual ~HandleResponseShim() = default;

        /// Passes the completion on to the owner, or drops it once detached.
        void handleResponse(net::http::HttpResponse const& response, boost::system::error_code const& ec)
        {
            if (m_owner) m_owner->handleResponse(response, ec);
        }
        /// Drops every later completion.
        void detach() { m_owner = nullptr; }

    private:
        RestClient* m_owner;
    };

    /// @param io       runs the exchange and the callback; must outlive the engine
    /// @param callback called once with the answer; may be empty (the exchange then only runs)
    RestClient(boost::asio::io_context& io, Callback callback) : m_io(io), m_callback(std::move(callback)) {}
    RestClient(RestClient const&) = delete;
    RestClient& operator=(RestClient const&) = delete;

    /// Detaches from an exchange in flight: its completion is dropped.
    virtual ~RestClient()
    {
        if (m_shim) m_shim->detach();
        m_shim.reset();
        m_callback.clear();
    }

    /// Sends `request()` with `verb` (and a Content-Length for a non-empty payload); returns at
    /// once.
    /// @return `invalid_argument` for a request without a valid URL: nothing is sent and NO
    /// callback comes. Otherwise the error of HttpClient::asyncRequest (a refused header field,
    /// scheme, settings or proxy), which then also reaches the callback, on the first request of
    /// the engine only (see the class: a second request never reaches it).
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

    /// The one way the clients set the request's Authorization header.
    void authorization(std::string const& value) { m_request.setField("Authorization", value); }

    /// The request the next `asyncRequest` sends; the clients fill it.
    net::http::HttpRequest& request() { return m_request; }

    /// The HTTP client's completion: closes the connection of the exchange, parses the body and
    /// calls the callback (see Callback). Called by the engine's relay; not for callers.
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
        // The body is read where it lies, as parseFromStream would read it after two copies.
        static Json::CharReaderBuilder const builder;
        std::unique_ptr<Json::CharReader> const reader(builder.newCharReader());
        try {
            return reader->parse(body.data(), body.data() + body.size(), &root, nullptr);
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
