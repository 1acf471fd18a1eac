-- Reference schema of the tables the database layer reads and writes.
-- Table names are the defaults that scripts/mariadb exports (NVLOCKTBL, SESSIONTBL,
-- REFCOUNTTBL, OBJECTTBL); a site may rename them through those variables.

-- Named locks that hold across processes: exactly one insert of a given LCKID succeeds.
-- LCKID holds the lock id, or for an id over 255 bytes a key of at most 255 bytes made from it
-- (LockDBSql::storageKey); binary, so ids are compared byte for byte, whatever the character
-- set, and never two ids that differ in case or in trailing blanks meet as one. LCKRESOURCE holds
-- the whole id (a repository path of up to PATH_MAX bytes and a name). LCKACTOR holds the
-- holder's token (KSLockToken).
CREATE TABLE IF NOT EXISTS NVLOCK (
    LCKID       VARBINARY(255) NOT NULL,
    LCKRESOURCE BLOB NOT NULL,
    LCKACTOR    VARCHAR(255) NOT NULL DEFAULT '',
    LCKTYPE     INT NOT NULL DEFAULT 0,
    LCKTIME     DATETIME NULL,
    LCKCOUNTER  INT NOT NULL DEFAULT 1,
    PRIMARY KEY (LCKID)
) ENGINE=InnoDB;
-- A table made by an earlier version of this file gets the same column types.
ALTER TABLE NVLOCK MODIFY LCKID VARBINARY(255) NOT NULL, MODIFY LCKRESOURCE BLOB NOT NULL;

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
