// repoctl ages: how much data lies on each mount per band of age, walked as the maintenance
// walks (same walk, same age: the later of last access and last modification), without
// changing an access time. The bands are cut at the repository's moveTime, nomoveTime and
// warnmoveTime as well as at fixed days, so that the chart shows what a change of a setting
// would free: the data older than a cut is what that setting would let the maintenance take.

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "JsonWriter.h"
#include "KSCandidateMove.h"
#include "KSClock.h"
#include "KSRepositoryHandler.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlProgress.h"

namespace {

constexpr long long kDay = 86400;
constexpr int kBarWidth = 40;
constexpr uint32_t kStopped = 0xFFFFFFFFu;
const long long kFixedCutsDays[] = {1, 2, 7, 14, 30, 60, 90, 180, 365, 730};

struct Cut {
    long long seconds;
    std::vector<std::string> marks;  // the settings that cut here
};

struct Band {
    long long from = 0;  // seconds of age, inclusive
    long long to = -1;   // exclusive; -1: no end
    std::vector<std::string> marks;
    unsigned long long resources = 0, bytes = 0;
    unsigned long long olderBytes = 0;  // bytes at least `from` old
};

struct MountProfile {
    std::string path;
    bool dead = false;
    std::vector<Band> bands;
    unsigned long long resources = 0, bytes = 0;
};

std::vector<Cut> cutsFor(const KSRepositoryHandler::Settings& settings) {
    std::vector<Cut> cuts;
    auto add = [&](long long seconds, const char* mark) {
        if (seconds <= 0) return;
        for (Cut& cut : cuts)
            if (cut.seconds == seconds) {
                if (mark != nullptr) cut.marks.push_back(mark);
                return;
            }
        cuts.push_back({seconds, {}});
        if (mark != nullptr) cuts.back().marks.push_back(mark);
    };
    add(settings.moveTime, "moveTime");
    add(settings.nomoveTime, "nomoveTime");
    add(settings.warnmoveTime, "warnmoveTime");
    for (long long days : kFixedCutsDays) add(days * kDay, nullptr);
    std::sort(cuts.begin(), cuts.end(),
              [](const Cut& a, const Cut& b) { return a.seconds < b.seconds; });
    return cuts;
}

std::vector<Band> bandsFor(const std::vector<Cut>& cuts) {
    std::vector<Band> bands(1);
    for (const Cut& cut : cuts) {
        bands.back().to = cut.seconds;
        Band next;
        next.from = cut.seconds;
        next.marks = cut.marks;
        bands.push_back(next);
    }
    return bands;
}

void add(std::vector<Band>& bands, long long age, unsigned long long bytes) {
    size_t i = 0;
    while (i + 1 < bands.size() && age >= bands[i].to) ++i;
    bands[i].resources++;
    bands[i].bytes += bytes;
}

void sumOlder(std::vector<Band>& bands) {
    unsigned long long older = 0;
    for (size_t i = bands.size(); i-- > 0;) {
        older += bands[i].bytes;
        bands[i].olderBytes = older;
    }
}

KSMountPointHandler* findMount(KSRepositoryHandler& repo, std::string name) {
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    for (auto& mount : repo.mounts())
        if (mount->path() == name || mount->path() == repo.path() + "/" + name) return mount.get();
    return nullptr;
}

std::string daysText(long long seconds) {
    char text[32];
    if (seconds % kDay == 0)
        snprintf(text, sizeof text, "%lld", seconds / kDay);
    else
        snprintf(text, sizeof text, "%.2f", static_cast<double>(seconds) / kDay);
    return text;
}

std::string joined(const std::vector<std::string>& marks) {
    std::string text;
    for (const std::string& mark : marks) text += (text.empty() ? "" : ", ") + mark;
    return text;
}

void printProfile(const MountProfile& profile) {
    printf("mount %s\n", profile.path.c_str());
    if (profile.dead) {
        printf("  dead: not walked\n");
        return;
    }
    unsigned long long largest = 1;
    for (const Band& band : profile.bands) largest = std::max(largest, band.bytes);
    printf("  %-13s %9s %11s %13s\n", "age (days)", "resources", "size", "this or older");
    for (const Band& band : profile.bands) {
        const std::string range =
            daysText(band.from) + (band.to < 0 ? "+" : " - " + daysText(band.to));
        const int width = static_cast<int>(band.bytes * kBarWidth / largest);
        const std::string bar = std::string(width, '#') + (band.bytes > 0 && width == 0 ? "." : "");
        const std::string marks = band.marks.empty() ? std::string()
                                                     : std::string(kBarWidth - bar.size(), ' ') +
                                                           "  <- " + joined(band.marks);
        printf("  %-13s %9llu %11s %13s  %s%s\n", range.c_str(), band.resources,
               bytesText(band.bytes).c_str(), bytesText(band.olderBytes).c_str(), bar.c_str(),
               marks.c_str());
    }
    printf("  total %llu resources, %s\n", profile.resources, bytesText(profile.bytes).c_str());
}

void writeJson(const KSRepositoryHandler& repo, time_t now,
               const std::vector<MountProfile>& profiles) {
    const KSRepositoryHandler::Settings& s = repo.settings();
    JsonWriter json(stdout);
    json.beginObject()
        .field("repository", repo.path())
        .field("now", static_cast<long long>(now))
        .key("settings")
        .beginObject()
        .field("moveTime", s.moveTime)
        .field("nomoveTime", s.nomoveTime)
        .field("warnmoveTime", s.warnmoveTime)
        .endObject()
        .key("mounts")
        .beginArray();
    for (const MountProfile& profile : profiles) {
        json.beginObject()
            .field("path", profile.path)
            .field("dead", profile.dead)
            .field("resources", profile.resources)
            .field("bytes", profile.bytes)
            .key("bands")
            .beginArray();
        for (const Band& band : profile.bands) {
            json.beginObject().field("fromSeconds", band.from).key("toSeconds");
            band.to < 0 ? json.null() : json.value(band.to);
            json.field("fromDays", static_cast<double>(band.from) / kDay).key("toDays");
            band.to < 0 ? json.null() : json.value(static_cast<double>(band.to) / kDay);
            json.field("resources", band.resources)
                .field("bytes", band.bytes)
                .field("olderBytes", band.olderBytes)
                .key("marks")
                .beginArray();
            for (const std::string& mark : band.marks) json.value(mark);
            json.endArray().endObject();
        }
        json.endArray().endObject();
    }
    json.endArray().endObject();
    json.finish();
}

int runAges(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {"--json"});
    if (!args.ok() || args.positional().empty() || args.positional().size() > 2) {
        return repoctlUsageError(argv[0],
                                 !args.ok() ? args.error()
                                 : args.positional().empty()
                                     ? "one repository expected"
                                     : "unexpected argument \"" + args.positional()[2] + "\"");
    }
    const bool asJson = args.has("--json");
    const std::string& repository = args.positional()[0];
    if (!isRepositoryDirectory(argv[0], repository)) return 1;
    std::shared_ptr<KSRepositoryHandler> repo = getRepository(nullptr, repository.c_str(), true);
    repo->initMPHandlers();
    std::vector<KSMountPointHandler*> mounts;
    if (args.positional().size() == 2) {
        const std::string& name = args.positional()[1];
        KSMountPointHandler* mount = findMount(*repo, name);
        if (mount == nullptr) {
            fprintf(stderr, "repoctl %s: \"%s\" is no mount of %s\n", argv[0], name.c_str(),
                    repo->path().c_str());
            return 1;
        }
        mounts.push_back(mount);
    } else {
        for (auto& mount : repo->mounts()) mounts.push_back(mount.get());
    }

    const std::vector<Cut> cuts = cutsFor(repo->settings());
    const time_t now = KSClock::now();
    std::vector<MountProfile> profiles;
    std::atomic<unsigned long long> walked{0}, walkedBytes{0};
    std::atomic<size_t> current{0};
    const int result = runWithProgress(
        argv[0],
        [&] {
            char text[200];
            snprintf(text, sizeof text, "resources %llu  %s  mount %s", walked.load(),
                     bytesText(walkedBytes.load()).c_str(),
                     mounts[std::min(current.load(), mounts.size() - 1)]->path().c_str());
            return std::string(text);
        },
        [&] {
            for (size_t i = 0; i < mounts.size(); ++i) {
                current = i;
                MountProfile profile;
                profile.path = mounts[i]->path();
                profile.bands = bandsFor(cuts);
                const uint32_t seen =
                    mounts[i]->walkResources([&](const ResourceEntry& entry, const struct stat&) {
                        const unsigned long long bytes = resourceBytes(entry.path);
                        add(profile.bands, static_cast<long long>(now - entry.time), bytes);
                        profile.resources++;
                        profile.bytes += bytes;
                        walked++;
                        walkedBytes += bytes;
                        return true;
                    });
                profile.dead = seen == kStopped && !checkoverloadStopped;
                if (seen == kStopped && checkoverloadStopped) return 1;
                sumOlder(profile.bands);
                profiles.push_back(profile);
            }
            return 0;
        },
        asJson || mounts.empty(), nullptr);
    if (result != 0) return 1;
    if (asJson) {
        writeJson(*repo, now, profiles);
        return 0;
    }
    const KSRepositoryHandler::Settings& s = repo->settings();
    printf("repository %s  (moveTime %s d, nomoveTime %s d, warnmoveTime %s d)\n",
           repo->path().c_str(), daysText(s.moveTime).c_str(), daysText(s.nomoveTime).c_str(),
           daysText(s.warnmoveTime).c_str());
    for (const MountProfile& profile : profiles) printProfile(profile);
    return 0;
}

RepoctlRegistrar agesCommand(
    "ages", "ages REPO [MOUNT] [--json]",
    "show how much data lies on each mount per band of age (days)", &runAges,
    "Walks every mount of REPO (or only MOUNT, given as its path or its name in the\n"
    "repository) as the maintenance does, without changing any access time, and shows the\n"
    "resources and bytes per band of age: the age of a resource is the time since the later\n"
    "of its last access and last modification. The bands are cut at fixed days and at the\n"
    "repository's moveTime, nomoveTime and warnmoveTime, which are marked. \"this or older\"\n"
    "is the data at least as old as the band's start: what a setting at that age would let\n"
    "the maintenance move or delete.\n"
    "\n"
    "  --json   print one JSON document instead of the chart\n"
    "\n"
    "Exit status: 0 done, 1 no such repository or mount (or stopped), 2 usage error.");

}  // namespace
