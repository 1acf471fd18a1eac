#pragma once

// The holder token of a database lock (the lock row's LCKACTOR): names one take of one lock by
// one process, so that no two holders ever share a token, and says where the holder ran so that
// an operator can tell a lost holder from a slow one.
//
// Form: "SEM:" host ":" pid ":" process start (clock ticks after boot) ":" boot id (first 8
// characters of /proc/sys/kernel/random/boot_id) ":" 8 random hexadecimal digits drawn once per
// process ":" a serial number counted per process. Host, pid and start name the process
// uniquely on its host (a pid is reused only with another start time); the random digits keep
// two hosts of the same name apart; the serial keeps two takes of one process apart.
//
// Thread-safe; a forked child draws its own process part on its first token.

#include <sys/types.h>

#include <string>

#include "RhExport.h"

class RH_EXPORT KSLockToken {
  public:
    // The parts of a token.
    struct Holder {
        std::string host;
        pid_t pid = 0;
        unsigned long long startTicks = 0;
        std::string bootId;
        std::string nonce;
        unsigned long long serial = 0;
    };

    // Whether the holder of a token can still be running.
    enum class Liveness {
        Running,    // its process runs on this host, with the same start time
        Gone,       // this host was restarted since, or the process has ended: the lock is lost
        OtherHost,  // it ran on another host: only that host can tell
        Unknown,    // not a token of this form (a lock row written by other software)
    };

    // A new token, never returned before by any process.
    static std::string next();
    // Splits token into its parts; false (out unchanged) when it is not of the form above.
    static bool parse(const std::string& token, Holder& out);
    // Looks at this host's processes for the holder of token.
    static Liveness liveness(const std::string& token);
    // "running", "gone", "other host" or "unknown".
    static const char* describe(Liveness liveness);
};
