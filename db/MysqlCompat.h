#pragma once

#include <mysql.h>

namespace kelp {
namespace db {

// The flag type the client library writes through MYSQL_BIND::is_null and ::error. MariaDB
// Connector/C keeps the old my_bool (a char); the MySQL 8 client uses bool. Every binding of this
// layer names MysqlFlag, so switching client libraries touches only this line.
#if defined(MARIADB_PACKAGE_VERSION) || defined(MARIADB_BASE_VERSION)
using MysqlFlag = my_bool;
#else
using MysqlFlag = bool;
#endif

}  // namespace db
}  // namespace kelp
