// libcurl handles for the uploader's transfers, kept across the uploads of a process so that a
// small file costs no new connection and no full TLS handshake after the first (internal).
//  - TLS sessions and DNS answers live in a libcurl share object, with a lock per kind of data,
//    so that any uploader on any thread resumes what another made.
//  - Connections stay with the easy handle that made them, and an idle handle is lent to one
//    transfer at a time: libcurl's own shared connection cache is not safe across threads.
//  - Everything is keyed by what the transfer's TLS and road depend on: the CA bundle's and the
//    client certificate's paths and identities, the TLS version asked for and the proxy. A change
//    starts a new share; what was made under the old one is closed as its handles come back.
//  - A new connection that libcurl has no session for offers the session the REST steps made
//    with the same host under the same CA bundle and certificate (the HTTP client's cache), so the
//    first upload of a process makes one full handshake per host.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace tavix::restclient::storage::detail {

struct TransferKey {
    std::string caFile;
    std::string clientCertFile;
    bool oldProtocol = false; // the controller's older-protocol switch
    std::string proxyRoute;   // empty: direct
};

class TransferShare;

class TransferHandle {
public:
    // A handle for `key` with no option of an earlier transfer left, or a new one; `shared`
    // false: a handle of its own, closed with its connection after the transfer (reuse off).
    // Null (`get()`) only when libcurl cannot make a handle.
    static TransferHandle take(TransferKey const& key, bool shared);

    TransferHandle(TransferHandle&&) noexcept;
    TransferHandle& operator=(TransferHandle&&) = delete;
    ~TransferHandle();

    CURL* get() const { return m_curl; }

    // Before the transfer of an https URL: lets a new connection to `host`:`port` resume the
    // session the HTTP client's cache holds for these files (none for a handle of its own).
    void offerRestSessions(std::string const& caFile, std::string const& clientCertFile, std::string const& host,
                           unsigned short port);
    // After a transfer that ended cleanly: the handle and its connection go back for the next.
    void keep() { m_keep = true; }

private:
    TransferHandle(CURL* curl, std::shared_ptr<TransferShare> share);

    CURL* m_curl;
    std::shared_ptr<TransferShare> m_share;
    std::shared_ptr<void> m_bridge; // what the TLS set-up reads while the transfer runs
    bool m_keep = false;
};

} // namespace tavix::restclient::storage::detail
