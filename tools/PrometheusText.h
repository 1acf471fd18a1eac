#pragma once

#include <string>
#include <utility>
#include <vector>

// A page of metrics in the Prometheus text exposition format (version 0.0.4), as a node
// exporter's textfile collector reads it: each metric family once, with its "# HELP" and
// "# TYPE" lines followed by all its samples, whichever order they were added in.
//
//   PrometheusText page;
//   page.add("repohandler_mount_used_percent", "Used share of the mount, percent.", "gauge",
//            {{"repository", "/data/repo"}, {"mount", "/data/repo/p1"}}, 61.5);
//   std::string text = page.text();
//
// Label values are escaped as the format requires (backslash, double quote, line feed); HELP
// texts escape backslash and line feed. Names must be valid metric and label names: they come
// from the program, not from data. Not thread-safe; one owner.
class PrometheusText {
  public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    // Adds one sample. The help text and type of a family are those of its first sample.
    void add(const std::string& name, const std::string& help, const char* type,
             const Labels& labels, double value);

    std::string text() const;

    static std::string escapeLabelValue(const std::string& value);
    static std::string escapeHelp(const std::string& help);
    // A sample value: integers without a fraction, others with up to 15 significant digits,
    // "NaN", "+Inf", "-Inf".
    static std::string formatValue(double value);

  private:
    struct Family {
        std::string name, help, type;
        std::vector<std::string> samples;
    };
    std::vector<Family> families_;
};
