#pragma once

// The move statistics of a night-managed mount: a properties file named
// $VAR/dailymoves-<mount identity>.cfg whose keys are local dates ("YYYYMMDD") and whose
// values are the percent of the mount freed by the maintenance on that day.
//
// Stateless; every function is thread-safe apart from the properties object it is given.

#include <ctime>
#include <string>

class KSProperties;

class NightProperties {
  public:
    // The night volume: the mean of the five largest of the seven daily values dated strictly
    // between `eightDaysAgo` and `today`, or -1.0 when there are not exactly seven. Entries
    // dated `eightDaysAgo` or earlier are removed from `properties` and, when any was, the
    // properties are written to `fileName` (a null `fileName`: to no file). Prints what it reads on
    // standard output.
    static double calcVolume(KSProperties& properties, const char* today, const char* eightDaysAgo,
                             const char* fileName);
    // The statistics file of the mount at `mountPath`; empty when VAR is not set.
    static std::string statisticsFile(const std::string& mountPath);
    // `when` as a local date "YYYYMMDD".
    static std::string dateText(time_t when);
};
