/*
 * The command line of pegeir-component.
 */
#ifndef PEGEIR_COMPONENT_OPTIONS_H
#define PEGEIR_COMPONENT_OPTIONS_H

#include "protocol/report.h"

#include <optional>
#include <string>

namespace pegeir::component {

/* Exit codes. */
enum { kExitStopped = 0, kExitNotStarted = 1, kExitUsage = 2, kExitFailed = 3 };

struct Options {
    uint32_t id = 100;
    std::string directory; /* empty: the platform's own choice */
    std::string capture;   /* empty: the platform's own choice, too */
    bool kernel = true;
    std::string raConfig; /* empty: none */
    uint32_t synthetic = 0;
    uint32_t syntheticSize = 12;
    uint32_t changeEveryMs = 0; /* 0: never */
    Severity verbosity = Severity::kInfo;
};

/* Fills options from the command line.  Returns nothing, or the code to exit with at once: help and
 * errors have then been printed. */
[[nodiscard]] std::optional<int> ReadOptions(int argc, const char *const *argv, Options &options);

} // namespace pegeir::component

#endif
