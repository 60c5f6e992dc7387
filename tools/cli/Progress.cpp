#include <tools/cli/Progress.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace tavix::cli {

namespace {

constexpr std::chrono::milliseconds kRedraw{200};
constexpr int kBarWidth = 30;

std::string duration(double seconds)
{
    auto const s = static_cast<long long>(seconds + 0.5);
    if (s < 60) return fmt::format("{}s", s);
    if (s < 3600) return fmt::format("{}m{:02}s", s / 60, s % 60);
    return fmt::format("{}h{:02}m", s / 3600, s % 3600 / 60);
}

} // namespace

std::string byteSize(double bytes)
{
    char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    for (; bytes >= 1024 && unit < 4; ++unit) bytes /= 1024;
    return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string progressBar(std::int64_t done, std::int64_t total, int width)
{
    int const filled = total > 0 ? static_cast<int>(std::clamp<std::int64_t>(done * width / total, 0, width)) : 0;
    return "[" + std::string(filled, '#') + std::string(width - filled, '-') + "]";
}

Progress::Progress(std::string label, std::chrono::milliseconds lineInterval)
    : m_label(std::move(label)), m_terminal(::isatty(STDERR_FILENO) == 1), m_lineInterval(lineInterval),
      m_lastShown(m_begin)
{}

std::chrono::milliseconds Progress::pollInterval() const
{
    return m_terminal ? kRedraw : std::clamp(m_lineInterval, std::chrono::milliseconds(10), kRedraw);
}

void Progress::update(std::int64_t done, std::int64_t total, std::string const& stage)
{
    auto const now = Clock::now();
    if ((done > 0 || total > 0) && !m_started) m_started = true, m_firstByte = now;
    if (now - m_lastShown < (m_terminal ? kRedraw : m_lineInterval)) return;
    m_lastShown = now;
    std::string const text = describe(done, total, stage, false);
    std::fprintf(stderr, m_terminal ? "\r%s\x1b[K" : "%s\n", text.c_str());
    std::fflush(stderr);
}

void Progress::finish(std::int64_t done, std::int64_t total)
{
    if (!m_started) m_started = true, m_firstByte = m_begin;
    std::string const text = describe(done, total, {}, true);
    std::fprintf(stderr, m_terminal ? "\r%s\x1b[K\n" : "%s\n", text.c_str());
    std::fflush(stderr);
}

std::string Progress::describe(std::int64_t done, std::int64_t total, std::string const& stage, bool final)
{
    if (done == 0 && total <= 0 && !final) return m_label + ": " + (stage.empty() ? "starting" : stage);

    double const seconds = std::chrono::duration<double>(Clock::now() - (m_started ? m_firstByte : m_begin)).count();
    double const rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    std::string text = m_label + (m_terminal ? " " + progressBar(done, total, kBarWidth) : ":");
    if (total > 0) text += fmt::format(" {:3}%", done * 100 / total);
    text += m_terminal ? fmt::format(" {} of {}", byteSize(done), total > 0 ? byteSize(total) : "?")
                       : fmt::format(" {} of {} bytes", done, total > 0 ? std::to_string(total) : "?");
    if (final) return text + ", " + byteSize(rate) + "/s, done in " + duration(seconds);
    if (done == 0 || seconds < 0.5) return text; // no rate worth telling yet
    text += ", " + byteSize(rate) + "/s";
    if (total > 0 && rate > 0) text += ", " + duration(static_cast<double>(total - done) / rate) + " left";
    return text;
}

} // namespace tavix::cli
