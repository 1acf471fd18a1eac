#include "PrometheusText.h"

#include <cmath>
#include <cstdio>

void PrometheusText::add(const std::string& name, const std::string& help, const char* type,
                         const Labels& labels, double value) {
    Family* family = nullptr;
    for (Family& f : families_) {
        if (f.name == name) family = &f;
    }
    if (family == nullptr) {
        families_.push_back(Family{name, help, type, {}});
        family = &families_.back();
    }
    std::string sample = name;
    if (!labels.empty()) {
        sample += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            if (i > 0) sample += ',';
            sample += labels[i].first + "=\"" + escapeLabelValue(labels[i].second) + '"';
        }
        sample += '}';
    }
    family->samples.push_back(sample + ' ' + formatValue(value));
}

std::string PrometheusText::text() const {
    std::string out;
    for (const Family& f : families_) {
        out += "# HELP " + f.name + ' ' + escapeHelp(f.help) + '\n';
        out += "# TYPE " + f.name + ' ' + f.type + '\n';
        for (const std::string& sample : f.samples) out += sample + '\n';
    }
    return out;
}

std::string PrometheusText::escapeLabelValue(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string PrometheusText::escapeHelp(const std::string& help) {
    std::string out;
    for (char c : help) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string PrometheusText::formatValue(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    char text[64];
    if (value == std::floor(value) && std::fabs(value) < 1e15)
        snprintf(text, sizeof text, "%.0f", value);
    else
        snprintf(text, sizeof text, "%.15g", value);
    return text;
}
