// Runs one sender of the upload benchmark and appends its peak memory and exit status to the
// sender's report ("peak_kb <n>", "exit <code>", -1 when it did not exit normally).
//
//   upload_launch <report-file> <program> [arguments...]
//
// Why a process between the benchmark and the sender: Linux charges a process that execs with
// the resident size of the memory it leaves, and a forked child starts from its parent's, so a
// sender started by the benchmark itself would report the benchmark's peak (emulator, sink and
// all) through wait4(). Started from this small program, it reports its own.
#include <cerrno>
#include <cstdio>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <report-file> <program> [arguments...]\n", argv[0]);
        return 2;
    }
    pid_t const child = fork();
    if (child < 0) return std::perror("fork"), 1;
    if (child == 0) {
        execv(argv[2], argv + 2);
        std::perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) return std::perror("wait4"), 1;
    }
    std::FILE* report = std::fopen(argv[1], "a");
    if (!report) return std::perror(argv[1]), 1;
    std::fprintf(report, "peak_kb %ld\nexit %d\n", usage.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return std::fclose(report) == 0 ? 0 : 1;
}
