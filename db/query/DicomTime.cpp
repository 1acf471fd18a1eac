#include "DicomTime.h"

#include <cctype>

namespace kelp {
namespace db {

namespace {

bool allDigits(const std::string& text, size_t from, size_t count) {
    if (from + count > text.size()) return false;
    for (size_t i = from; i < from + count; ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    return true;
}

int number(const std::string& text, size_t from, size_t count) {
    int value = 0;
    for (size_t i = from; i < from + count; ++i) value = value * 10 + (text[i] - '0');
    return value;
}

bool leapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leapYear(year) ? 29 : kDays[month - 1];
}

// The time-of-day part HH[MM[SS[.F{1,6}]]] starting at from and running to the end of text,
// as the first and last microsecond of the period it names.
bool parseClock(const std::string& text, size_t from, int64_t& first, int64_t& last) {
    const size_t n = text.size() - from;
    if (n != 2 && n != 4 && n < 6) return false;
    if (!allDigits(text, from, n < 6 ? n : 6)) return false;
    int hour = number(text, from, 2);
    int minute = n >= 4 ? number(text, from + 2, 2) : 0;
    int second = n >= 6 ? number(text, from + 4, 2) : 0;
    if (hour > 23 || minute > 59 || second > 59) return false;
    int64_t span;  // length of the named period, in microseconds
    int64_t micros = 0;
    if (n == 2) {
        span = 3600 * DicomTime::kMicrosPerSecond;
    } else if (n == 4) {
        span = DicomTime::kMicrosPerMinute;
    } else if (n == 6) {
        span = DicomTime::kMicrosPerSecond;
    } else {
        size_t digits = n - 7;
        if (text[from + 6] != '.' || digits < 1 || digits > 6) return false;
        if (!allDigits(text, from + 7, digits)) return false;
        micros = number(text, from + 7, digits);
        span = 1;
        for (size_t i = digits; i < 6; ++i) {
            micros *= 10;
            span *= 10;
        }
    }
    first = ((hour * 60 + minute) * 60 + second) * DicomTime::kMicrosPerSecond + micros;
    last = first + span - 1;
    return true;
}

}  // namespace

int64_t DicomTime::daysFromCivil(int year, unsigned month, unsigned day) {
    const int y = year - (month <= 2 ? 1 : 0);
    const int era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return static_cast<int64_t>(era) * 146097 + static_cast<int64_t>(doe) - 719468;
}

void DicomTime::civilFromDays(int64_t days, int& year, unsigned& month, unsigned& day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = static_cast<int>(yoe + era * 400) + (month <= 2 ? 1 : 0);
}

int64_t DicomTime::dayOf(int64_t moment) {
    int64_t day = moment / kMicrosPerDay;
    if (moment % kMicrosPerDay < 0) --day;
    return day;
}

bool DicomTime::parseDate(const std::string& text, DicomPeriod& out) {
    if (text.size() != 8 || !allDigits(text, 0, 8)) return false;
    int year = number(text, 0, 4), month = number(text, 4, 2), day = number(text, 6, 2);
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return false;
    out.first = daysFromCivil(year, month, day) * kMicrosPerDay;
    out.last = out.first + kMicrosPerDay - 1;
    out.offsetMinutes.reset();
    return true;
}

bool DicomTime::parseTime(const std::string& text, DicomPeriod& out) {
    out.offsetMinutes.reset();
    return parseClock(text, 0, out.first, out.last);
}

bool DicomTime::parseOffset(const std::string& text, int& minutes) {
    if (text.size() != 5 || (text[0] != '+' && text[0] != '-') || !allDigits(text, 1, 4))
        return false;
    int hours = number(text, 1, 2), mins = number(text, 3, 2);
    if (mins > 59) return false;
    minutes = (text[0] == '-' ? -1 : 1) * (hours * 60 + mins);
    return minutes >= kMinOffsetMinutes && minutes <= kMaxOffsetMinutes;
}

bool DicomTime::parseDateTime(const std::string& text, DicomPeriod& out) {
    std::string body = text;
    out.offsetMinutes.reset();
    if (body.size() >= 5) {
        char sign = body[body.size() - 5];
        if (sign == '+' || sign == '-') {
            int minutes;
            if (!parseOffset(body.substr(body.size() - 5), minutes)) return false;
            out.offsetMinutes = minutes;
            body.resize(body.size() - 5);
        }
    }
    const size_t n = body.size();
    if (n != 4 && n != 6 && n < 8) return false;
    if (!allDigits(body, 0, n < 8 ? n : 8)) return false;
    int year = number(body, 0, 4);
    int month = n >= 6 ? number(body, 4, 2) : 1;
    int day = n >= 8 ? number(body, 6, 2) : 1;
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return false;
    int64_t start = daysFromCivil(year, month, day) * kMicrosPerDay;
    if (n == 4) {
        out.first = start;
        out.last = daysFromCivil(year + 1, 1, 1) * kMicrosPerDay - 1;
    } else if (n == 6) {
        out.first = start;
        int nextYear = month == 12 ? year + 1 : year;
        unsigned nextMonth = month == 12 ? 1 : month + 1;
        out.last = daysFromCivil(nextYear, nextMonth, 1) * kMicrosPerDay - 1;
    } else if (n == 8) {
        out.first = start;
        out.last = start + kMicrosPerDay - 1;
    } else {
        int64_t first, last;
        if (!parseClock(body, 8, first, last)) return false;
        out.first = start + first;
        out.last = start + last;
    }
    return true;
}

}  // namespace db
}  // namespace kelp
