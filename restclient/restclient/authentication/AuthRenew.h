/// @file
/// Keeps the auth tokens of application keys fresh in the background. Each object watches one
/// key for its lifetime; one process-wide worker thread, started by the first object and never
/// stopped, wakes every 10 seconds and authenticates the controller for every watched key whose
/// token is missing or expired by more than 59 seconds. Tokens reach their users (the file
/// uploader among them) through the controller's token store. A process that exits while a
/// pass is running gives up its token request (exit waits at most a second for it); the worker
/// begins no pass after that.
#pragma once

#include <restclient/Export.h>

#include <tavix/controller/OAuthHelper.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <ctime>
#include <map>
#include <string>

namespace tavix::restclient::authentication {

/// @brief Keeps the token of one application key fresh while the object lives.
///
/// Tokens land in controller::OAuthHelper, where FileUploader finds them. The worker thread
/// ("AuthRenew") is detached and logs its failures (ERROR) and renewals (INFO); nothing reaches
/// the caller, and no exception leaves the worker. Construction and destruction are safe from
/// any thread.
class RESTCLIENT_EXPORT AuthRenew {
public:
    /// Watches `appKey` (counted: several objects may watch one key); the first object of the
    /// process starts the worker. The first renewal is up to 10 seconds away: a caller that needs
    /// a token at once authenticates itself (the uploader does).
    explicit AuthRenew(std::string const& appKey);
    AuthRenew(AuthRenew const&) = delete;
    AuthRenew& operator=(AuthRenew const&) = delete;
    /// Stops watching the key once its last object is gone; the worker runs on.
    ~AuthRenew();

    /// The worker's body, started by the first object; not for callers (it never returns
    /// before the process exits).
    static void WorkerThread();

    /// How many live objects watch `appKey` (0: not watched).
    static int WatchCount(std::string const& appKey);
    /// The worker's rule: true when there is no token, or it expired more than 59 seconds
    /// before `now`. The margin is kept as the renewer has always had it: a token is renewed
    /// only after it has expired, so a request made in between is refused (the uploader then
    /// re-authenticates itself).
    static bool IsDue(controller::AuthToken const* token, std::time_t now);

private:
    std::string m_appKey;

    // Never destroyed: the worker outlives main() and must find them intact during exit.
    static std::map<std::string, int>& s_mapAuthTokens;
    static boost::mutex& s_mutex;
    static boost::shared_ptr<boost::thread>& s_threadWorker;
};

} // namespace tavix::restclient::authentication
