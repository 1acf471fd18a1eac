#pragma once

#include <map>
#include <string>

// Records measured figures in build/reliability.txt beside the source tree: one "name: value"
// line per figure. The lines of the names given are replaced (or added); every other line,
// written by other measurements, is kept. The file is replaced atomically (written beside and
// renamed), so a reader never sees half of it; writers take turns through a lock file beside it.
// Errors are returned as text, empty on success.
std::string recordReliabilityFigures(const std::map<std::string, std::string>& figures);
