// The uploader's sender of the upload benchmark: one `FileUploader` run, the whole chain, with
// the controller settings named by TAVIX_CONTROLLER_CONFIG.
//
//   upload_send_uploader <file> <app-key> <report-file>
//
// The report holds "chain <seconds>" (start to step 6), "before_transfer <seconds>" (start to
// step 5: the REST steps and the MD5 pass inside step 4), "transfer <seconds>" (step 5 to step
// 6), "error <code>", "shared_kb <n>" and "message <text>".
#include <bench/upload/ResidentMemory.h>
#include <restclient/storage/FileUploader.h>

#include <array>
#include <chrono>
#include <cstdio>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using tavix::restclient::storage::FileUploader;

double seconds(Clock::duration span) { return std::chrono::duration<double>(span).count(); }

// Returns once the uploader is at step 5 or beyond. The transfer opens the file right after
// entering step 5 (the MD5 pass in step 4 opened it before), so every open of the file, seen
// through `openWatch`, wakes this thread to look at the step; a slow poll covers a chain that
// ends early. Polling alone, fine enough to place step 5, slows the MD5 pass it waits through.
void waitForTransfer(FileUploader const& uploader, int openWatch)
{
    std::array<char, 4096> events;
    while (uploader.step < 5) {
        pollfd ready{openWatch, POLLIN, 0};
        if (poll(&ready, 1, 10) > 0 && read(openWatch, events.data(), events.size()) < 0) return;
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <file> <app-key> <report-file>\n", argv[0]);
        return 2;
    }
    boost::filesystem::path const file(argv[1]);
    int const openWatch = inotify_init1(IN_CLOEXEC);
    if (openWatch < 0 || inotify_add_watch(openWatch, argv[1], IN_OPEN) < 0) {
        std::perror("inotify");
        return 1;
    }
    auto const start = Clock::now();
    FileUploader uploader(file, "upload-bench/" + file.filename().string(), "project", {}, argv[2]);
    waitForTransfer(uploader, openWatch);
    auto const transferStart = Clock::now();
    uploader.WaitFinished(std::chrono::hours(24));
    auto const end = Clock::now();

    std::FILE* report = std::fopen(argv[3], "w");
    if (!report) {
        std::perror(argv[3]);
        return 1;
    }
    std::fprintf(report, "chain %.6f\nbefore_transfer %.6f\ntransfer %.6f\nerror %d\nshared_kb %ld\nmessage %s\n",
                 seconds(end - start), seconds(transferStart - start), seconds(end - transferStart),
                 static_cast<int>(uploader.errorCode), tavix::bench::sharedResidentKb(), uploader.errorMessage.c_str());
    std::fclose(report);
    return uploader.errorCode == 0 ? 0 : 1;
}
