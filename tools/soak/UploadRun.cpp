#include <tools/soak/UploadRun.h>

#include <restclient/storage/FileUploader.h>

#include <boost/filesystem/operations.hpp>

#include <fmt/format.h>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

namespace tavix::soak {
namespace {

using Clock = std::chrono::steady_clock;

void uploadOne(UploadPlan const& plan, int index, UploadOutcome& outcome)
{
    outcome.index = index;
    outcome.file = writeSoakFile(plan.files, plan.seed, index, plan.maxSize);
    boost::filesystem::path const path = soakFilePath(plan.files, index);
    auto uploader = std::make_unique<restclient::storage::FileUploader>(
        path, uploadName(plan.seed, index), "soak",
        std::map<std::string, std::string>{{"soakSeed", std::to_string(plan.seed)}}, plan.appKey);
    uploader->SetCACertFile(plan.caFile);
    if (!uploader->WaitFinished(plan.deadline)) {
        // Its destructor would wait for ever: left running, with its file, for the report to tell.
        outcome.hung = true;
        outcome.step = uploader.release()->step;
        return;
    }
    outcome.step = uploader->step;
    outcome.errorCode = uploader->errorCode;
    outcome.errorMessage = uploader->errorMessage;
    uploader.reset();
    boost::filesystem::remove(path);
}

} // namespace

std::string uploadName(std::uint64_t seed, int index) { return fmt::format("soak-{}-{:05}.bin", seed, index); }

void runUploads(UploadPlan const& plan, int first, int count, std::vector<UploadOutcome>& outcomes,
                std::ostream& progress)
{
    std::atomic<int> next{0};
    std::mutex mutex;
    std::condition_variable changed;
    int const threads = std::max(1, std::min(plan.threads, count));
    int active = threads, done = 0, failed = 0;
    std::exception_ptr error;

    auto work = [&] {
        for (int i; (i = next++) < count;) {
            try {
                UploadOutcome& outcome = outcomes.at(std::size_t(first + i));
                uploadOne(plan, first + i, outcome);
                std::lock_guard<std::mutex> lock(mutex);
                failed += outcome.succeeded() ? 0 : 1;
                ++done;
            } catch (...) {
                std::lock_guard<std::mutex> lock(mutex);
                if (!error) error = std::current_exception();
                next = count;
            }
        }
        std::lock_guard<std::mutex> lock(mutex);
        --active;
        changed.notify_all();
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) workers.emplace_back(work);

    auto const began = Clock::now();
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!changed.wait_for(lock, std::chrono::seconds(10), [&] { return active == 0; })) {
            double const seconds = std::chrono::duration<double>(Clock::now() - began).count();
            progress << fmt::format("  {:5.0f} s: {} of {} finished, {} failed", seconds, done, count, failed)
                     << std::endl;
        }
    }
    for (std::thread& worker : workers) worker.join();
    if (error) std::rethrow_exception(error);
}

} // namespace tavix::soak
