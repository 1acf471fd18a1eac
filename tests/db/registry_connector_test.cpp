#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "DBConnector.h"
#include "DbTestEnv.h"
#include "KSRepositoryHandler.h"
#include "LockDB.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"

TEST(RepositoryConnectorConcurrency, aSharedRepositoryOpensOneWorkingConnectorOfItsOwnOnFirstNeed) {
    RH_REQUIRE_DB();
    ScopedEnv lockTable("NVLOCKTBL", "NVLOCK");
    ScratchRepository repo;
    repo.writeConfig({});  // shared by default
    KSRepositoryHandler handler(nullptr, repo.path().c_str());
    ASSERT_TRUE(handler.isShared());

    std::vector<kelp::db::DBConnector*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&handler, &seen, i] { seen[i] = handler.getDbConnector(nullptr); });
    }
    for (auto& t : threads) t.join();
    ASSERT_NE(seen[0], nullptr);
    EXPECT_EQ(std::set<kelp::db::DBConnector*>(seen.begin(), seen.end()).size(), 1u);

    kelp::db::LockDB* locks = seen[0]->lockDB();
    const std::string id = "registry-connector-test-" + repo.path();
    EXPECT_TRUE(locks->lockFirstTime(id, "study1", "test", 0));
    EXPECT_TRUE(locks->releaseLock(id));

    std::unique_ptr<kelp::db::DBConnector> callers(kelp::db::DBConnector::createConnector(false));
    EXPECT_EQ(handler.getDbConnector(callers.get()), callers.get())
        << "a caller's connector is used as given";
}
