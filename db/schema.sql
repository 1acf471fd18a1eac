-- Reference schema of the tables the database layer reads and writes.
-- Table names are the defaults that scripts/mariadb exports (NVLOCKTBL, SESSIONTBL,
-- REFCOUNTTBL, OBJECTTBL); a site may rename them through those variables.

-- Named locks that hold across processes: exactly one insert of a given LCKID succeeds.
CREATE TABLE IF NOT EXISTS NVLOCK (
    LCKID       VARCHAR(255) NOT NULL,
    LCKRESOURCE VARCHAR(1024) NOT NULL DEFAULT '',
    LCKACTOR    VARCHAR(255) NOT NULL DEFAULT '',
    LCKTYPE     INT NOT NULL DEFAULT 0,
    LCKTIME     DATETIME NULL,
    LCKCOUNTER  INT NOT NULL DEFAULT 1,
    PRIMARY KEY (LCKID)
) ENGINE=InnoDB;

-- Signed-on user sessions, keyed by session id and client address.
CREATE TABLE IF NOT EXISTS USERSESSION (
    SID        VARCHAR(128) NOT NULL,
    IPADDR     VARCHAR(64) NOT NULL,
    SIGNSTAT   CHAR(1) NULL,
    SESSIONPRI SMALLINT NULL,
    SESSIONLSY SMALLINT UNSIGNED NULL,
    PRIMARY KEY (SID, IPADDR)
) ENGINE=InnoDB;

-- Reference counters: one row per referrer of an item.
CREATE TABLE IF NOT EXISTS REFCOUNT (
    ID       VARCHAR(255) NOT NULL,
    TYPE     VARCHAR(64) NOT NULL,
    REFERRER VARCHAR(255) NOT NULL,
    COUNTER  INT NOT NULL DEFAULT 0,
    UNIQUE KEY REFCOUNT_ID_TYPE_REFERRER (ID, TYPE, REFERRER)
) ENGINE=InnoDB;

-- Object files of studies; a row here is the database's own reference to the file.
CREATE TABLE IF NOT EXISTS OBJECTFILE (
    STYIUID VARCHAR(128) NOT NULL,
    FNAME   VARCHAR(255) NOT NULL,
    PRIMARY KEY (STYIUID, FNAME)
) ENGINE=InnoDB;

-- Time limits of running text queries, watched by a server-side job.
CREATE TABLE IF NOT EXISTS QueryTimeLimit (
    PROCESSID BIGINT UNSIGNED NOT NULL,
    EXPIRE    DATETIME NOT NULL,
    QSTATUS   CHAR(1) NOT NULL DEFAULT 'R',
    KEY QueryTimeLimit_PROCESSID (PROCESSID)
) ENGINE=InnoDB;
