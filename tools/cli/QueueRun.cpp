#include <tools/cli/Interrupt.h>
#include <tools/cli/Progress.h>
#include <tools/cli/Queue.h>

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <sys/ioctl.h>
#include <unistd.h>

namespace tavix::cli {

using namespace tavix::restclient::storage;

namespace {

// How often the transfers are redrawn and a signal or an idle queue is noticed.
constexpr std::chrono::milliseconds kPoll{200};
constexpr int kEntryBarWidth = 20;
constexpr std::size_t kTransfersShown = 3;

// What the runner's thread reports, kept for the main thread, which alone prints.
class Outcomes {
public:
    using Item = std::pair<QueueEntry, EntryOutcome>;

    void add(QueueEntry const& entry, EntryOutcome outcome)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_items.emplace_back(entry, outcome);
    }
    std::vector<Item> take()
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return std::exchange(m_items, {});
    }

private:
    std::mutex m_mutex;
    std::vector<Item> m_items;
};

// On a terminal, one line on stderr redrawn in place: a bar for each running transfer, cut to
// the terminal's width so that it never wraps. Elsewhere nothing: the outcome lines are the log.
class TransferLine {
public:
    TransferLine() : m_terminal(::isatty(STDERR_FILENO) == 1) {}

    void show(std::vector<QueueProgress> const& transfers)
    {
        if (!m_terminal) return;
        if (transfers.empty()) return clear();
        std::string text = "queue";
        for (std::size_t i = 0; i < std::min(transfers.size(), kTransfersShown); ++i) {
            QueueProgress const& t = transfers[i];
            text += fmt::format("  {} {} {:3}% {} of {}", t.id, progressBar(t.sent, t.total, kEntryBarWidth),
                                t.total > 0 ? t.sent * 100 / t.total : 0, byteSize(double(t.sent)),
                                t.total > 0 ? byteSize(double(t.total)) : "?");
        }
        if (transfers.size() > kTransfersShown) text += fmt::format("  +{} more", transfers.size() - kTransfersShown);
        winsize size{};
        if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1)
            text.resize(std::min<std::size_t>(text.size(), size.ws_col - 1));
        std::fprintf(stderr, "\r%s\x1b[K", text.c_str());
        std::fflush(stderr);
        m_shown = true;
    }

    void clear()
    {
        if (!m_shown) return;
        std::fprintf(stderr, "\r\x1b[K");
        std::fflush(stderr);
        m_shown = false;
    }

private:
    bool m_terminal;
    bool m_shown = false;
};

std::string describe(QueueEntry const& e, EntryOutcome outcome)
{
    switch (outcome) {
    case EntryOutcome::delivered: return fmt::format("delivered {} {} ({} bytes)", e.id, e.name, e.size);
    case EntryOutcome::failed:
        return fmt::format("failed {} {}: error {}: {}", e.id, e.name, e.errorCode, e.errorMessage);
    case EntryOutcome::expired: return fmt::format("expired {} {} after {} attempts", e.id, e.name, e.attempts);
    case EntryOutcome::dropped: return fmt::format("dropped {} {}", e.id, e.name);
    }
    return {};
}

} // namespace

Exit runQueue(Session& session, RunArgs const& args)
{
    // Before the queue, so that the runner, stopped with the queue, never reports to a gone list.
    Outcomes outcomes;
    std::unique_ptr<UploadQueue> queue;
    if (Exit const e = openQueue(session, queue); e != ok) return e;
    session.storeGivenToken();
    Interrupts const interrupts;
    if (auto const ec = queue->start([&outcomes](QueueEntry const& e, EntryOutcome o) { outcomes.add(e, o); })) {
        return queueFailure("queue run", ec);
    }
    TransferLine line;
    std::uint64_t delivered = 0, failed = 0;
    auto report = [&] {
        for (auto const& [entry, outcome] : outcomes.take()) {
            line.clear();
            std::cout << describe(entry, outcome) << std::endl;
            delivered += outcome == EntryOutcome::delivered;
            failed += outcome == EntryOutcome::failed;
        }
    };
    for (bool idle = false; !idle && !Interrupts::caught();) {
        if (args.follow) std::this_thread::sleep_for(kPoll);
        else idle = queue->waitIdle(kPoll);
        report();
        line.show(queue->progress());
    }
    queue->stop();
    report();
    line.clear();

    if (int const signal = Interrupts::caught()) {
        if (!args.follow) return Interrupts::exit("queue run");
        std::cerr << "restclient: queue run stopped by " << (signal == SIGINT ? "SIGINT" : "SIGTERM")
                  << "; entries not yet delivered stay queued\n";
    }
    QueueCounts const left = queue->counts();
    std::cout << fmt::format("{} delivered, {} failed for good, {} waiting for a later attempt\n", delivered, failed,
                             left.pending);
    if (failed > 0 && !args.follow) {
        return fail(uploadFailed,
                    fmt::format("queue run: entries failed for good: {} (see queue list --state failed)", failed));
    }
    return ok;
}

} // namespace tavix::cli
