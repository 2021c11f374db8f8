#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "palomir/logging.hpp"

namespace palomir {

/// Renders "yyyy-MM-dd HH:mm:ss" in local time followed by the zone in the
/// long localized GMT form ("GMT+02:00", "GMT" for a zero offset).
/// Returns the number of characters written; `out` must hold kStampCapacity.
inline constexpr std::size_t kStampCapacity = 64;
std::size_t renderLogStamp(std::time_t second, char* out);

/// The stamp text changes once a second, so it is rendered once per second and
/// shared by every thread through a sequence lock: readers never block and
/// never write, and a writer that loses the race simply renders for itself.
struct PalomirLogFormatter::Clock {
    /// Writes the stamp for the current moment into `out` (kStampCapacity bytes).
    std::size_t stamp(char* out);

private:
    static constexpr std::size_t kWords = 4;
    static constexpr std::size_t kCachedMax = kWords * sizeof(std::uint64_t) - 1;  // last byte holds the length

    std::atomic<std::uint64_t> _sequence{0};
    std::atomic<std::int64_t> _second{INT64_MIN};
    std::atomic<std::uint64_t> _words[kWords] = {};
};

}  // namespace palomir
