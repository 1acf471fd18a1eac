#pragma once

#include <string>

// Compares two copies of a resource in this process, without a shell and without changing any
// access time (files and directories are opened with O_NOATIME where the kernel allows it):
// the same entries, of the same types, regular files with the same bytes, links with the same
// text. Links are compared, never followed.
//
// Returns an empty text when the copies are equal, else the first difference in words
// ("only in /m1/AB/CD/EF/s: f2", "content differs: f1"). Stateless and thread-safe.
std::string firstDifference(const std::string& one, const std::string& other);

// As firstDifference, but only entries that both copies hold count: the differences that stop
// the library's merge of one copy into the other (it copies what the target lacks and drops
// what both hold equally, and stops at the first entry both hold differently).
std::string firstConflict(const std::string& one, const std::string& other);
