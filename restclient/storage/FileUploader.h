// Uploads one local file to the Storage service on a worker thread of its own: authenticate,
// find the Account service through the Locator, take the Storage service URL from the current
// account, ask for a pre-signed upload URL with the file's metadata, and PUT the file there.
//
// The caller reads the public fields while the object lives (or waits with `WaitFinished`, or
// passes a callback); the destructor blocks until the worker is done. Step 6 with error code 0
// means success. Error codes are grouped in tens by step: 1x locate, 2x Storage URL, 3x upload
// URL, 4x transfer; other values are the authentication service's, a request's, an errno or a
// libcurl code.
#pragma once

#include <restclient/AsyncOperation.h>
#include <restclient/Export.h>
#include <restclient/account/AccountClient.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/StoreClient.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>

namespace tavix::restclient::storage {

// Local time of `t` as "YYYY-MM-DDTHH:MM:SS+hh:mm".
RESTCLIENT_EXPORT std::string ISO8601Time(long t);

class RESTCLIENT_EXPORT FileUploader {
public:
    // Called once after the step has become 6: on the worker thread, or within the constructor
    // when the file is missing. It must not destroy the uploader. Exceptions it throws are
    // swallowed.
    using Finished = std::function<void(FileUploader const&)>;

    FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                 std::map<std::string, std::string> const& metadata, std::string const& appKey);
    FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                 std::map<std::string, std::string> const& metadata, std::string const& appKey,
                 Finished onFinished);
    FileUploader(FileUploader const&) = delete;
    FileUploader& operator=(FileUploader const&) = delete;
    // Joins the worker, logging every 5 seconds while it still runs; there is no cancellation.
    ~FileUploader();

    // The CA bundle for the transfer; takes effect for a transfer not yet begun. Empty: the
    // default "/etc/openvpn/ca-bundle.crt".
    void SetCACertFile(std::string const& file);
    std::string GetCACertFile() const;

    // Blocks until the step is 6 or `timeout` has passed; true when finished.
    bool WaitFinished(std::chrono::milliseconds timeout) const;

private:
    void WorkerThread();
    void notifyFinished();

    bool GetAuthToken();
    bool LocateAccountService();
    bool GetStorageServiceURL();
    bool GetUploadURL();
    bool UploadFile();
    void MarkAuthTokenExpired();

    void handleLocationResponse(locator::LocationResponse response, veltrun::TavixErrorResponse error,
                                unsigned int status, boost::system::error_code const& ec);
    void handleAccountResponse(account::AccountResponse response, veltrun::TavixErrorResponse error,
                               unsigned int status, boost::system::error_code const& ec);
    void handleGetStorageUploadURLResponse(StoreResponse response, veltrun::TavixErrorResponse error,
                                           unsigned int status, boost::system::error_code const& ec);

    static int curl_progress_callback(void* data, std::int64_t downloadTotal, std::int64_t downloaded,
                                      std::int64_t uploadTotal, std::int64_t uploaded);
    void setError(int code, std::string const& message);
    // The step's failure; its message says so when the answer was malformed.
    void setStepFailure(int code, std::string const& message);
    AsyncOperation::Result waitForReply();
    // Waits for a REST step's handler: done, again after a new token, or failed with the error
    // set (`retryFailedCode` when no new token came, `failedCode` otherwise).
    enum class StepResult { done, again, failed };
    StepResult awaitStep(int retryFailedCode, int failedCode, char const* failedMessage);
    // A handler's 401 path: marks the token expired and asks for a retry, once per upload.
    bool retryAfterUnauthorized(veltrun::TavixErrorResponse const& error, char const* action);

    boost::filesystem::path m_path;
    std::string m_name;
    std::string m_type;
    std::map<std::string, std::string> m_metadata;
    std::string m_appKey;
    std::string m_caCertFile;
    AsyncOperation m_operation;
    std::string m_authToken;
    std::string m_storageURL;
    std::string m_uploadURL;

public:
    // Storage service URL + "/media", set with the upload URL. Like the error message, read it
    // once the step is 6: the step is stored last, so everything written before is visible then.
    std::string mediaLocation;

private:
    boost::asio::io_context m_io;
    boost::shared_ptr<boost::thread> m_thread;

public:
    std::atomic<std::int32_t> step{0};       // 0 not begun, 1..5 the step running, 6 finished
    std::atomic<std::int32_t> errorCode{0};  // 0: none
    std::string errorMessage;
    // Progress of the transfer, safe to read from any thread while it runs.
    std::atomic<std::int64_t> bytesSent{0};
    std::atomic<std::int64_t> bytesTotal{0};

private:
    bool m_reauthenticated = false;
    std::string m_malformedAnswer;  // what a document handler threw, until the step reports it
    mutable boost::mutex m_mutex;  // guards the error code and message, the media location and the token on failure

    Finished m_onFinished;
    mutable boost::condition_variable m_finished;

    // Re-entrant: the locate step holds it while its handler and retry take it again.
    static boost::recursive_mutex& s_mutexAuth;
    static std::string& s_strAccountURL;
    static std::int32_t s_tAccountURLExpire;
};

} // namespace tavix::restclient::storage
