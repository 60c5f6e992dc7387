/// @file
/// The request an HTTP exchange sends and the response it brings back.
#pragma once

#include <tavix/Export.h>
#include <tavix/net/http/Url.h>

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/verb.hpp>

#include <string>

namespace tavix::net::http {

/// @brief What one exchange sends: URL, method, header fields and body. A plain value.
class TAVIX_EXPORT HttpRequest {
public:
    /// The target; an invalid (default) Url makes HttpClient::asyncRequest refuse the request.
    void url(Url const& url) { m_url = url; }
    /// The target as set.
    Url const& url() const { return m_url; }

    /// The method; GET unless set.
    void method(boost::beast::http::verb verb) { m_method = verb; }
    /// The method as set.
    boost::beast::http::verb method() const { return m_method; }

    /// `setField("Accept", value)`.
    void accept(std::string const& value) { setField("Accept", value); }
    /// `setField("Content-Type", value)`.
    void contentType(std::string const& value) { setField("Content-Type", value); }
    /// `setField("Content-Length", value)`; it must match the payload's size.
    void contentLength(std::string const& value) { setField("Content-Length", value); }
    /// Sets (replaces) one header field. A name or value holding CR, LF or NUL could write header
    /// lines of its own (a token comes from a server): it is not set, and the request is marked
    /// so that `HttpClient::asyncRequest` refuses it with `invalid_argument`.
    void setField(std::string const& name, std::string const& value);
    /// The header fields set so far.
    boost::beast::http::fields const& fields() const { return m_fields; }
    /// True once a setField was refused; the mark stays for the request's life.
    bool hasRefusedField() const { return m_refusedField; }

    /// The body, sent as it is; empty: none.
    void payload(std::string const& body) { m_payload = body; }
    /// The body as set.
    std::string const& payload() const { return m_payload; }

private:
    Url m_url;
    boost::beast::http::verb m_method = boost::beast::http::verb::get;
    boost::beast::http::fields m_fields;
    bool m_refusedField = false;
    std::string m_payload;
};

/// @brief What one exchange brought back: status, header fields and body. A plain value; the
/// body is the server's, untrusted.
class TAVIX_EXPORT HttpResponse {
public:
    /// No answer: status 0, no fields, empty body.
    HttpResponse() = default;
    /// An answer as received.
    HttpResponse(unsigned int status, boost::beast::http::fields fields, std::string payload)
        : m_status(status), m_fields(std::move(fields)), m_payload(std::move(payload))
    {}

    /// 0 when no response head arrived.
    unsigned int status() const { return m_status; }
    /// The header fields of the answer.
    boost::beast::http::fields const& fields() const { return m_fields; }
    /// The body (at most ClientOptions::maxBodySize bytes); empty when none arrived.
    std::string const& payload() const { return m_payload; }

private:
    unsigned int m_status = 0;
    boost::beast::http::fields m_fields;
    std::string m_payload;
};

} // namespace tavix::net::http
