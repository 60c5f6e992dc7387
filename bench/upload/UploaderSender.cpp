// The uploader's sender of the upload benchmark: one `FileUploader` run, the whole chain, with
// the controller settings named by TAVIX_CONTROLLER_CONFIG.
//
//   upload_send_uploader <file> <app-key> <report-file>
//
// The report holds "chain <seconds>" (start to step 6), "before_transfer <seconds>" (start to
// step 5: the REST steps and the MD5 pass inside step 4), "transfer <seconds>" (step 5 to step
// 6), "error <code>", "bytes <sent>", "shared_kb <n>" and "message <text>".
#include <bench/upload/ResidentMemory.h>
#include <restclient/storage/FileUploader.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::duration span) { return std::chrono::duration<double>(span).count(); }

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <file> <app-key> <report-file>\n", argv[0]);
        return 2;
    }
    boost::filesystem::path const file(argv[1]);
    auto const start = Clock::now();
    tavix::restclient::storage::FileUploader uploader(file, "upload-bench/" + file.filename().string(), "project",
                                                      {}, argv[2]);
    // Short sleeps: fine enough to place step 5, too sparse to take a core from the worker.
    while (uploader.step < 5) std::this_thread::sleep_for(std::chrono::microseconds(100));
    auto const transferStart = Clock::now();
    uploader.WaitFinished(std::chrono::hours(24));
    auto const end = Clock::now();

    std::FILE* report = std::fopen(argv[3], "w");
    if (!report) {
        std::perror(argv[3]);
        return 1;
    }
    std::fprintf(report,
                 "chain %.6f\nbefore_transfer %.6f\ntransfer %.6f\nerror %d\nbytes %lld\nshared_kb %ld\nmessage %s\n",
                 seconds(end - start), seconds(transferStart - start), seconds(end - transferStart),
                 static_cast<int>(uploader.errorCode), static_cast<long long>(uploader.bytesSent.load()),
                 tavix::bench::sharedResidentKb(), uploader.errorMessage.c_str());
    std::fclose(report);
    return uploader.errorCode == 0 ? 0 : 1;
}
