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

-- Change records of files that several servers share and change under a lock of NVLOCK (the
-- dirty set of a shared repository): one row per file, keyed like the lock (CHGID is the
-- storage key of the file's lock id), written by each writer while it holds that lock. CHGCONTENT
-- is the fingerprint ("<size>:<SHA-256>") of the content the last writer writes, CHGPREVIOUS
-- that of the content it replaces; a reader under the lock that reads something else was
-- served stale data by its client and reads again. CHGPATH and CHGHOST tell where the last
-- writer saw the file. The name is the lock table's with "CHG" appended.
CREATE TABLE IF NOT EXISTS NVLOCKCHG (
    CHGID       VARBINARY(255) NOT NULL,
    CHGCOUNTER  BIGINT UNSIGNED NOT NULL,
    CHGCONTENT  VARBINARY(128) NOT NULL,
    CHGPREVIOUS VARBINARY(128) NOT NULL,
    CHGPATH     BLOB NOT NULL,
    CHGHOST     VARCHAR(255) NOT NULL DEFAULT '',
    CHGTIME     DATETIME NOT NULL,
    PRIMARY KEY (CHGID)
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

-- The example schema of the query builder (mapping: db/query-mapping.cfg). Text attributes are
-- exact: a binary collation without padding, so 'A' differs from 'a' and from 'A '. Person
-- names also have a folded copy (case- and accent-insensitive), kept by the server, that
-- case-insensitive searches use through its index. Dates and times are typed; an absent
-- attribute is NULL, an empty one ''. The loader stores values without their DICOM padding.
CREATE TABLE IF NOT EXISTS PATIENT (
    PatientKey        BIGINT NOT NULL AUTO_INCREMENT,
    PatientID         VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    IssuerOfPatientID VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    PatientName       VARCHAR(324) COLLATE utf8mb4_nopad_bin NULL,
    PatientNameFolded VARCHAR(324) COLLATE utf8mb4_unicode_520_ci
                      AS (PatientName) PERSISTENT,
    PatientBirthDate  DATE NULL,
    PatientSex        VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    PRIMARY KEY (PatientKey),
    KEY PATIENT_PatientID (PatientID),
    KEY PATIENT_PatientName (PatientName),
    KEY PATIENT_PatientNameFolded (PatientNameFolded)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS STUDY (
    StudyKey               BIGINT NOT NULL AUTO_INCREMENT,
    PatientKey             BIGINT NOT NULL,
    StudyInstanceUID       VARCHAR(64) COLLATE utf8mb4_nopad_bin NOT NULL,
    StudyDate              DATE NULL,
    StudyTime              TIME(6) NULL,
    AccessionNumber        VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    StudyID                VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    StudyDescription       VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    ReferringPhysicianName VARCHAR(324) COLLATE utf8mb4_nopad_bin NULL,
    ReferringPhysicianNameFolded VARCHAR(324) COLLATE utf8mb4_unicode_520_ci
                           AS (ReferringPhysicianName) PERSISTENT,
    -- Timezone Offset From UTC of the study, minutes east; the clock of its dates and times.
    TimezoneOffsetFromUTC  SMALLINT NOT NULL DEFAULT 0,
    PRIMARY KEY (StudyKey),
    UNIQUE KEY STUDY_StudyInstanceUID (StudyInstanceUID),
    KEY STUDY_PatientKey (PatientKey),
    KEY STUDY_StudyDate (StudyDate, StudyTime),
    KEY STUDY_AccessionNumber (AccessionNumber),
    KEY STUDY_ReferringPhysicianNameFolded (ReferringPhysicianNameFolded)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS SERIES (
    SeriesKey         BIGINT NOT NULL AUTO_INCREMENT,
    StudyKey          BIGINT NOT NULL,
    SeriesInstanceUID VARCHAR(64) COLLATE utf8mb4_nopad_bin NOT NULL,
    Modality          VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    SeriesDate        DATE NULL,
    SeriesTime        TIME(6) NULL,
    SeriesDescription VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    BodyPartExamined  VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    PRIMARY KEY (SeriesKey),
    UNIQUE KEY SERIES_SeriesInstanceUID (SeriesInstanceUID),
    KEY SERIES_StudyKey (StudyKey),
    KEY SERIES_Modality (Modality)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Items of the Request Attributes Sequence of a series.
CREATE TABLE IF NOT EXISTS SERIESREQUEST (
    SeriesKey                BIGINT NOT NULL,
    RequestedProcedureID     VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    ScheduledProcedureStepID VARCHAR(16) COLLATE utf8mb4_nopad_bin NULL,
    AccessionNumber          VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    KEY SERIESREQUEST_SeriesKey (SeriesKey),
    KEY SERIESREQUEST_RequestedProcedureID (RequestedProcedureID)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS INSTANCE (
    InstanceKey         BIGINT NOT NULL AUTO_INCREMENT,
    SeriesKey           BIGINT NOT NULL,
    SOPInstanceUID      VARCHAR(64) COLLATE utf8mb4_nopad_bin NOT NULL,
    SOPClassUID         VARCHAR(64) COLLATE utf8mb4_nopad_bin NULL,
    ContentDate         DATE NULL,
    ContentTime         TIME(6) NULL,
    AcquisitionDateTime DATETIME(6) NULL,
    PRIMARY KEY (InstanceKey),
    UNIQUE KEY INSTANCE_SOPInstanceUID (SOPInstanceUID),
    KEY INSTANCE_SeriesKey (SeriesKey),
    KEY INSTANCE_AcquisitionDateTime (AcquisitionDateTime)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
