/* Options, their help and their limits. */
#include "program/options.h"

#include "protocol/wire.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <pegeir/linux.h>
#include <pegeir/nd_data.h>

namespace pegeir::component {

namespace {

constexpr uint32_t kMaxSynthetic = 10'000'000;
constexpr uint32_t kTlvHeadLen = 4;
constexpr uint32_t kMaxValueLen = kMaxMessageLen - kHeaderLen - kTlvHeadLen;

constexpr const char *kFooter = R"(
Standard output gets one line when consumers can be served:
  ready id=ID directory=DIRECTORY
Standard error gets the log.  SIGHUP reads the configuration and the kernel's
tables again; SIGINT and SIGTERM end the program.

Exit codes:
  0  ended by a signal
  1  could not start (directory not usable, id in use, no kernel interface)
  2  wrong options
  3  failed while it ran)";

} // namespace

std::optional<int> ReadOptions(int argc, const char *const *argv, Options &options) {
    CLI::App app("Serves the interfaces, IPv6 neighbours and router-advertisement intervals of this machine\n"
                 "to any number of pegeir consumers.",
                 "pegeir-component");
    app.footer(kFooter);
    app.set_version_flag("--version", "pegeir-component " PEGEIR_VERSION);

    bool verbose = false;
    bool quiet = false;
    app.add_option("--id", options.id, "Address in the message service")
        ->check(CLI::Range(1U, std::numeric_limits<uint32_t>::max()))
        ->type_name("ID")
        ->capture_default_str();
    app.add_option("--directory", options.directory,
                   std::string("Runtime directory (default: ") + PEGEIR_LinuxDirectory() + ")")
        ->type_name("DIR");
    app.add_option("--capture", options.capture,
                   "Record into this capture file (default: $PEGEIR_CAPTURE, if\n"
                   "set); in the name %p is the process's number, %i its id")
        ->type_name("FILE");
    app.add_flag("--kernel,!--no-kernel", options.kernel,
                 "Serve the kernel's interfaces and IPv6 neighbours (default), or not");
    CLI::Option *raConfig = app.add_option("--ra-config", options.raConfig,
                                           "Serve the intervals of this file in radvd's syntax; it is\n"
                                           "waited for, and read again when it changes")
                                ->type_name("FILE");
    CLI::Option *synthetic = app.add_option("--synthetic", options.synthetic, "Serve N synthetic items")
                                 ->check(CLI::Range(1U, kMaxSynthetic))
                                 ->type_name("N");
    app.add_option("--synthetic-size", options.syntheticSize, "Bytes of a synthetic item's value")
        ->check(CLI::Range(uint32_t{ND_DATA_SYNTHETIC_LEN}, kMaxValueLen))
        ->needs(synthetic)
        ->type_name("BYTES")
        ->capture_default_str();
    app.add_option("--change-every", options.changeEveryMs, "Change one synthetic item every MS milliseconds")
        ->check(CLI::Range(1U, 86'400'000U))
        ->needs(synthetic)
        ->type_name("MS");
    CLI::Option *verboseFlag = app.add_flag("-v,--verbose", verbose, "Log every detail");
    app.add_flag("-q,--quiet", quiet, "Log warnings and errors only")->excludes(verboseFlag);

    try {
        app.parse(argc, argv);
        if (!options.kernel && raConfig->count() > 0) {
            throw CLI::ExcludesError("--ra-config",
                                     "--no-kernel: the kernel tells which interfaces there are");
        }
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitStopped : kExitUsage;
    }
    options.verbosity = verbose ? Severity::kDetail : quiet ? Severity::kWarning : Severity::kInfo;
    return std::nullopt;
}

} // namespace pegeir::component
