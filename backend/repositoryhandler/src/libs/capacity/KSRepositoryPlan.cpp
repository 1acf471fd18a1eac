// The dry runs of the maintenance: the overload check and the emptying of a mount, decided by
// their own code on a private handler whose plan stands in for every effect.

#include <cstdlib>
#include <memory>
#include <string>

#include "KSMaintenancePlan.h"
#include "KSRepositoryHandler.h"

namespace {

struct FreeDeleter {
    void operator()(char* p) const { free(p); }
};

// The handler is private: the registry's own, which other threads may use, never sees the plan
// or the limits that night mode lowers.
std::shared_ptr<KSRepositoryHandler> privateHandler(kelp::db::DBConnector* connection,
                                                    const char* path,
                                                    const KSRepositoryHandler::PlanWatch& watch) {
    std::unique_ptr<char, FreeDeleter> normal(normalize_file_name(path != nullptr ? path : ""));
    auto handler = std::make_shared<KSRepositoryHandler>(
        connection, normal ? normal.get() : (path != nullptr ? path : ""));
    if (watch) watch(handler);
    return handler;
}

void noteBefore(KSRepositoryHandler& repository, KSMaintenancePlan& plan) {
    for (auto& mount : repository.mounts()) {
        KSMaintenancePlan::Mount m;
        m.path = mount->path();
        m.statusBefore = mount->checkStatus(false);
        m.dead = (m.statusBefore & MOUNT_DEAD) != 0;
        if (!m.dead) m.usedBefore = mount->getUsedPercentage();
        plan.mounts.push_back(m);
    }
}

void noteAfter(KSRepositoryHandler& repository, KSMaintenancePlan& plan) {
    for (size_t i = 0; i < plan.mounts.size() && i < repository.mounts().size(); ++i) {
        KSMountPointHandler& mount = *repository.mounts()[i];
        KSMaintenancePlan::Mount& m = plan.mounts[i];
        m.moveLimit = mount.config().moveLimit;
        m.cleanLimit = mount.config().cleanLimit;
        m.statusAfter = m.dead ? m.statusBefore : mount.checkStatus(false);
        m.usedAfter = m.dead ? -1.0 : mount.getUsedPercentage();
    }
    plan.stopped = checkoverloadStopped != 0;
}

}  // namespace

KSMaintenancePlan KSRepositoryHandler::planCheckOverload(kelp::db::DBConnector* connection,
                                                         const char* path, bool night,
                                                         const PlanWatch& watch) {
    std::shared_ptr<KSRepositoryHandler> repository = privateHandler(connection, path, watch);
    KSMaintenancePlan plan;
    noteBefore(*repository, plan);
    repository->plan_ = &plan;
    repository->checkOverload(repository->getDbConnector(connection), false, night);
    noteAfter(*repository, plan);
    return plan;
}

KSMaintenancePlan KSRepositoryHandler::planFreeMount(kelp::db::DBConnector* connection,
                                                     const char* path, const char* mount,
                                                     int* result, const PlanWatch& watch) {
    std::shared_ptr<KSRepositoryHandler> repository = privateHandler(connection, path, watch);
    KSMaintenancePlan plan;
    noteBefore(*repository, plan);
    repository->plan_ = &plan;
    const int code =
        repository->moveAllResourcesFromMount(repository->getDbConnector(connection), mount, false);
    if (result != nullptr) *result = code;
    noteAfter(*repository, plan);
    return plan;
}
