#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelp {
namespace db {

// DICOM dates (DA), times (TM) and date-times (DT) as microsecond counts: a date or date-time is
// counted from 1970-01-01 00:00 on the proleptic Gregorian calendar, a time from midnight. A value
// given to a lower precision stands for the whole period it names: first and last are the first
// and the last microsecond of that period ("2024" is 2024-01-01 00:00 to 2024-12-31
// 23:59:59.999999, TM "10" is 10:00 to 10:59:59.999999).
struct DicomPeriod {
    int64_t first = 0;
    int64_t last = 0;
    // Minutes east of UTC when a date-time carries its own offset (&ZZXX).
    std::optional<int> offsetMinutes;
};

class DicomTime {
  public:
    static constexpr int64_t kMicrosPerSecond = 1000000;
    static constexpr int64_t kMicrosPerMinute = 60 * kMicrosPerSecond;
    static constexpr int64_t kMicrosPerDay = 86400 * kMicrosPerSecond;
    // The widest offsets from UTC in use: -12:00 and +14:00.
    static constexpr int kMinOffsetMinutes = -12 * 60;
    static constexpr int kMaxOffsetMinutes = 14 * 60;

    // Each parser accepts exactly the value's DICOM form and nothing around it; false for
    // anything else (wrong length, a non-digit, month 13, February 30, hour 24, offset +1500).
    // DA: YYYYMMDD.
    static bool parseDate(const std::string& text, DicomPeriod& out);
    // TM: HH[MM[SS[.F{1,6}]]].
    static bool parseTime(const std::string& text, DicomPeriod& out);
    // DT: YYYY[MM[DD[HH[MM[SS[.F{1,6}]]]]]][&ZZXX] with & a + or -.
    static bool parseDateTime(const std::string& text, DicomPeriod& out);
    // A Timezone Offset From UTC value, &ZZXX, as minutes east of UTC.
    static bool parseOffset(const std::string& text, int& minutes);

    // Days since 1970-01-01 of a Gregorian date, and back.
    static int64_t daysFromCivil(int year, unsigned month, unsigned day);
    static void civilFromDays(int64_t days, int& year, unsigned& month, unsigned& day);
    // The day of a moment (floor division) and its time of day.
    static int64_t dayOf(int64_t moment);
    static int64_t timeOfDay(int64_t moment) { return moment - dayOf(moment) * kMicrosPerDay; }
};

}  // namespace db
}  // namespace kelp
