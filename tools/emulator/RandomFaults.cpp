#include <tools/emulator/RandomFaults.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace tavix::emulator {
namespace {

template <class Number>
bool readNumber(std::string const& text, Number& value)
{
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool setMember(RandomFaults& faults, std::string const& name, std::string const& text, std::string& error)
{
    double* probability = name == "drop" ? &faults.drop
        : name == "stall"                ? &faults.stall
        : name == "5xx"                  ? &faults.serverError
        : name == "401"                  ? &faults.unauthorized
        : name == "expired-url"          ? &faults.expiredUrl
        : name == "drop-after-body"      ? &faults.dropAfterBody
                                         : nullptr;
    if (probability) {
        if (!readNumber(text, *probability) || !(*probability >= 0 && *probability <= 1)) {
            error = fmt::format("\"{}\" must be a probability from 0 to 1, not \"{}\"", name, text);
            return false;
        }
        return true;
    }
    if (name == "stall-ms") {
        unsigned milliseconds = 0;
        if (!readNumber(text, milliseconds)) {
            error = fmt::format("\"stall-ms\" must be a whole number of milliseconds, not \"{}\"", text);
            return false;
        }
        faults.stallMax = std::chrono::milliseconds(milliseconds);
        return true;
    }
    if (name == "spare") {
        faults.spare = text;
        return true;
    }
    if (name == "seed") {
        if (!readNumber(text, faults.seed)) {
            error = fmt::format("\"seed\" must be a whole number, not \"{}\"", text);
            return false;
        }
        return true;
    }
    error = fmt::format(
        "unknown fault \"{}\" (drop, stall, stall-ms, 5xx, 401, expired-url, drop-after-body, spare, seed)", name);
    return false;
}

} // namespace

bool parseRandomFaults(std::string const& text, RandomFaults& faults, std::string& error)
{
    RandomFaults parsed = faults;
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        std::string::size_type const equals = item.find('=');
        if (equals == std::string::npos) {
            error = fmt::format("expected name=value, not \"{}\"", item);
            return false;
        }
        if (!setMember(parsed, item.substr(0, equals), item.substr(equals + 1), error)) return false;
    }
    faults = parsed;
    return true;
}

std::string formatRandomFaults(RandomFaults const& faults)
{
    return fmt::format("drop={},stall={},stall-ms={},5xx={},401={},expired-url={},drop-after-body={},spare={},seed={}",
                       faults.drop, faults.stall, faults.stallMax.count(), faults.serverError, faults.unauthorized,
                       faults.expiredUrl, faults.dropAfterBody, faults.spare, faults.seed);
}

char const* FaultDice::name(Kind kind)
{
    static char const* const names[kindCount] = {"drop", "stall", "5xx", "401", "expired-url", "drop-after-body"};
    return names[kind];
}

FaultDice::FaultDice(RandomFaults faults) { configure(faults); }

void FaultDice::configure(RandomFaults faults)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults = faults;
    m_generator.seed(faults.seed);
    m_injected = {};
}

RandomFaults FaultDice::faults() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_faults;
}

FaultDice::Counts FaultDice::injected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_injected;
}

bool FaultDice::spares(std::vector<std::string> const& segments) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_faults.spare.empty() && std::find(segments.begin(), segments.end(), m_faults.spare) != segments.end();
}

std::optional<Fault> FaultDice::transportFault()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (rollLocked(drop, m_faults.drop)) return Fault::dropConnection();
    if (!rollLocked(stall, m_faults.stall)) return std::nullopt;
    std::uniform_int_distribution<long> pause(0, static_cast<long>(m_faults.stallMax.count()));
    return Fault::delayBy(std::chrono::milliseconds(pause(m_generator)));
}

bool FaultDice::roll(Kind kind)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    double const probability = kind == serverError ? m_faults.serverError
        : kind == unauthorized                     ? m_faults.unauthorized
        : kind == expiredUrl                       ? m_faults.expiredUrl
        : kind == dropAfterBody                    ? m_faults.dropAfterBody
                                                   : 0.0;
    return rollLocked(kind, probability);
}

bool FaultDice::rollLocked(Kind kind, double probability)
{
    // No draw at 0, so that faults that are off leave the sequence of the others as it was.
    if (probability <= 0 || std::uniform_real_distribution<double>(0, 1)(m_generator) >= probability) return false;
    ++m_injected[kind];
    return true;
}

} // namespace tavix::emulator
