#include <restclient/storage/FileUploader.h>

#include <restclient/detail/ServiceAddress.h>
#include <restclient/detail/WorkerLog.h>
#include <restclient/detail/WorkerThread.h>
#include <restclient/storage/detail/RestStep.h>

#include <tavix/controller/AuthenticationServiceClient.h>
#include <tavix/controller/LocatorServiceClient.h>
#include <tavix/controller/OAuthHelper.h>

#include <boost/bind/bind.hpp>
#include <boost/filesystem/operations.hpp>

#include <exception>

namespace tavix::restclient::storage {

using namespace boost::placeholders;
using detail::describeFailure;
using detail::kUnauthorized;
using detail::ServiceAddress;

boost::recursive_timed_mutex& FileUploader::s_mutexAuth = *new boost::recursive_timed_mutex;
std::string& FileUploader::s_strAccountURL = *new std::string;
std::int32_t FileUploader::s_tAccountURLExpire = 0;
std::atomic<std::int64_t> FileUploader::s_tLocatorBackoffEnd{0};

namespace {

using AuthLock = boost::unique_lock<boost::recursive_timed_mutex>;
constexpr auto kCancelCheck = boost::chrono::milliseconds(100);

} // namespace

FileUploader::FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                           std::map<std::string, std::string> const& metadata, std::string const& appKey)
    : FileUploader(file, name, type, metadata, appKey, Finished())
{}

FileUploader::FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                           std::map<std::string, std::string> const& metadata, std::string const& appKey,
                           Finished onFinished)
    : m_path(file), m_name(name), m_type(type), m_metadata(metadata), m_appKey(appKey),
      m_onFinished(std::move(onFinished))
{
    boost::system::error_code ec;
    boost::filesystem::file_status const status = boost::filesystem::status(m_path, ec);
    if (ec || status.type() == boost::filesystem::file_not_found) {
        WORKER_LOG_ERROR("[FileUploader] File " << m_path << " doesn't exist.");
        setError(2, "File doesn't exist.");
        notifyFinished();
        return;
    }
    // A FIFO or a device would block or never end the MD5 pass; a directory cannot be sent.
    if (status.type() != boost::filesystem::regular_file) {
        WORKER_LOG_ERROR("[FileUploader] File " << m_path << " is not a regular file.");
        setError(45, "Not a regular file.");
        notifyFinished();
        return;
    }
    m_thread = detail::startWorker(boost::bind(&FileUploader::WorkerThread, this), "FileUploader_worker");
}

FileUploader::~FileUploader()
{
    if (!m_thread) return;
    if (m_thread->get_id() == boost::this_thread::get_id()) {
        // Destroyed from its own Finished callback, the worker's last act: nothing follows it.
        WORKER_LOG_ERROR("[FileUploader] boost thread: trying joining itself");
        m_thread->detach();
        return;
    }
    while (!m_thread->try_join_for(boost::chrono::seconds(5)))
        WORKER_LOG_DEBUG("[FileUploader] Waiting for worker thread to finish.");
}

void FileUploader::Cancel()
{
    {
        boost::mutex::scoped_lock lock(m_mutex);
        m_cancelled = true;
        m_wake.notify_all();
    }
    // A REST wait in progress returns at once; the worker then sees the flag.
    m_operation.Done(AsyncOperation::Failed);
}

bool FileUploader::pauseUnlessCancelled(std::chrono::seconds pause)
{
    boost::mutex::scoped_lock lock(m_mutex);
    return !m_wake.wait_for(lock, boost::chrono::seconds(pause.count()), [this] { return cancelled(); });
}

bool FileUploader::lockAuth(AuthLock& lock) const
{
    lock = AuthLock(s_mutexAuth, boost::defer_lock);
    while (!lock.try_lock_for(kCancelCheck))
        if (cancelled()) return false;
    return true;
}

void FileUploader::SetStallTimeout(std::chrono::seconds stall)
{
    boost::mutex::scoped_lock lock(m_mutex);
    m_stallTimeout = stall;
}

void FileUploader::SetMaxSendSpeed(std::uint64_t bytesPerSecond)
{
    boost::mutex::scoped_lock lock(m_mutex);
    m_maxSendSpeed = bytesPerSecond;
}

std::time_t FileUploader::LocatorBackoffEnd() { return static_cast<std::time_t>(s_tLocatorBackoffEnd.load()); }

void FileUploader::SetCACertFile(std::string const& file)
{
    boost::mutex::scoped_lock lock(m_mutex);
    m_caCertFile = file;
}

std::string FileUploader::GetCACertFile() const
{
    boost::mutex::scoped_lock lock(m_mutex);
    return m_caCertFile.empty() ? "/etc/openvpn/ca-bundle.crt" : m_caCertFile;
}

bool FileUploader::WaitFinished(std::chrono::milliseconds timeout) const
{
    boost::mutex::scoped_lock lock(m_mutex);
    return m_finished.wait_for(lock, boost::chrono::milliseconds(timeout.count()), [this] { return step == 6; });
}

void FileUploader::WorkerThread()
{
    // Nothing may leave the worker: an unexpected exception ends the chain as a failure.
    try {
        auto const go = [this] { return !cancelled(); };
        bool const uploaded = GetAuthToken() && go() && LocateAccountService() && go() && GetStorageServiceURL() && go()
            && GetUploadURL() && go() && UploadFile();
        if (uploaded) {
            WORKER_LOG_DEBUG("[FileUploader] File " << m_path << " successfully uploaded.");
        } else if (cancelled()) {
            // Whatever the step made of being cut short, the caller asked for it.
            WORKER_LOG_INFO("[FileUploader] Upload of " << m_path << " cancelled.");
            setError(49, "Upload cancelled.");
        }
    } catch (std::exception const& e) {
        WORKER_LOG_ERROR("[FileUploader] Upload stopped by an unexpected error: " << e.what());
        setError(1, std::string("Unexpected error: ") + e.what());
    } catch (...) {
        WORKER_LOG_ERROR("[FileUploader] Upload stopped by an unexpected error.");
        setError(1, "Unexpected error.");
    }
    notifyFinished();
}

void FileUploader::notifyFinished()
{
    {
        boost::mutex::scoped_lock lock(m_mutex);
        if (errorCode != 0) {
            failedStep = step.load();
            httpStatus = m_lastStatus;
        }
        step = 6;
        m_finished.notify_all();
    }
    if (!m_onFinished) return;
    try {
        m_onFinished(*this);
    } catch (...) {}
}

void FileUploader::setError(int code, std::string const& message)
{
    boost::mutex::scoped_lock lock(m_mutex);
    errorCode = code;
    errorMessage = message;
}

AsyncOperation::Result FileUploader::waitForReply()
{
    // A document handler throws on an answer of the wrong shape (an array for an object, say);
    // on this thread that is the step's failure, not the end of the host process.
    if (cancelled()) return AsyncOperation::Failed;
    try {
        return m_operation.WaitUntilDone(m_io);
    } catch (std::exception const& e) {
        m_malformedAnswer = e.what();
    }
    WORKER_LOG_ERROR("[FileUploader] The service's answer was malformed: " << m_malformedAnswer);
    m_operation.Done(AsyncOperation::Failed);
    return AsyncOperation::Failed;
}

FileUploader::StepResult FileUploader::settleStep(RestStep const& restStep, boost::system::error_code const& started)
{
    if (started) {
        WORKER_LOG_ERROR("[FileUploader] Unable to " << restStep.unableTo << ". Error code: " << started.value()
                                                     << " Error message: " << started.message());
        m_operation.Done(AsyncOperation::Failed);
        setError(started.value(), started.message());
        return restStep.retryUnstarted ? StepResult::again : StepResult::failed;
    }
    switch (waitForReply()) {
    case AsyncOperation::Success: return StepResult::done;
    case AsyncOperation::Retry:
        if (GetAuthToken()) return StepResult::again;
        setError(restStep.noTokenCode, "Unable to get auth token on retry.");
        return StepResult::failed;
    default: setStepFailure(restStep.failedCode, restStep.failedMessage); return StepResult::failed;
    }
}

bool FileUploader::retryAfterUnauthorized(veltrun::TavixErrorResponse const& error, char const* action)
{
    // Once per upload: a second 401 is the step's failure.
    if (error.code.value != kUnauthorized || m_reauthenticated) return false;
    m_reauthenticated = true;
    WORKER_LOG_DEBUG("[FileUploader] Received error code " << kUnauthorized << " while trying to " << action
                                                           << ". Trying to re-authenticate.");
    MarkAuthTokenExpired();
    m_operation.Done(AsyncOperation::Retry);
    return true;
}

void FileUploader::setStepFailure(int code, std::string const& message)
{
    if (m_malformedAnswer.empty()) return setError(code, message);
    setError(code, message + " (malformed answer: " + m_malformedAnswer + ")");
    m_malformedAnswer.clear();
}

bool FileUploader::GetAuthToken()
{
    AuthLock lock;
    if (!lockAuth(lock)) return false;
    controller::OAuthHelper& store = controller::OAuthHelper::Instance();
    controller::AuthTokenPtr token = store.GetAuthToken(m_appKey);
    if (token && std::time(nullptr) < token->GetIssued() + token->GetDuration()) {
        m_authToken = token->GetToken();
        return true;
    }

    s_tAccountURLExpire = 0;
    s_tLocatorBackoffEnd = 0;
    step = 1;
    std::string message;
    int const code = controller::AuthenticationServiceClient::AuthenticateController(m_appKey, message,
                                                                                     [this] { return cancelled(); });
    if (code != 0) {
        WORKER_LOG_ERROR("[FileUploader] Unable to acquire auth token for app key "
                         << m_appKey << ". Error code: " << code << " " << message);
        boost::mutex::scoped_lock result(m_mutex);
        errorCode = code;
        errorMessage = message;
        m_authToken = "";
        return false;
    }

    WORKER_LOG_INFO("[FileUploader] Acquired new auth token for app key " << m_appKey << ".");
    token = store.GetAuthToken(m_appKey);
    m_authToken = token ? token->GetToken() : std::string();
    long const duration = token ? token->GetDuration() : 0;
    if (detail::debugEnabled()) {
        WORKER_LOG_DEBUG("[FileUploader] Controller authenticated. Auth token: " << detail::maskToken(m_authToken)
                                                                                 << " Duration: " << duration);
    } else {
        WORKER_LOG_INFO("[FileUploader] Controller authenticated.");
    }
    return true;
}

void FileUploader::MarkAuthTokenExpired()
{
    AuthLock lock;
    if (!lockAuth(lock)) return;
    controller::AuthTokenPtr const token = controller::OAuthHelper::Instance().GetAuthToken(m_appKey);
    if (!token) {
        WORKER_LOG_WARN("[FileUploader] Unable to get auth token while trying to mark it as expired.");
        return;
    }
    // A token someone else has renewed meanwhile is left alone.
    if (token->GetToken() != m_authToken) return;
    token->Set(token->GetToken(), token->GetTokenType(), token->GetScope(), token->GetIssued(), 0);
    s_tAccountURLExpire = 0;
    s_tLocatorBackoffEnd = 0;
}

bool FileUploader::LocateAccountService()
{
    AuthLock lock;
    if (!lockAuth(lock)) return false;
    std::time_t const now = std::time(nullptr);
    WORKER_LOG_DEBUG("[FileUploader] Checking if we should get URL to Account service. time(NULL): "
                     << now << " s_tAccountURLExpire: " << s_tAccountURLExpire);
    if (now < s_tAccountURLExpire) {
        // Also during the back-off after a failed lookup: the next step then fails on the old URL.
        WORKER_LOG_DEBUG("[FileUploader] Not attempting to get URL to Account service. We won't try again for at least "
                         << (s_tAccountURLExpire - now) << " seconds.");
        return true;
    }
    WORKER_LOG_DEBUG("[FileUploader] Attempting to get URL to Account service.");

    std::string const url = detail::restLocatorUrl(controller::LocatorServiceClient::LocatorServiceUrl());
    ServiceAddress locator;
    if (!locator.parse(url)) {
        WORKER_LOG_ERROR("[FileUploader] Unable to parse URL to Locator service.");
        setError(13, "Unable to parse URL to Locator service.");
        return false;
    }

    // A request that cannot start is tried again here, unlike in the other steps.
    static RestStep const locate{2,   11, 12, "Unable to locate Account service", "locate Account service endpoint",
                                 true};
    return runRestStep(locate, [&](auto settle) {
        locator::LocationClient client(m_io, boost::bind(&FileUploader::handleLocationResponse, this, _1, _2, _3, _4),
                                       locator.host, locator.port, m_authToken, locator.tls, locator.path);
        WORKER_LOG_DEBUG("[FileUploader] Getting endpoint URL to Account service from Locator service at " << url);
        return settle(client.getLocation("ACCOUNT"));
    });
}

void FileUploader::handleLocationResponse(locator::LocationResponse response, veltrun::TavixErrorResponse error,
                                          unsigned int status, boost::system::error_code const& ec)
{
    AuthLock lock;
    if (!lockAuth(lock)) return m_operation.Done(AsyncOperation::Failed);
    auto const succeeded = [&] {
        locator::Endpoint const& endpoint = response.endpoint;
        if (endpoint.endPointURLType.value == "PROXY") {
            WORKER_LOG_ERROR("[FileUploader] Endpoint type PROXY from Locator service not supported.");
            return false;
        }
        WORKER_LOG_DEBUG("[FileUploader] " << endpoint.serviceName.value
                                           << " service endpoint: " << endpoint.endPointURL.value);
        if (endpoint.serviceName.value != "ACCOUNT") return false;

        s_strAccountURL = endpoint.endPointURL.value + "/v1/rest";
        s_tLocatorBackoffEnd = 0;
        WORKER_LOG_INFO("[FileUploader] URL of Account service (REST): " << s_strAccountURL);
        // The Account URL is trusted as long as the token it was found with.
        if (controller::AuthTokenPtr const token = controller::OAuthHelper::Instance().GetAuthToken(m_appKey)) {
            s_tAccountURLExpire = static_cast<std::int32_t>(token->GetIssued() + token->GetDuration());
            WORKER_LOG_DEBUG("[FileUploader] Account URL expire time: " << s_tAccountURLExpire);
        }
        return true;
    };
    auto const failed = [&] {
        if (ec) {
            WORKER_LOG_ERROR("[FileUploader] Unable to locate endpoint for Account service. "
                             << describeFailure(ec, error));
        } else {
            WORKER_LOG_WARN("[FileUploader] Received error code "
                            << status << " while trying to locate endpoint for Account service.");
        }
        // The lookup is not tried again for five minutes.
        s_tAccountURLExpire = static_cast<std::int32_t>(std::time(nullptr) + 300);
        s_tLocatorBackoffEnd = s_tAccountURLExpire;
    };
    answerRestStep(ec, status, error, "locate service endpoint", succeeded, failed);
}

bool FileUploader::GetStorageServiceURL()
{
    ServiceAddress account;
    {
        AuthLock lock;
        if (!lockAuth(lock)) return false;
        if (!account.parse(s_strAccountURL)) {
            WORKER_LOG_ERROR("[FileUploader] Unable to parse URL to Account service.");
            setError(23, "Unable to parse URL to Account service.");
            return false;
        }
    }

    static RestStep const currentAccount{3, 21, 22, "Unable to get URL to Storage service", "get account ID", false};
    return runRestStep(currentAccount, [&](auto settle) {
        account::AccountClient client(m_io, boost::bind(&FileUploader::handleAccountResponse, this, _1, _2, _3, _4),
                                      account.host, account.port, m_authToken, account.tls, account.path);
        return settle(client.getCurrent());
    });
}

void FileUploader::handleAccountResponse(account::AccountResponse response, veltrun::TavixErrorResponse error,
                                         unsigned int status, boost::system::error_code const& ec)
{
    auto const succeeded = [&] {
        m_storageURL = response.storageURL;
        WORKER_LOG_DEBUG("[FileUploader] URL to Storage service: " << m_storageURL);
        return true;
    };
    auto const failed = [&] {
        WORKER_LOG_ERROR("[FileUploader] Unable to get current account from Account service. "
                         << describeFailure(ec, error));
    };
    answerRestStep(ec, status, error, "get current account from Account service", succeeded, failed);
}

} // namespace tavix::restclient::storage
