/*
 * The consumer itself: one library instance, its callbacks, and what they make known.
 *
 * The library tells a consumer four things: that it wants the subscriptions (the registration or a
 * verification pass has begun), that a download begins and ends, and that a pass has ended.  Together
 * with the platform's word on whether the component is there, that is the whole life of a connection,
 * and what this class turns into plain words.
 */
#ifndef PEGEIR_WATCH_CLIENT_H
#define PEGEIR_WATCH_CLIENT_H

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <string>

#include <pegeir/pegeir.hpp>

#include "options.h"
#include "output.h"
#include "table.h"

namespace pegeir::watch {

class Client final : private Consumer {
public:
    // options and output must outlive the client.  There is one client at a time: the platform has one
    // runtime in a process.
    Client(const Options &userOptions, Output &userOutput);
    ~Client();

    // Opens the runtime, creates the instance and watches for the component.  False with the reason in
    // error; the destructor cleans up either way.
    [[nodiscard]] bool Open(std::string &error);

    // Asks for one verification pass; with --verify, which has its own schedule, this changes nothing.
    void RequestVerification();

    // Prints the five diagnose reports, and the table.
    void Diagnose();
    void Summarise() { output.Summary(table); }

    // To be called a few times a second: hints about what does not happen, and the progress.
    void Tick();

    // Everything that --until-ready, --until-verified and --count ask for has come; true also when they
    // are not given.
    [[nodiscard]] bool Satisfied() const;
    // Satisfied, and one of them was given.
    [[nodiscard]] bool Finished() const;

private:
    enum class Phase : uint8_t { kAbsent, kRegistering, kCollecting, kUploading, kDownloading, kReady };
    using Clock = std::chrono::steady_clock;

    void OnMessage(void *message);
    void OnPeer(bool available);

    Collected OnCollect(ClientRef client, void *optionData) override;
    void OnRecord(ClientRef client, const pegeir::Record &received) override;
    void OnDownloadBegin(ClientRef client) override;
    void OnDownloadEnd(ClientRef client) override;
    bool OnVerifyRequest(ClientRef client) override;
    void OnVerifyEnd(ClientRef client) override;
    void OnLog(ClientRef client, LogLevel level, const char *format, va_list arguments) override
        ND_LIB_PRINTF(4, 0);

    void Enter(Phase next);
    void Refused(const std::string &reason, uint32_t sender, uint32_t length);
    void FinishDownload(const char *state, const std::string &text);
    [[nodiscard]] Result Subscribe(const Subscription &subscription);
    [[nodiscard]] std::string Whereabouts() const;
    [[nodiscard]] std::string ProgressText();
    [[nodiscard]] uint64_t PendingKeys();

    const Options &options;
    Output &output;
    Table table;
    pegeir::Client library;

    Phase phase = Phase::kAbsent;
    Clock::time_point phaseStart = Clock::now();
    bool verifying = false; // the pass is under way, from the question to its end
    bool hinted = false;    // this phase's hint has been given
    size_t collected = 0;   // subscriptions of the present collection made so far
    size_t keys = 0;        // different keys among the subscriptions
    uint64_t malformed = 0; // records of the present comparison that could not be read
    uint64_t items = 0;     // items since the start
    bool wasReady = false;
    bool wasVerified = false;

    std::string lastFailure; // the library's last report of a failure while handling a message
    uint64_t refused = 0;    // messages refused in the present second
    Clock::time_point refusedSince;
};

} // namespace pegeir::watch

#endif
