/// @file
/// Uploads one local file to the Storage service on a worker thread of its own: authenticate,
/// find the Account service through the Locator, take the Storage service URL from the current
/// account, ask for a pre-signed upload URL with the file's metadata, and PUT the file there.
///
/// The caller reads the public fields while the object lives (or waits with `WaitFinished`, or
/// passes a callback); the destructor blocks until the worker is done. Step 6 with error code 0
/// means success. Error codes are grouped in tens by step: 1x locate, 2x Storage URL, 3x upload
/// URL, 4x the file and its transfer; other values are the authentication service's, a request's,
/// an errno, a libcurl code or the transfer's HTTP status. The uploader's own refusals (none of
/// them retried) are 44 an upload URL that is not http or https, 45 not a regular file, 46 a file
/// changed since its MD5 was taken, 47 settings unreadable and 48 a proxy unusable at the transfer,
/// 49 cancelled.
#pragma once

#include <restclient/AsyncOperation.h>
#include <restclient/Export.h>
#include <restclient/account/AccountClient.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/StoreClient.h>
#include <restclient/veltrun/TavixErrorResponse.h>

#include <boost/asio/io_context.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>

namespace tavix::restclient::storage {

/// Local time of `t` (seconds since the epoch) as "YYYY-MM-DDTHH:MM:SS+hh:mm": the uploader's
/// `datecreated` metadata.
RESTCLIENT_EXPORT std::string ISO8601Time(long t);

// The members stand in the order of the uploader's record, which interleaves the fields callers
// read (media location, step, error code and message) with private ones: hence the alternating
// public and private sections. The statics are references to objects never destroyed, because a
// worker may still run while the process exits.
/// @brief Uploads one file to the Storage service on a worker thread ("FileUploader_worker").
///
/// One object, one upload: the worker starts in the constructor and the object is finished for
/// good at step 6. Every REST step uses a new client object, as the one-completion rule asks.
///
/// Threads: the public fields may be read from any thread while the object lives (the atomics at
/// any time; `errorMessage` and `mediaLocation` once `step` is 6). Cancel() and WaitFinished() are
/// safe from any thread. The object must outlive the worker: the destructor joins it.
///
/// Nothing leaves the worker: an exception there ends the upload with code 1, an answer of the
/// wrong shape fails its step ("malformed answer" in the message).
///
/// @note CA bundle: the transfer (step 5, libcurl) verifies the upload host against
/// `SetCACertFile`'s bundle only. Empty (the default) falls back to the fixed controller path
/// "/etc/openvpn/ca-bundle.crt", NOT to the settings' `ca_file` (which the REST steps use). Pass
/// the settings' CA bundle explicitly (Settings::current().caFile) when that is the one.
///
/// @note After a failed upload an object with the file's name may remain in the Storage service
/// without its body: the store request of step 4 created it before the transfer failed, and
/// searches return it. See ResourceSearchClient for how to tell it (`contentLength` 0, its
/// download address 404); UploadQueue removes it before sending again.
class RESTCLIENT_EXPORT FileUploader {
public:
    /// Called once after the step has become 6: on the worker thread, or within the constructor
    /// when the file is missing or not a regular file. It must not destroy the uploader (the
    /// destructor would then detach the worker). Exceptions it throws are swallowed.
    using Finished = boost::function<void(FileUploader const&)>;

    /// Checks the file and starts the worker; no callback.
    /// @param file     the file to send; a missing one ends at once with 2, anything but a regular
    ///                 file with 45 (step 6, no thread)
    /// @param name     the stored object's name
    /// @param type     the stored object's type
    /// @param metadata the caller's entries, after the built-in ones (`buildnumber`, `_hostname`,
    ///                 `_mac`, `_commonname`, `datecreated`, `_filename`, `_md5checksum`); a key equal to
    ///                 a built-in one is dropped
    /// @param appKey   the application key whose token (controller::OAuthHelper) authenticates
    FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                 std::map<std::string, std::string> const& metadata, std::string const& appKey);
    /// The same, with `onFinished` called once at step 6 (see Finished).
    FileUploader(boost::filesystem::path const& file, std::string const& name, std::string const& type,
                 std::map<std::string, std::string> const& metadata, std::string const& appKey, Finished onFinished);
    FileUploader(FileUploader const&) = delete;
    FileUploader& operator=(FileUploader const&) = delete;
    /// Joins the worker, logging every 5 seconds while it still runs; it does not cancel (call
    /// Cancel first to end promptly): an upload's waits can last minutes.
    ~FileUploader();

    /// Asks the worker to stop: it ends within about a second at whatever it is doing (a REST
    /// wait, the token request, the MD5 pass, the transfer, the pause between attempts) with 49
    /// "Upload cancelled.", unless the upload was already complete. Any thread; returns at once.
    void Cancel();

    /// The CA bundle for the transfer; takes effect for a transfer not yet begun. Empty: the
    /// default "/etc/openvpn/ca-bundle.crt", not the settings' `ca_file` (see the class).
    void SetCACertFile(std::string const& file);
    /// The bundle the transfer will use: the one set, else the default path.
    std::string GetCACertFile() const;
    /// A transfer attempt that moves no byte for this long fails like any transfer error and is
    /// tried again (default 60 s); takes effect for a transfer not yet begun.
    void SetStallTimeout(std::chrono::seconds stall);
    /// Caps the transfer at this many bytes per second (0: no cap, the default); takes effect for
    /// a transfer not yet begun. For metered or shared links.
    void SetMaxSendSpeed(std::uint64_t bytesPerSecond);

    /// Until when (seconds since the epoch) a failed Locator lookup is not tried again by any
    /// uploader of the process; 0 when the last lookup did not fail.
    static std::time_t LocatorBackoffEnd();

    /// Blocks until the step is 6 or `timeout` has passed; true when finished.
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

    // One attempt of the transfer: true on 200; `retry` tells whether a failure is worth another.
    bool sendOnce(bool& retry);
    // The MD5 pass over the regular file, remembering its size and time for the transfer.
    bool hashFile(std::string& md5);
    bool cancelled() const { return m_cancelled; }
    // Sleeps `pause` unless cancelled meanwhile; false when cancelled.
    bool pauseUnlessCancelled(std::chrono::seconds pause);
    // Takes s_mutexAuth, giving up when the upload is cancelled meanwhile (false).
    bool lockAuth(boost::unique_lock<boost::recursive_timed_mutex>& lock) const;

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

    // The REST steps (2 to 4) share one skeleton, and their handlers one shape; what differs is
    // data (storage/detail/RestStep.h has the two helpers).
    struct RestStep {
        int number;
        int noTokenCode; // a 401, and no new token came
        int failedCode;  // the handler reported failure
        char const* failedMessage;
        char const* unableTo; // "Unable to <this>." logged when the request cannot start
        bool retryUnstarted;  // try once more when the request cannot start
    };
    // Runs `step` at most twice (again after a 401 and a new token). `start(settle)` builds the
    // step's client, starts its request and, while the client is alive, returns
    // `settle(error of the start)`, which waits for the answer; or returns StepResult::failed when
    // it could not build the request (the error set).
    enum class StepResult { done, again, failed };
    template <typename Start>
    bool runRestStep(RestStep const& step, Start start);
    // A step's answer: 200 goes to `succeeded`, whose verdict ends the step; a first 401 marks
    // the token expired and asks for the step again; anything else goes to `failed` and ends it.
    template <typename Succeeded, typename Failed>
    void answerRestStep(boost::system::error_code const& ec, unsigned int status,
                        veltrun::TavixErrorResponse const& error, char const* action, Succeeded succeeded,
                        Failed failed);
    // A started step's end: a request that could not start is logged and its error set;
    // otherwise waits for the handler: done, again after a new token, or failed with the error
    // set (`noTokenCode` when no new token came, `failedCode` otherwise).
    StepResult settleStep(RestStep const& step, boost::system::error_code const& started);
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
    /// Storage service URL + "/media", set with the upload URL. Like the error message, read it
    /// once the step is 6: the step is stored last, so everything written before is visible then.
    std::string mediaLocation;

private:
    boost::asio::io_context m_io;
    boost::shared_ptr<boost::thread> m_thread;

public:
    std::atomic<std::int32_t> step{0};      ///< 0 not begun, 1..5 the step running, 6 finished
    std::atomic<std::int32_t> errorCode{0}; ///< 0: none; the codes in the file description and README
    std::string errorMessage;               ///< the failure's text; read once the step is 6
    /// @name Progress
    /// Progress of the transfer, safe to read from any thread while it runs.
    /// @{
    std::atomic<std::int64_t> bytesSent{0};  ///< bytes of the file sent in the current attempt
    std::atomic<std::int64_t> bytesTotal{0}; ///< the file's size at the attempt's start
    /// @}
    /// @name Failure
    /// Once the step is 6 and the upload failed: the step that failed (1..5) and the HTTP status
    /// of the answer that ended it (0 when none came), for callers that sort failures.
    /// @{
    std::atomic<std::int32_t> failedStep{0}; ///< the step that failed, 1..5
    std::atomic<std::int32_t> httpStatus{0}; ///< its answer's status; 0: none came
    /// @}

private:
    bool m_reauthenticated = false;
    std::string m_malformedAnswer; // what a document handler threw, until the step reports it
    mutable boost::mutex m_mutex;  // guards the error code and message, the media location and the token on failure

    Finished m_onFinished;
    mutable boost::condition_variable m_finished;

    std::atomic<bool> m_cancelled{false};
    boost::condition_variable m_wake; // ends the pause between attempts on Cancel
    std::chrono::seconds m_stallTimeout{60};
    std::uint64_t m_maxSendSpeed = 0;
    std::int32_t m_lastStatus = 0; // the last answer's HTTP status, published as httpStatus
    // The file as the MD5 pass saw it; the transfer refuses a file that differs.
    struct Seen {
        std::int64_t size = -1; // -1: the MD5 pass could not read it
        std::int64_t mtimeNs = 0;
    } m_hashed;

    // Re-entrant: the locate step holds it while its handler and retry take it again. Timed, so
    // that a cancelled upload does not wait for another's token request.
    static boost::recursive_timed_mutex& s_mutexAuth;
    static std::string& s_strAccountURL;
    static std::int32_t s_tAccountURLExpire;
    static std::atomic<std::int64_t> s_tLocatorBackoffEnd;
};

} // namespace tavix::restclient::storage
