// The request an HTTP exchange sends and the response it brings back.
#pragma once

#include <tavix/Export.h>
#include <tavix/net/http/Url.h>

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/verb.hpp>

#include <string>

namespace tavix::net::http {

class TAVIX_EXPORT HttpRequest {
public:
    void url(Url const& url) { m_url = url; }
    Url const& url() const { return m_url; }

    void method(boost::beast::http::verb verb) { m_method = verb; }
    boost::beast::http::verb method() const { return m_method; }

    void accept(std::string const& value) { setField("Accept", value); }
    void contentType(std::string const& value) { setField("Content-Type", value); }
    void contentLength(std::string const& value) { setField("Content-Length", value); }
    // Sets (replaces) one header field. A name or value holding CR, LF or NUL could write header
    // lines of its own (a token comes from a server): it is not set, and the request is marked
    // so that `HttpClient::asyncRequest` refuses it with `invalid_argument`.
    void setField(std::string const& name, std::string const& value);
    boost::beast::http::fields const& fields() const { return m_fields; }
    bool hasRefusedField() const { return m_refusedField; }

    void payload(std::string const& body) { m_payload = body; }
    std::string const& payload() const { return m_payload; }

private:
    Url m_url;
    boost::beast::http::verb m_method = boost::beast::http::verb::get;
    boost::beast::http::fields m_fields;
    bool m_refusedField = false;
    std::string m_payload;
};

class TAVIX_EXPORT HttpResponse {
public:
    HttpResponse() = default;
    HttpResponse(unsigned int status, boost::beast::http::fields fields, std::string payload)
        : m_status(status), m_fields(std::move(fields)), m_payload(std::move(payload))
    {}

    // 0 when no response head arrived.
    unsigned int status() const { return m_status; }
    boost::beast::http::fields const& fields() const { return m_fields; }
    std::string const& payload() const { return m_payload; }

private:
    unsigned int m_status = 0;
    boost::beast::http::fields m_fields;
    std::string m_payload;
};

} // namespace tavix::net::http
