/*
 * The command line.  Whatever can be wrong with it is found here, before anything is opened.
 */
#include "options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <set>

#include <net/if.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <pegeir/linux.h>
#include <pegeir/nd_data.h>
#include <pegeir/pegeir.h>

namespace pegeir::watch {
namespace {

constexpr uint32_t kAllInterfaces = 0;
constexpr uint32_t kAllSynthetic = 0xFFFFFFFF;
constexpr uint32_t kMaxSynthetic = 1000000;

// Keeps the default id clear of the small numbers that people give to components.
constexpr uint32_t kIdBase = 1000000;

constexpr const char *kFooter = R"(Examples:
  pegeir-watch                          everything on all interfaces
  pegeir-watch eth0 --type neighbour    the IPv6 neighbours on eth0
  pegeir-watch --json --until-ready --summary | jq 'select(.event == "known")'
  pegeir-watch --synthetic 100000 --until-ready --quiet

Signals:
  INT, TERM, HUP  end cleanly
  USR1            print the diagnose reports
  USR2            ask for one verification pass

Marks of the text output:
  *  a change of state        !  something is not as it should be
  +  a new item    ~  a changed one    =  one that is as before    -  one that is gone

Exit codes:
  0  ended as asked: by a signal, by --for, or because what was waited for has come
  1  could not start, or could not write the output
  2  the command line is wrong, or names an unknown interface
  3  ended before --until-ready, --until-verified or --count was met)";

struct RawOptions {
    std::vector<std::string> interfaces;
    std::vector<std::string> types;
    std::string synthetic;
    std::string logLevel;
};

const std::map<std::string, uint16_t> kTypes = {
    {"link", ND_DATA_LINK}, {"ra", ND_DATA_RA_INTERVAL}, {"neighbour", ND_DATA_NEIGHBOUR}};

const std::map<std::string, uint32_t> kLogLevels = {
    {"failure", ND_LIB_LOG_FAILURE}, {"detail", ND_LIB_LOG_DETAIL}, {"event", ND_LIB_LOG_EVENT}};

// Thrown for what the parser cannot see by itself; printed and answered like its own errors.
[[noreturn]] void Refuse(const std::string &text) {
    throw CLI::ValidationError(text);
}

std::string ExistingInterfaces() {
    const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> all(if_nameindex(),
                                                                                &if_freenameindex);
    std::string names;
    for (const struct if_nameindex *one = all.get(); one != nullptr && one->if_index != 0; ++one) {
        names += (names.empty() ? "" : ", ") + std::string(one->if_name);
    }
    return names.empty() ? "none" : names;
}

std::set<uint32_t> ResolveInterfaces(const std::vector<std::string> &names) {
    std::set<uint32_t> indices;
    for (const std::string &name : names) {
        const uint32_t index = name == "all" ? kAllInterfaces : if_nametoindex(name.c_str());
        if (index == 0 && name != "all") {
            Refuse("there is no interface \"" + name + "\"; there are: " + ExistingInterfaces() +
                   "; or say \"all\"");
        }
        indices.insert(index);
    }
    return indices.contains(kAllInterfaces) ? std::set<uint32_t>{kAllInterfaces} : indices;
}

// "all", a number of items from 0 on, or a range "first-last".
void AddSynthetic(const std::string &text, std::vector<Subscription> &subscriptions) {
    if (text == "all") {
        subscriptions.push_back({ND_DATA_KEY_SYNTHETIC, kAllSynthetic, ND_DATA_SYNTHETIC});
        return;
    }
    const char *const end = text.data() + text.size();
    uint32_t first = 0;
    uint32_t last = 0;
    auto parsed = std::from_chars(text.data(), end, last);
    if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == '-') {
        first = last;
        parsed = std::from_chars(parsed.ptr + 1, end, last);
    } else if (last-- == 0) {
        parsed.ec = std::errc::invalid_argument;
    }
    if (parsed.ec != std::errc() || parsed.ptr != end || last < first || last - first >= kMaxSynthetic) {
        Refuse("--synthetic: \"" + text +
               "\" is not \"all\", a number of items or a range first-last, of at most " +
               std::to_string(kMaxSynthetic) + " items");
    }
    for (uint32_t offset = 0; offset <= last - first; ++offset) {
        subscriptions.push_back({ND_DATA_KEY_SYNTHETIC, first + offset, ND_DATA_SYNTHETIC});
    }
}

std::vector<Subscription> MakeSubscriptions(const RawOptions &raw) {
    std::vector<Subscription> subscriptions;
    std::vector<std::string> names = raw.interfaces;
    if (names.empty() && raw.synthetic.empty()) {
        names.emplace_back("all");
    }
    std::set<uint16_t> types;
    for (const auto &[name, type] : kTypes) {
        if (raw.types.empty() || std::ranges::find(raw.types, name) != raw.types.end()) {
            types.insert(type);
        }
    }
    for (const uint32_t index : ResolveInterfaces(names)) {
        for (const uint16_t type : types) {
            subscriptions.push_back({ND_DATA_KEY_INTERFACE, index, type});
        }
    }
    if (!raw.synthetic.empty()) {
        AddSynthetic(raw.synthetic, subscriptions);
    }
    return subscriptions;
}

template <typename Number>
CLI::Validator Between(Number least, Number most) {
    return CLI::Range(least, most).description(""); // the help text says it more briefly
}

void Declare(CLI::App &app, Options &options, RawOptions &raw) {
    const CLI::Validator id = Between<uint32_t>(1, std::numeric_limits<uint32_t>::max());
    app.set_version_flag("--version", "pegeir-watch " PEGEIR_VERSION, "Print the version and end");
    app.footer(kFooter);

    app.add_option("INTERFACE", raw.interfaces, "Interfaces by name, or \"all\" (the default)")
        ->type_name("");
    app.add_option("--type", raw.types, "What to subscribe of them: link, ra, neighbour (default: all)")
        ->delimiter(',')
        ->type_name("TYPE,...")
        ->check(CLI::IsMember({"link", "ra", "neighbour"}).description(""));
    app.add_option("--synthetic", raw.synthetic,
                   "Subscribe test items: \"all\" with one request, the\nfirst N, or a range FIRST-LAST")
        ->type_name("ITEMS");

    app.add_option("--component", options.component, "Id of the component's process (default: 100)")
        ->type_name("ID")
        ->check(id);
    app.add_option("--id", options.id, "Id of this process (default: made of its process id)")
        ->type_name("ID")
        ->check(id);
    app.add_option("--directory", options.directory,
                   std::string("Runtime directory (default: ") + PEGEIR_LinuxDirectory() + ")")
        ->type_name("DIR");

    app.add_option(
           "--capture", options.capture,
           "Record into this capture file (default:\n$PEGEIR_CAPTURE, if set); in the name %p is the\n"
           "process's number, %i its id")
        ->type_name("FILE");

    app.add_flag("--json", options.json, "Print JSON, one object a line");
    app.add_flag("--quiet", options.quiet, "Print no changes of state and no progress");
    app.add_flag("--changes-only", options.changesOnly, "Do not print items that are as before");
    app.add_flag("--summary", options.summary, "At the end, print everything that is known");
    app.add_flag("--diagnose", options.diagnose, "At the end, print the diagnose reports");
    app.add_option("--log", raw.logLevel,
                   "Print the library's log on standard error, up to\nfailure, detail or event")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"failure", "detail", "event"}).description(""));

    auto *verify =
        app.add_flag("--verify", options.verify, "Verify what is known, once ready and periodically");
    app.add_option("--verify-cycle", options.verifyCycle,
                   "Seconds from one pass to the next, " + std::to_string(ND_LIB_VERIFY_CYCLE_MIN) + " to " +
                       std::to_string(ND_LIB_VERIFY_CYCLE_MAX) + " (default: 60)")
        ->type_name("S")
        ->check(Between<uint16_t>(ND_LIB_VERIFY_CYCLE_MIN, ND_LIB_VERIFY_CYCLE_MAX))
        ->needs(verify);

    app.add_option("--for", options.forSeconds, "End after S seconds")
        ->type_name("S")
        ->check(Between(0.001, 1e9));
    app.add_flag("--until-ready", options.untilReady, "End once the first download is complete");
    app.add_flag("--until-verified", options.untilVerified, "Verify, and end once a pass is complete");
    app.add_option("--count", options.count, "End after N items")
        ->type_name("N")
        ->check(Between<uint64_t>(1, std::numeric_limits<int64_t>::max())); // "-1" wraps to above it
}

void Complete(Options &options, const RawOptions &raw) {
    if (options.id == 0) {
        options.id = kIdBase + static_cast<uint32_t>(getpid());
    }
    if (options.id == options.component) {
        Refuse("--id and --component are both " + std::to_string(options.id) +
               "; this process needs an id of its own");
    }
    if (!raw.logLevel.empty()) {
        options.logLevel = kLogLevels.at(raw.logLevel);
    }
    options.verify = options.verify || options.untilVerified;
    options.subscriptions = MakeSubscriptions(raw);
}

} // namespace

std::variant<Options, int> ParseOptions(int argc, char **argv) {
    Options options;
    RawOptions raw;
    CLI::App app("Watches the data that an IPv6 Neighbor Discovery component serves: registers with it,\n"
                 "subscribes, prints each item as it arrives and each change of state.",
                 "pegeir-watch");
    Declare(app, options, raw);
    try {
        app.parse(argc, argv);
        Complete(options, raw);
    } catch (const CLI::Success &request) {
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        std::cerr << "pegeir-watch: " << error.what() << "\nTry \"pegeir-watch --help\".\n";
        return kExitUsage;
    }
    return options;
}

} // namespace pegeir::watch
