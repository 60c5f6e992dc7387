#include <tavix/net/http/Url.h>

#include <curl/curl.h>

#include <array>
#include <memory>

namespace tavix::net::http {

namespace {

class UrlCategory : public boost::system::error_category {
public:
    char const* name() const noexcept override { return "tavix.url"; }
    std::string message(int value) const override { return curl_url_strerror(static_cast<CURLUcode>(value)); }
};

struct CurlUrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

struct CurlStringDeleter {
    void operator()(char* text) const { curl_free(text); }
};

// One part of a parsed URL; an absent part (no query, say) reads as empty.
std::string part(CURLU* handle, CURLUPart which, unsigned int flags = 0)
{
    char* raw = nullptr;
    if (curl_url_get(handle, which, &raw, flags) != CURLUE_OK) return {};
    std::unique_ptr<char, CurlStringDeleter> text(raw);
    return text.get();
}

} // namespace

boost::system::error_category const& url_category()
{
    // Never destroyed: an error made while the process exits still has its category.
    static UrlCategory const& category = *new UrlCategory;
    return category;
}

Url Url::createUrl(std::string const& text, boost::system::error_code& ec)
{
    // Clients build the same few URLs request after request, and a parse through libcurl costs
    // as much as the rest of setting a request up: the last good ones of this thread are kept.
    struct Parsed {
        std::string text;
        Url url;
    };
    thread_local std::array<Parsed, 4> recent;
    thread_local std::size_t next = 0;
    for (Parsed const& parsed : recent) {
        if (parsed.url.m_valid && parsed.text == text) return ec = {}, parsed.url;
    }

    Url url;
    std::unique_ptr<CURLU, CurlUrlDeleter> handle(curl_url());
    if (!handle) {
        ec.assign(CURLUE_OUT_OF_MEMORY, url_category());
        return url;
    }
    CURLUcode const rc = curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS);
    if (rc != CURLUE_OK) {
        ec.assign(rc, url_category());
        return url;
    }

    std::string const port = part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    std::string const query = part(handle.get(), CURLUPART_QUERY);
    url.m_text = text;
    url.m_scheme = part(handle.get(), CURLUPART_SCHEME);
    url.m_host = part(handle.get(), CURLUPART_HOST);
    url.m_port = port.empty() ? 0 : static_cast<unsigned short>(std::stoul(port));
    url.m_target = part(handle.get(), CURLUPART_PATH);
    if (!query.empty()) url.m_target += "?" + query;
    if (url.m_host.size() > 1 && url.m_host.front() == '[') {
        url.m_host = url.m_host.substr(1, url.m_host.size() - 2);
    }
    url.m_valid = true;
    recent[next++ % recent.size()] = Parsed{text, url};
    ec = {};
    return url;
}

} // namespace tavix::net::http
