#include "DBConnector.h"

#include "DBConnectorSql.h"
#include "KSTime.h"
#include "Sql.h"

namespace kelp {
namespace db {

DBConnector* DBConnector::createConnector(bool flag) {
    return new DBConnectorSql(std::make_unique<Sql>(flag));
}

DBConnector::DBConnector() {
    std::random_device device("default");
    random_.seed(device());
}

DBConnector::~DBConnector() = default;

void DBConnector::randomSleep() {
    int millis;
    {
        std::lock_guard<std::mutex> guard(randomMutex_);
        millis = distribution_(random_);
    }
    if (millis >= 1) mymilisleep(millis);
}

}  // namespace db
}  // namespace kelp
