#include <tavix/net/http/HttpMessage.h>

#include <string_view>

namespace tavix::net::http {

namespace {

bool endsOrSplitsALine(std::string const& text)
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

} // namespace

void HttpRequest::setField(std::string const& name, std::string const& value)
{
    if (endsOrSplitsALine(name) || endsOrSplitsALine(value)) {
        m_refusedField = true;
        return;
    }
    m_fields.set(name, value);
}

} // namespace tavix::net::http
