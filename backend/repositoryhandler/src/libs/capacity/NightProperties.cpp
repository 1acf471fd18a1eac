#include "NightProperties.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "KSException.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSStateFile.h"

namespace {
constexpr int kDaysCounted = 7;
constexpr double kNotEnoughHistory = -1.0;
}  // namespace

double NightProperties::calcVolume(KSProperties& properties, const char* today,
                                   const char* eightDaysAgo, const char* fileName) {
    if (properties.empty()) {
        puts("NO 7 present, returning -1");
        return kNotEnoughHistory;
    }
    int inRange = 0;
    double sum = 0.0;
    double smallest = 100.0;
    double secondSmallest = 100.0;
    std::vector<std::string> old;
    for (const KSProperty& entry : properties) {
        const char* key = entry.getName();
        printf("found %s\n", key);
        if (strcmp(key, eightDaysAgo) > 0 && strcmp(key, today) < 0) {
            printf("in range %s\n", key);
            double value = strtod(entry.getValue(), nullptr);
            printf("value %f\n", value);
            sum += value;
            ++inRange;
            if (value < smallest) {
                secondSmallest = smallest;
                smallest = value;
            } else if (value < secondSmallest) {
                secondSmallest = value;
            }
        } else if (strcmp(key, eightDaysAgo) <= 0) {
            printf("old %s\n", key);
            old.emplace_back(key);
        }
    }
    for (const std::string& key : old) properties.remove(key.c_str());

    double result = kNotEnoughHistory;
    if (inRange == kDaysCounted) {
        printf("Smallest: %f 2nd smallest: %f\n", smallest, secondSmallest);
        result = (sum - smallest - secondSmallest) / 5.0;
    } else {
        puts("NO 7 present, returning -1");
    }
    if (!old.empty() && fileName != nullptr) {
        if (KSStateFile::replace(fileName, properties.text()) != KSStateFile::Result::kReplaced)
            rh_logger.errorLog("Could not write night statistics %s: %s", fileName,
                               strerror(errno));
    }
    return result;
}

std::string NightProperties::statisticsFile(const std::string& mountPath) {
    const char* var = getenv("VAR");
    if (var == nullptr) return std::string();
    std::unique_ptr<char[]> id(toResourceID(mountPath.c_str(), ""));
    return std::string(var) + "/dailymoves-" + (id ? id.get() : "") + ".cfg";
}

std::string NightProperties::dateText(time_t when) {
    struct tm local;
    localtime_r(&when, &local);
    char text[32];
    snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday);
    return text;
}
