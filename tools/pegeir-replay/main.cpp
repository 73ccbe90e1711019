/*
 * pegeir-replay: plays the recording of a consumer into the library.
 */
#include <charconv>
#include <cstdio>
#include <exception>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "player.h"
#include "print.h"
#include "to_test.h"

namespace pegeir::replay {
namespace {

enum ExitCode : int { kExitEqual = 0, kExitDifferent = 1, kExitUsage = 2 };

constexpr double kForever = std::numeric_limits<double>::infinity();

struct Options {
    std::string file;
    bool json = false;
    bool steps = false;
    bool toTest = false;
    std::string until = "end";
    std::string diagnose; // empty: no reports
};

// Reads a time in seconds, or "end".
double TimeOf(const std::string &text) {
    double seconds = kForever;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (text != "end" &&
        (parsed.ec != std::errc{} || parsed.ptr != text.data() + text.size() || !(seconds >= 0))) {
        throw CLI::ValidationError('"' + text +
                                   "\" is no time; give seconds since the beginning of the recording");
    }
    return seconds;
}

void Declare(CLI::App &app, Options &options) {
    app.set_version_flag("--version", "pegeir-replay " PEGEIR_VERSION);
    app.get_formatter()->column_width(28);
    app.add_option("FILE", options.file, "Recording of a consumer, - for standard input")
        ->required()
        ->type_name("");
    app.add_flag("--json", options.json, "Print JSON, one object a line");
    auto *step = app.add_flag("--step", options.steps, "Show every step, and wait for Enter before it");
    app.add_option("--until", options.until, "Play no further than TIME")->type_name("TIME");
    app.add_flag("--diagnose{end}", options.diagnose,
                 "Print the five reports at the end, or at a time:\n--diagnose=TIME")
        ->type_name("");
    app.add_flag("--to-test", options.toTest,
                 "Print, in place of what happens, a test for the sim\nplatform that repeats it, up to the "
                 "first difference")
        ->excludes(step);
    app.footer("TIME is in seconds since the beginning of the recording.\n\n"
               "Exit status: 0 when the library sends what it sent then, 1 when it does not, 2 when the\n"
               "command line or the file is at fault.");
}

void Tell(const std::string &text) {
    (void)std::fprintf(stderr, "pegeir-replay: %s\n", text.c_str());
}

// Waits until the user wants the next step; at the end of the input, no longer.
void Wait(bool &stepping) {
    std::string line;
    stepping = stepping && std::getline(std::cin, line);
}

int Replay(const Options &options) {
    if (options.steps && options.file == "-") {
        throw CLI::ValidationError("--step reads Enter from standard input, where the recording cannot come "
                                   "from as well; give the name of a file");
    }
    const double until = TimeOf(options.until);
    double diagnose = options.diagnose.empty() ? -1 : TimeOf(options.diagnose); // below 0: no reports
    std::string error;
    const auto recording = ReadCapture(options.file, error);
    if (!recording) {
        Tell(error);
        return kExitUsage;
    }
    const auto session = MakeSession(*recording, error);
    for (const auto *const notes : {&recording->notes, session ? &session->notes : nullptr}) {
        for (size_t i = 0; notes != nullptr && i < notes->size(); ++i) {
            Tell(options.file + ": " + (*notes)[i]);
        }
    }
    if (!session) {
        Tell(options.file + ": " + error);
        return kExitUsage;
    }
    Player player(*session);
    Printer printer(*session, options.json, options.steps);
    std::vector<Played> all;
    bool stepping = options.steps;
    bool equal = true;
    const auto report = [&] {
        if (diagnose >= 0 && !options.toTest) {
            printer.Report(player.Diagnose());
        }
        diagnose = -1;
    };
    for (size_t i = 0; i < session->steps.size() && equal; ++i) {
        const Step &step = session->steps[i];
        const double at = static_cast<double>(step.atMs) / 1000;
        if (at > until) {
            break;
        }
        if (diagnose >= 0 && at > diagnose) {
            report();
        }
        if (!options.toTest) {
            printer.Fed(step);
            Wait(stepping);
        }
        Played played = player.Play(i);
        equal = !played.difference;
        if (options.toTest) {
            all.push_back(std::move(played));
        } else {
            printer.Show(played);
        }
    }
    report();
    const std::string problems = player.Finish();
    if (options.toTest) {
        (void)std::printf("%s", TestSource(*session, all).c_str());
    } else {
        printer.End(problems);
    }
    return equal && problems.empty() ? kExitEqual : kExitDifferent;
}

int Run(int argc, char **argv) {
    Options options;
    CLI::App app(
        "Plays the recording of a consumer into the library, on a clock of its own, and compares what the\n"
        "library sends with what it sent then.",
        "pegeir-replay");
    Declare(app, options);
    try {
        app.parse(argc, argv);
        return Replay(options);
    } catch (const CLI::Success &request) {
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        std::cerr << "pegeir-replay: " << error.what() << "\nTry \"pegeir-replay --help\".\n";
        return kExitUsage;
    }
}

} // namespace
} // namespace pegeir::replay

int main(int argc, char **argv) {
    try {
        return pegeir::replay::Run(argc, argv);
    } catch (const std::exception &error) { // memory is short
        (void)std::fprintf(stderr, "pegeir-replay: %s\n", error.what());
        return pegeir::replay::kExitUsage;
    }
}
