#include <restclient/authentication/AuthRenew.h>

#include <restclient/detail/WorkerLog.h>
#include <restclient/detail/WorkerThread.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <boost/thread/locks.hpp>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <vector>

namespace tavix::restclient::authentication {

std::map<std::string, int>& AuthRenew::s_mapAuthTokens = *new std::map<std::string, int>;
boost::mutex& AuthRenew::s_mutex = *new boost::mutex;
boost::shared_ptr<boost::thread>& AuthRenew::s_threadWorker = *new boost::shared_ptr<boost::thread>;

namespace {

constexpr long kRenewMarginSeconds = 59;

// The worker outlives main(), but once exit() has begun it must not touch what exit tears down.
// The handler below is registered after OpenSSL, the logger and the token store are set up, so
// it runs before their clean-up (the caches a pass reads are never destroyed). It gives up a
// token request in flight (within 100 ms), waits at most a second for the pass to let go of the
// gate, and then keeps the gate: the worker never begins another pass.
boost::timed_mutex& s_exitGate = *new boost::timed_mutex;
std::atomic<bool> s_exiting{false};

void closeExitGate()
{
    s_exiting = true;
    s_exitGate.try_lock_for(boost::chrono::seconds(1));
}

// The keys whose token is missing or expired by more than the margin; the caller holds the lock.
std::vector<std::string> keysToRenew(std::map<std::string, int> const& keys)
{
    std::vector<std::string> due;
    for (auto const& [key, count] : keys) {
        WORKER_LOG_DEBUG("[AuthRenew] " << key << " => " << count);
        controller::AuthTokenPtr const token = controller::OAuthHelper::Instance().GetAuthToken(key);
        if (!token) {
            WORKER_LOG_DEBUG("[AuthRenew] Auth token for app key " << key << " doesn't exist. We will get it.");
            due.push_back(key);
        } else if (AuthRenew::IsDue(token.get(), std::time(nullptr))) {
            WORKER_LOG_DEBUG("[AuthRenew] Auth token for app key "
                             << key << " has expired or will expire soon. We will renew it.");
            due.push_back(key);
        }
    }
    return due;
}

void renew(std::string const& key)
{
    std::string message;
    int const code =
        controller::AuthenticationServiceClient::AuthenticateController(key, message, [] { return s_exiting.load(); });
    if (s_exiting) return;
    if (code == 0) {
        WORKER_LOG_INFO("[AuthRenew] Acquired new auth token for app key " << key << ".");
    } else {
        WORKER_LOG_ERROR("[AuthRenew] Unable to acquire auth token for app key " << key << ". Error code: " << code
                                                                                 << " " << message);
    }
}

} // namespace

AuthRenew::AuthRenew(std::string const& appKey) : m_appKey(appKey)
{
    boost::mutex::scoped_lock lock(s_mutex);
    if (!s_threadWorker) {
        controller::AuthenticationServiceClient::PrepareForExitHandlers();
        std::atexit(closeExitGate);
        s_threadWorker = detail::startWorker(&AuthRenew::WorkerThread, "AuthRenew");
        // Never joined: detached, so that its end during exit leaves nothing behind.
        s_threadWorker->detach();
    }
    ++s_mapAuthTokens[m_appKey];
}

AuthRenew::~AuthRenew()
{
    boost::mutex::scoped_lock lock(s_mutex);
    // Insert-on-access: an absent key would be entered at -1, as the original renewer does.
    int& count = s_mapAuthTokens[m_appKey];
    count = count - 1;
    if (count == 0) s_mapAuthTokens.erase(m_appKey);
}

int AuthRenew::WatchCount(std::string const& appKey)
{
    boost::mutex::scoped_lock lock(s_mutex);
    auto const found = s_mapAuthTokens.find(appKey);
    return found == s_mapAuthTokens.end() ? 0 : found->second;
}

bool AuthRenew::IsDue(controller::AuthToken const* token, std::time_t now)
{
    return !token || now > token->GetIssued() + token->GetDuration() + kRenewMarginSeconds;
}

void AuthRenew::WorkerThread()
{
    {
        boost::unique_lock<boost::timed_mutex> gate(s_exitGate);
        if (s_exiting) return;
        WORKER_LOG_DEBUG("[AuthRenew] Starting worker thread.");
    }
    for (;;) {
        boost::this_thread::sleep_for(boost::chrono::seconds(10));
        boost::unique_lock<boost::timed_mutex> gate(s_exitGate);
        if (s_exiting) return;
        // A failed pass is tried again on the next one; nothing may end the worker.
        try {
            std::vector<std::string> due;
            {
                boost::mutex::scoped_lock lock(s_mutex);
                due = keysToRenew(s_mapAuthTokens);
            }
            for (std::string const& key : due) renew(key);
        } catch (std::exception const& e) {
            WORKER_LOG_ERROR("[AuthRenew] Renewal pass failed: " << e.what());
        }
    }
}

} // namespace tavix::restclient::authentication
