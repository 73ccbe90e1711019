/*
 * What the user asks for: the command line as a value, and the subscriptions that follow from it.
 */
#ifndef PEGEIR_WATCH_OPTIONS_H
#define PEGEIR_WATCH_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace pegeir::watch {

// Exit codes; the help text explains them.
enum ExitCode : int { kExitOk = 0, kExitFailure = 1, kExitUsage = 2, kExitUnsatisfied = 3 };

// One item to ask for: a key of 4 bytes and a data type.
struct Subscription {
    uint16_t keyType;
    uint32_t key;
    uint16_t dataType;
    bool operator==(const Subscription &) const = default;
};

struct Options {
    uint32_t id = 0;
    uint32_t component = 100;
    std::string directory; // empty: the platform's own choice
    std::string capture;   // empty: the platform's own choice, too
    std::vector<Subscription> subscriptions;

    bool json = false;
    bool quiet = false;
    bool changesOnly = false;
    bool diagnose = false;
    bool summary = false;
    std::optional<uint32_t> logLevel;

    bool verify = false;
    uint16_t verifyCycle = 60; // seconds

    double forSeconds = 0; // 0: until told to end
    bool untilReady = false;
    bool untilVerified = false;
    uint64_t count = 0; // items after which to end, 0: no matter
};

// Parses the command line and looks up the interfaces.  Returns the options, or, after the help, the
// version or an error has been printed, the exit code to end with.
[[nodiscard]] std::variant<Options, int> ParseOptions(int argc, char **argv);

} // namespace pegeir::watch

#endif
