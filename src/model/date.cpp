#include <array>
#include <cstdint>
#include <cstdio>

#include "palomir/model.hpp"

namespace palomir {
namespace {

using namespace std::chrono;

// Calendar arithmetic of the proleptic Gregorian calendar (H. Hinnant's
// algorithms), so that neither the C library's time zone nor its locale can
// take part.
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

constexpr Civil civilFromDays(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2 ? 1 : 0), m, d};
}

constexpr bool isLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

constexpr unsigned daysInMonth(std::int64_t y, unsigned m) {
    constexpr std::array<unsigned, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : days[m - 1];
}

// Reads `count` decimal digits at `pos`; false when any is not a digit.
bool digits(std::string_view text, std::size_t pos, std::size_t count, unsigned& out) {
    unsigned value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    out = value;
    return true;
}

}  // namespace

std::optional<Date> PlRFC3339Formatter::parse(std::string_view text) const {
    // yyyy-MM-ddTHH:mm:ss.SSS then Z (24 characters) or ±hh:mm (29).
    if (text.size() != 24 && text.size() != 29) return std::nullopt;
    if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':' ||
        text[19] != '.')
        return std::nullopt;
    unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millis = 0;
    if (!digits(text, 0, 4, year) || !digits(text, 5, 2, month) || !digits(text, 8, 2, day) ||
        !digits(text, 11, 2, hour) || !digits(text, 14, 2, minute) || !digits(text, 17, 2, second) ||
        !digits(text, 20, 3, millis))
        return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 ||
        second > 59)
        return std::nullopt;

    std::int64_t offsetMinutes = 0;
    if (text.size() == 24) {
        if (text[23] != 'Z') return std::nullopt;
    } else {
        const char sign = text[23];
        unsigned offHour = 0, offMinute = 0;
        if ((sign != '+' && sign != '-') || text[26] != ':' || !digits(text, 24, 2, offHour) ||
            !digits(text, 27, 2, offMinute) || offHour > 23 || offMinute > 59)
            return std::nullopt;
        offsetMinutes = (sign == '+' ? 1 : -1) * static_cast<std::int64_t>(offHour * 60 + offMinute);
    }

    const std::int64_t days = daysFromCivil(year, month, day);
    const std::int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second - offsetMinutes * 60;
    // An offset can carry a date at either end of the four-digit years past
    // them in UTC, where the form could not write it again: refused.
    static constexpr std::int64_t kFirst = daysFromCivil(0, 1, 1) * 86400;
    static constexpr std::int64_t kEnd = daysFromCivil(10000, 1, 1) * 86400;
    if (seconds < kFirst || seconds >= kEnd) return std::nullopt;
    return Date(milliseconds(seconds * 1000 + millis));
}

std::string PlRFC3339Formatter::format(Date date) const {
    const std::int64_t ms = date.time_since_epoch().count();
    const std::int64_t days = ms >= 0 ? ms / 86400000 : -((-ms + 86399999) / 86400000);
    const std::int64_t msOfDay = ms - days * 86400000;
    const Civil civil = civilFromDays(days);
    const auto secondsOfDay = static_cast<unsigned>(msOfDay / 1000);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02u:%02u:%02u.%03uZ",
                  static_cast<long long>(civil.year), civil.month, civil.day, secondsOfDay / 3600,
                  secondsOfDay / 60 % 60, secondsOfDay % 60, static_cast<unsigned>(msOfDay % 1000));
    return buffer;
}

std::optional<Date> plRFC3339Parse(std::string_view text) { return plRFC3339.parse(text); }

std::string plRFC3339Format(Date date) { return plRFC3339.format(date); }

}  // namespace palomir
