/*
 * pegeir-watch: a consumer of the ND component as a command.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <variant>

#include <unistd.h>

#include <pegeir/linux.h>

#include "client.h"
#include "events.h"
#include "options.h"
#include "output.h"

namespace pegeir::watch {
namespace {

int Fail(const std::string &text) {
    (void)std::fprintf(stderr, "pegeir-watch: %s\n", text.c_str());
    return kExitFailure;
}

// A reader that has gone away, as head(1) does, is told nothing.
int FailToWrite() {
    return errno == EPIPE ? static_cast<int>(kExitFailure)
                          : Fail(std::string("cannot write the output: ") + std::strerror(errno));
}

int Watch(const Options &options) {
    Output output({.json = options.json,
                   .quiet = options.quiet,
                   .changesOnly = options.changesOnly,
                   .progress = !options.json && !options.quiet && isatty(STDERR_FILENO) != 0});
    Client client(options, output);
    Events events;
    std::string error;
    PEGEIR_LinuxCapture(options.capture.empty() ? nullptr : options.capture.c_str());
    if (!client.Open(error)) {
        return Fail(error);
    }
    bool ended = false;
    const auto onSignal = [&](int signal) {
        if (signal == SIGUSR1) {
            client.Diagnose();
        } else if (signal == SIGUSR2) {
            client.RequestVerification();
        } else {
            ended = true;
        }
    };
    if (!events.OnSignals({SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}, onSignal) ||
        !events.OnTime(250, output.ShowsProgress() ? 250 : 1000, [&] { client.Tick(); }) ||
        (options.forSeconds > 0 &&
         !events.OnTime(static_cast<uint64_t>(options.forSeconds * 1000), 0, [&] { ended = true; }))) {
        return Fail(std::string("cannot set up signals and timers: ") + std::strerror(errno));
    }
    while (!ended && !client.Finished()) {
        if (PEGEIR_LinuxDispatch(-1) != 0) {
            return Fail(std::string("waiting for messages failed: ") + std::strerror(errno));
        }
        if (!output.Flush()) {
            return FailToWrite();
        }
    }
    if (options.summary) {
        client.Summarise();
    }
    if (options.diagnose) {
        client.Diagnose();
    }
    if (!output.Flush()) {
        return FailToWrite();
    }
    if (!client.Satisfied()) {
        (void)Fail("ended before what --until-ready, --until-verified or --count waits for had come");
        return kExitUnsatisfied;
    }
    return kExitOk;
}

} // namespace
} // namespace pegeir::watch

int main(int argc, char **argv) {
    PEGEIR_LinuxOpenStandardStreams();   // before anything else takes their numbers
    (void)std::signal(SIGPIPE, SIG_IGN); // a closed pipe is an error of the write, and ends us in order
    const auto options = pegeir::watch::ParseOptions(argc, argv);
    if (const int *const code = std::get_if<int>(&options)) {
        return *code;
    }
    return pegeir::watch::Watch(std::get<pegeir::watch::Options>(options));
}
