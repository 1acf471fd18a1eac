// repoctl metrics on real tmpfs mounts: the page is checked line by line against the Prometheus
// text exposition format by a reader written here, independently of the tool, and the values
// against the state the test made.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "KSPathUtils.h"
#include "RepoctlLastRun.h"
#include "RepoctlRun.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

using Env = std::vector<std::pair<std::string, std::string>>;

struct Sample {
    std::string name;
    std::map<std::string, std::string> labels;
    double value = 0;
};

// Reads label pairs `name="value",...` up to the closing brace; values unescaped. False on any
// deviation from the format.
bool readLabels(const std::string& text, size_t& i, std::map<std::string, std::string>& labels) {
    static const std::regex labelName("[a-zA-Z_][a-zA-Z0-9_]*");
    while (i < text.size() && text[i] != '}') {
        const size_t equals = text.find('=', i);
        if (equals == std::string::npos) return false;
        const std::string name = text.substr(i, equals - i);
        if (!std::regex_match(name, labelName) || labels.count(name)) return false;
        i = equals + 1;
        if (i >= text.size() || text[i] != '"') return false;
        std::string value;
        for (++i; i < text.size() && text[i] != '"'; ++i) {
            if (text[i] == '\n') return false;
            if (text[i] != '\\') {
                value += text[i];
                continue;
            }
            if (++i >= text.size()) return false;
            if (text[i] == 'n')
                value += '\n';
            else if (text[i] == '\\' || text[i] == '"')
                value += text[i];
            else
                return false;
        }
        if (i >= text.size()) return false;
        labels[name] = value;
        ++i;
        if (i < text.size() && text[i] == ',') ++i;
    }
    if (i >= text.size()) return false;
    ++i;
    return true;
}

bool readValue(const std::string& text, double& value) {
    if (text == "NaN") return value = NAN, true;
    if (text == "+Inf") return value = INFINITY, true;
    if (text == "-Inf") return value = -INFINITY, true;
    char* end = nullptr;
    value = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && text.find_first_of("xXpP") == std::string::npos;
}

// Parses a whole page; every deviation from the format is added to `errors` with its line.
std::vector<Sample> parseExposition(const std::string& page, std::vector<std::string>& errors) {
    static const std::regex metricName("[a-zA-Z_:][a-zA-Z0-9_:]*");
    std::vector<Sample> samples;
    std::set<std::string> closedFamilies, seenSeries;
    std::string family, familyType;
    bool helped = false;
    if (!page.empty() && page.back() != '\n') errors.push_back("no line feed at the end");
    std::istringstream lines(page);
    std::string line;
    int number = 0;
    const auto fail = [&](const std::string& why) {
        errors.push_back("line " + std::to_string(number) + ": " + why + ": " + line);
    };
    const auto open = [&](const std::string& name) {
        if (name == family) return true;
        if (closedFamilies.count(name)) return false;
        if (!family.empty()) closedFamilies.insert(family);
        family = name, familyType.clear(), helped = false;
        return true;
    };
    while (std::getline(lines, line)) {
        ++number;
        if (line.rfind("# HELP ", 0) == 0 || line.rfind("# TYPE ", 0) == 0) {
            const bool help = line[2] == 'H';
            const size_t space = line.find(' ', 7);
            const std::string name = line.substr(7, space - 7);
            if (space == std::string::npos || !std::regex_match(name, metricName))
                fail("bad metric name");
            if (!open(name)) fail("family split");
            if (help) {
                if (helped || !familyType.empty()) fail("HELP twice or after TYPE");
                helped = true;
                const std::string text = line.substr(space + 1);
                for (size_t k = 0; k < text.size(); ++k)
                    if (text[k] == '\\' &&
                        (k + 1 >= text.size() || (text[k + 1] != '\\' && text[k + 1] != 'n')))
                        fail("bad escape in HELP");
            } else {
                const std::string type = line.substr(space + 1);
                if (!familyType.empty()) fail("TYPE twice");
                if (type != "gauge" && type != "counter" && type != "untyped" &&
                    type != "summary" && type != "histogram")
                    fail("unknown type");
                familyType = type;
            }
            continue;
        }
        if (line.empty() || line[0] == '#') {
            fail("blank or comment line");
            continue;
        }
        Sample s;
        size_t i = line.find_first_of("{ ");
        s.name = line.substr(0, i);
        if (!std::regex_match(s.name, metricName)) fail("bad sample name");
        if (s.name != family || familyType.empty()) fail("sample outside its family or untyped");
        if (i != std::string::npos && line[i] == '{') {
            ++i;
            if (!readLabels(line, i, s.labels)) {
                fail("bad labels");
                continue;
            }
        }
        if (i >= line.size() || line[i] != ' ') {
            fail("no value");
            continue;
        }
        std::string value = line.substr(i + 1);
        if (value.find(' ') != std::string::npos) fail("time stamps are not expected");
        if (!readValue(value, s.value)) fail("bad value");
        std::string series = s.name;
        for (const auto& [k, v] : s.labels) series += "|" + k + "=" + v;
        if (!seenSeries.insert(series).second) fail("series twice");
        samples.push_back(s);
    }
    return samples;
}

// The one sample of `name` whose labels include all of `labels`; NaN when there is none.
double valueOf(const std::vector<Sample>& samples, const std::string& name,
               const std::map<std::string, std::string>& labels) {
    const Sample* found = nullptr;
    for (const Sample& s : samples) {
        if (s.name != name) continue;
        bool all = true;
        for (const auto& [k, v] : labels) all = all && s.labels.count(k) && s.labels.at(k) == v;
        if (!all) continue;
        EXPECT_EQ(found, nullptr) << "two samples of " << name;
        found = &s;
    }
    return found ? found->value : NAN;
}

void age(const std::string& file, long seconds) {
    const struct timeval t[2] = {{time(nullptr) - seconds, 0}, {time(nullptr) - seconds, 0}};
    ASSERT_EQ(utimes(file.c_str(), t), 0) << file;
}

std::string lockFileOf(const std::string& locks, const std::string& scope, const char* name) {
    std::unique_ptr<char[]> id(toResourceID(scope.c_str(), name));
    return locks + "/semaphore_" + id.get();
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

TEST(RepoctlMetrics, pageFollowsTheExpositionFormatAndCarriesTheRepositorysState) {
    RH_REQUIRE_MOUNTS();
    TempTree state;
    const std::string locks = state.mkdir("locks"), var = state.mkdir("var");
    const Env env = {{"LOCK_VAR", locks}, {"VAR", var}};
    ScratchRepository repo;
    repo.addTmpfsMount("p1", 100 * TmpfsMount::kBlockSize, 1000);
    repo.addTmpfsMount("p2", 100 * TmpfsMount::kBlockSize, 1000, {{"cleanLimit", "97.5"}});
    repo.addMount("gone");
    repo.tmpfs(0)->fillBlocksTo(60);
    repo.tmpfs(1)->fillBlocksTo(97);
    repo.writeConfig({{"isShared", "false"}});
    ASSERT_EQ(unlink((repo.mountPath(2) + "/repositorypart.cfg").c_str()), 0);
    // The repository is named through a link whose name needs every escape of a label value.
    const std::string named = state.path("we\"ird\\repo\nx");
    ASSERT_EQ(symlink(repo.path().c_str(), named.c_str()), 0);

    for (const char* name : {"d1", "d2"}) {
        ASSERT_EQ(runRepoctl({"dirty", named, "set", name}, env).code, 0);
    }
    ASSERT_EQ(runRepoctl({"lock", named, "s1"}, env).code, 0);
    ASSERT_EQ(runRepoctl({"lock", named, "s2"}, env).code, 0);
    age(lockFileOf(locks, named, "s1"), 7200);
    // Another repository's lock is not this one's.
    std::ofstream(lockFileOf(locks, repo.path() + "x", "s1")).close();
    age(lockFileOf(locks, repo.path() + "x", "s1"), 99999);
    // The record as the maintenance commands leave it.
    RepoctlLastRun last;
    last.command = "check-overload";
    last.night = true;
    last.started = 1700000000;
    last.seconds = 12.5;
    last.checked = 40, last.moved = 7, last.deleted = 3, last.bytes = 123456789;
    last.stopped = true;
    {
        ScopedEnv varEnv("VAR", var.c_str());
        ASSERT_TRUE(last.record(named));
    }

    const RepoctlRun run = runRepoctl({"metrics", named, "/nonexistent/repo"}, env);
    EXPECT_EQ(run.code, 1) << run.err;  // the missing repository
    std::vector<std::string> errors;
    const std::vector<Sample> samples = parseExposition(run.out, errors);
    EXPECT_TRUE(errors.empty()) << ::testing::PrintToString(errors) << "\n" << run.out;
    for (const Sample& s : samples) EXPECT_EQ(s.name.rfind("repohandler_", 0), 0u) << s.name;

    const std::map<std::string, std::string> r = {{"repository", named}};
    const auto mount = [&](int i) {
        return std::map<std::string, std::string>{{"repository", named},
                                                  {"mount", named + "/" + (i == 0 ? "p1" : "p2")}};
    };
    EXPECT_EQ(valueOf(samples, "repohandler_repository_usable", r), 1);
    EXPECT_EQ(
        valueOf(samples, "repohandler_repository_usable", {{"repository", "/nonexistent/repo"}}),
        0);
    EXPECT_NEAR(valueOf(samples, "repohandler_mount_used_percent", mount(0)), 60, 0.01);
    EXPECT_NEAR(valueOf(samples, "repohandler_mount_used_percent", mount(1)), 97, 0.01);
    EXPECT_EQ(valueOf(samples, "repohandler_mount_status", mount(1)), 0x03f);
    auto withKey = [](std::map<std::string, std::string> m, const char* k, const char* v) {
        m[k] = v;
        return m;
    };
    EXPECT_EQ(valueOf(samples, "repohandler_mount_status_bit", withKey(mount(1), "bit", "full")),
              1);
    EXPECT_EQ(valueOf(samples, "repohandler_mount_status_bit", withKey(mount(1), "bit", "clean")),
              0);
    EXPECT_EQ(
        valueOf(samples, "repohandler_mount_limit_percent", withKey(mount(1), "limit", "clean")),
        97.5);
    EXPECT_EQ(
        valueOf(samples, "repohandler_repository_status_bit", withKey(r, "bit", "incomplete")), 1);
    EXPECT_EQ(valueOf(samples, "repohandler_repository_status", r),
              0x080);  // p1 is below every limit
    EXPECT_EQ(valueOf(samples, "repohandler_mounts", r), 3);
    EXPECT_EQ(valueOf(samples, "repohandler_dirty_resources", r), 2);
    EXPECT_EQ(valueOf(samples, "repohandler_lock_files", r), 2);
    EXPECT_NEAR(valueOf(samples, "repohandler_oldest_lock_age_seconds", r), 7200, 60);
    EXPECT_TRUE(std::isnan(valueOf(samples, "repohandler_lock_rows", r)));  // not shared
    const auto run1 = withKey(r, "command", "check-overload");
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_timestamp_seconds", run1), 1700000000);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_duration_seconds", run1), 12.5);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_moved_resources", run1), 7);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_deleted_resources", run1), 3);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_bytes", run1), 123456789);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_stopped", run1), 1);
    EXPECT_EQ(valueOf(samples, "repohandler_last_run_night", run1), 1);
    // The dead mount has no used percentage, but its status.
    const std::map<std::string, std::string> gone = {{"repository", named},
                                                     {"mount", named + "/gone"}};
    EXPECT_TRUE(std::isnan(valueOf(samples, "repohandler_mount_used_percent", gone)));
    EXPECT_EQ(valueOf(samples, "repohandler_mount_status_bit", withKey(gone, "bit", "dead")), 1);
}

TEST(RepoctlMetrics, textfileIsReplacedWholeAndNothingElseIsLeftInTheDirectory) {
    TempTree state;
    const std::string locks = state.mkdir("locks"), var = state.mkdir("var");
    const std::string dir = state.mkdir("textfile");
    const Env env = {{"LOCK_VAR", locks}, {"VAR", var}};
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "false"}});
    const std::string file = dir + "/repohandler.prom";

    RepoctlRun run = runRepoctl({"metrics", repo.path(), "--textfile", dir}, env);
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "");
    const std::string first = readFile(file);
    std::vector<std::string> errors;
    EXPECT_EQ(valueOf(parseExposition(first, errors), "repohandler_dirty_resources",
                      {{"repository", repo.path()}}),
              0);
    EXPECT_TRUE(errors.empty()) << ::testing::PrintToString(errors);

    // A reader that opened the file before the next run still reads the whole earlier page.
    const int reader = open(file.c_str(), O_RDONLY);
    ASSERT_GE(reader, 0);
    ASSERT_EQ(runRepoctl({"dirty", repo.path(), "set", "d1"}, env).code, 0);
    run = runRepoctl({"metrics", "--textfile", dir, repo.path()}, env);
    ASSERT_EQ(run.code, 0) << run.err;
    std::string old(first.size() + 10, '\0');
    old.resize(static_cast<size_t>(pread(reader, &old[0], old.size(), 0)));
    close(reader);
    EXPECT_EQ(old, first);
    const std::string second = readFile(file);
    EXPECT_EQ(valueOf(parseExposition(second, errors), "repohandler_dirty_resources",
                      {{"repository", repo.path()}}),
              1);
    // Standard output carries the same series (the plain folder's fill level may move).
    const auto seriesOf = [&](const std::string& page) {
        std::set<std::string> series;
        for (const Sample& x : parseExposition(page, errors)) {
            std::string key = x.name;
            for (const auto& [k, v] : x.labels) key += "|" + k + "=" + v;
            series.insert(key);
        }
        return series;
    };
    EXPECT_EQ(seriesOf(runRepoctl({"metrics", repo.path()}, env).out), seriesOf(second));
    EXPECT_EQ(system(("test \"$(ls -A '" + dir + "')\" = repohandler.prom").c_str()), 0)
        << "something besides repohandler.prom was left in " << dir;

    run = runRepoctl({"metrics", repo.path(), "--textfile", state.path("missing")}, env);
    EXPECT_EQ(run.code, 1);
    EXPECT_NE(run.err.find("no directory"), std::string::npos) << run.err;
}
