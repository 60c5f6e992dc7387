// How the upload queue treats a failed upload: sorted into worth another try or not, and how long
// to wait before the next try (exponential back-off with full jitter). Inline: small, and tested
// on its own.
#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace tavix::restclient::storage::detail {

enum class FailureKind { transient, permanent };

// From the uploader's error code, the step that failed and the HTTP status of the answer that
// ended it (0: none). The held file is checked separately: an unreadable one is permanent whatever
// the uploader said.
inline FailureKind sortFailure(int errorCode, int failedStep, int httpStatus)
{
    // The uploader's refusals that no later attempt can change: 44 an upload URL's scheme, 45 not
    // a regular file, 46 changed since its MD5 was taken.
    if (failedStep >= 4 && (errorCode == 44 || errorCode == 45 || errorCode == 46)) return FailureKind::permanent;
    // A refused token (401, 403), a time-out (408) and too many requests (429) pass; other 4xx
    // answers say the request itself is wrong, and sending it again would not change that.
    bool const clientError = httpStatus >= 400 && httpStatus < 500;
    bool const passing = httpStatus == 401 || httpStatus == 403 || httpStatus == 408 || httpStatus == 429;
    return clientError && !passing ? FailureKind::permanent : FailureKind::transient;
}

// A pause drawn evenly from 1 s to min(cap, base * 2^(failures - 1)); `failures` counts from 1.
// Never 0: an entry that failed is not taken again in the same breath.
inline std::chrono::seconds backoffDelay(int failures, std::chrono::seconds base, std::chrono::seconds cap,
                                         std::mt19937_64& random)
{
    long long ceiling = std::max<long long>(base.count(), 0);
    for (int i = 1; i < failures && ceiling < cap.count(); ++i) ceiling *= 2;
    ceiling = std::min<long long>(ceiling, cap.count());
    if (ceiling <= 1) return std::chrono::seconds(1);
    return std::chrono::seconds(std::uniform_int_distribution<long long>(1, ceiling)(random));
}

} // namespace tavix::restclient::storage::detail
