/*
 * Callbacks of the library and the platform in, lines of output out.  Nothing in here waits: a callback
 * notes what has happened, and the next one or the tick goes on from there.
 */
#include "client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include <pegeir/linux.h>
#include <pegeir/nd_data.h>

namespace pegeir::watch {
namespace {

// Subscriptions made in one go.  The rest follows a second later, so that messages, signals and the
// terminal get their turn.
constexpr size_t kSubscriptionsPerRound = 20000;

// Longer silence of a component that is there deserves a word.
constexpr std::chrono::seconds kPatience{10};

// What is over sooner needs no progress.
constexpr std::chrono::seconds kProgressDelay{1};

// A flood of bad messages must not become a flood of lines.
constexpr uint64_t kRefusedPerSecond = 5;

constexpr size_t kReportSize = 262144;

constexpr uint32_t kTimerIid = 3;

std::string Plural(uint64_t count, const char *noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

std::string TallyText(const Tally &tally) {
    std::string text;
    const auto add = [&text](size_t count, const char *what) {
        if (count != 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + ' ' + what;
        }
    };
    add(tally.fresh, "new");
    add(tally.changed, "changed");
    add(tally.gone, "gone");
    return text.empty() ? "no difference" : text;
}

} // namespace

Client::Client(const Options &userOptions, Output &userOutput) : options(userOptions), output(userOutput) {
    Subscription lastKey = {};
    for (const Subscription &subscription : options.subscriptions) { // those of one key stand together
        const bool sameKey =
            keys != 0 && subscription.keyType == lastKey.keyType && subscription.key == lastKey.key;
        keys += sameKey ? 0 : 1;
        lastKey = subscription;
    }
}

Client::~Client() {
    library.Close(); // while it can still release its timers
    PEGEIR_LinuxClose();
}

bool Client::Open(std::string &error) {
    const char *const directory = options.directory.empty() ? nullptr : options.directory.c_str();
    const auto onMessage = [](void *client, void *message) {
        static_cast<Client *>(client)->OnMessage(message);
    };
    const auto onPeer = [](void *client, uint32_t /*peer*/, int available) {
        static_cast<Client *>(client)->OnPeer(available != 0);
    };
    const PEGEIR_LinuxConfig config = {options.id, directory, onMessage, this};
    std::array<char, 512> text = {};
    if (PEGEIR_LinuxOpen(&config, text.data(), text.size()) != 0) {
        error = text.data();
        return false;
    }
    library = pegeir::Client({.component = options.component, .self = options.id}, *this);
    if (!library) {
        error = "the library could not be set up: out of memory?";
        return false;
    }
    if (options.verify && (library.SetVerifyCycle(options.verifyCycle) != Result::kOk ||
                           library.StartVerify() != Result::kOk)) {
        error = "the library refused a verification cycle of " + std::to_string(options.verifyCycle) + " s";
        return false;
    }
    if (PEGEIR_LinuxWatchPeer(options.component, onPeer, this) != 0) {
        error =
            "cannot watch for component " + std::to_string(options.component) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void Client::Enter(Phase next) {
    phase = next;
    phaseStart = Clock::now();
    hinted = false;
}

// ---- Messages ---------------------------------------------------------------------------------------

void Client::OnMessage(void *message) {
    const bool timer = DMS_MsgRecvIidGet(message) == kTimerIid;
    const uint32_t sender = DMS_MsgSendCidGet(message);
    const uint32_t length = DMS_MsgDataLenGet(message);
    // The library takes every ndpi message for one of its component.
    if (!timer && sender != options.component) {
        Refused("it is not from component " + std::to_string(options.component), sender, length);
        return;
    }
    lastFailure.clear();
    const Result result = library.Process(message);
    if (result == Result::kSequence && table.Comparing()) {
        table.AbandonComparison(); // the rest of this download does not count
        output.Problem("gap", "the download has a gap; asking for a new one");
    } else if (result == Result::kSequence) {
        Refused("it is out of sequence", sender, length);
    } else if (result != Result::kOk) {
        Refused(lastFailure.empty() ? "it is no valid message of the ND component" : lastFailure, sender,
                length);
    }
}

void Client::Refused(const std::string &reason, uint32_t sender, uint32_t length) {
    if (Clock::now() - refusedSince >= std::chrono::seconds(1)) {
        refusedSince = Clock::now();
        refused = 0;
    }
    if (++refused <= kRefusedPerSecond) {
        output.Problem("refused",
                       "refused a message of " + Plural(length, "byte") + " from process " +
                           std::to_string(sender) + ": " + reason,
                       {{"from", sender}, {"bytes", length}});
    } else if (refused == kRefusedPerSecond + 1) {
        output.Problem("refused", "refusing more such messages without a line for each");
    }
}

void Client::OnRecord(ClientRef /*client*/, const pegeir::Record &received) {
    if (Finished()) {
        return; // the event loop is about to end
    }
    const auto [type, bytes] = received;
    const auto decoded = DecodeRecord(type, bytes);
    if (const auto *const record = std::get_if<Record>(&decoded)) {
        ++items;
        const Table::Outcome outcome = table.Apply(*record);
        output.ItemSeen(outcome.change, outcome.item, table.InterfaceName(outcome.item));
    } else if (const auto *const fault = std::get_if<Malformed>(&decoded)) {
        ++malformed;
        output.Problem("malformed", "malformed data: " + fault->reason,
                       {{"type", type}, {"bytes", bytes.size()}});
    } else {
        std::array<char, 8> hex = {};
        (void)std::snprintf(hex.data(), hex.size(), "0x%04x", static_cast<unsigned>(type));
        output.Problem("unknown", "data of unknown type " + std::string(hex.data()) + ": " + HexText(bytes),
                       {{"type", type}, {"bytes", bytes.size()}});
    }
}

void Client::OnLog(ClientRef /*client*/, LogLevel level, const char *format, va_list arguments) {
    const bool wanted = options.logLevel.has_value() && static_cast<uint32_t>(level) <= *options.logLevel;
    // The first failure says why; later ones only that the same thing failed.
    const bool telling = level == LogLevel::kFailure && lastFailure.empty();
    if (!wanted && !telling) {
        return;
    }
    std::array<char, 512> text = {};
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    if (wanted) {
        output.Progress({});
        (void)std::fprintf(stderr, "log %u: %s\n", static_cast<unsigned>(level), text.data());
    }
    if (telling) {
        const std::string_view line = text.data();
        const size_t prefix = line.find(", ");
        lastFailure = prefix == std::string_view::npos ? line : line.substr(prefix + 2);
    }
}

// ---- States -----------------------------------------------------------------------------------------

std::string Client::Whereabouts() const {
    return "component " + std::to_string(options.component) + " in " +
           (options.directory.empty() ? PEGEIR_LinuxDirectory() : options.directory);
}

void Client::OnPeer(bool available) {
    if (available) {
        Enter(Phase::kRegistering);
        output.State("available",
                     "component " + std::to_string(options.component) + " is available; registering");
    } else {
        Enter(Phase::kAbsent);
        hinted = true; // said here
        verifying = false;
        table.AbandonComparison();
        output.State("gone",
                     "component " + std::to_string(options.component) + " is gone; waiting for it to return");
    }
    collected = 0; // what was subscribed so far is dropped with the component
    library.NotifyComponent(available);
}

Result Client::Subscribe(const Subscription &subscription) {
    std::array<uint8_t, 4> key = {};
    for (size_t i = 0; i < key.size(); ++i) {
        key.at(i) = static_cast<uint8_t>(subscription.key >> (24 - 8 * i));
    }
    return library.Subscribe({subscription.keyType, key}, {subscription.dataType});
}

Collected Client::OnCollect(ClientRef /*client*/, void * /*optionData*/) {
    const std::vector<Subscription> &wanted = options.subscriptions;
    if (!verifying && phase != Phase::kCollecting) {
        Enter(Phase::kCollecting);
        output.State("registered", "registered; uploading " + Plural(wanted.size(), "subscription"),
                     {{"subscriptions", wanted.size()}});
    }
    const size_t roundEnd = std::min(wanted.size(), collected + kSubscriptionsPerRound);
    while (collected < roundEnd) {
        if (Subscribe(wanted.at(collected)) != Result::kOk) {
            output.Problem("subscribe",
                           "the library could not store a subscription, out of memory?  Trying again");
            return Collected::kMore;
        }
        ++collected;
    }
    if (collected < wanted.size()) {
        return Collected::kMore;
    }
    collected = 0;
    Enter(Phase::kUploading);
    if (verifying) {
        // The library does not tell when the download of a pass begins.  From here on it can only be
        // preceded by real-time updates, which name what exists just as well.
        table.BeginComparison();
        malformed = 0;
    }
    return Collected::kDone;
}

void Client::OnDownloadBegin(ClientRef /*client*/) {
    output.State("downloading", phase == Phase::kDownloading ? "download begins again" : "download begins");
    verifying = false; // a gap in the download of a pass leads to a full one
    table.BeginComparison();
    malformed = 0;
    Enter(Phase::kDownloading);
}

void Client::OnDownloadEnd(ClientRef /*client*/) {
    if (table.Comparing()) {
        FinishDownload("ready", "ready");
        wasReady = true;
    }
}

bool Client::OnVerifyRequest(ClientRef /*client*/) {
    verifying = true;
    collected = 0;
    output.State("verifying",
                 "verification begins; uploading " + Plural(options.subscriptions.size(), "subscription"));
    return true;
}

void Client::OnVerifyEnd(ClientRef client) {
    if (!verifying) {
        return;
    }
    verifying = false;
    FinishDownload("verified", "verification complete");
    wasVerified = true;
    if (!options.verify) {
        (void)client.StopVerify();
    }
}

void Client::FinishDownload(const char *state, const std::string &text) {
    if (malformed != 0) {
        table.AbandonComparison();
        output.Problem("incomplete",
                       Plural(malformed, "record") + " could not be read; nothing is taken for gone");
    }
    for (const Item &item : table.EndComparison()) {
        output.ItemSeen(Change::kGone, item, table.InterfaceName(item));
    }
    const Tally &tally = table.CurrentTally();
    output.State(state, text + ": " + Plural(table.Size(), "item") + ", " + TallyText(tally),
                 {{"items", table.Size()},
                  {"records", tally.records},
                  {"new", tally.fresh},
                  {"changed", tally.changed},
                  {"gone", tally.gone}});
    Enter(Phase::kReady);
}

void Client::RequestVerification() {
    if (verifying) {
        output.State("verify-requested", "a verification pass is under way already");
    } else if (library.StartVerify() == Result::kOk) {
        output.State("verify-requested", "a verification pass was asked for; it begins when it is due");
    }
}

bool Client::Satisfied() const {
    return (!options.untilReady || wasReady) && (!options.untilVerified || wasVerified) &&
           items >= options.count;
}

bool Client::Finished() const {
    return (options.untilReady || options.untilVerified || options.count != 0) && Satisfied();
}

// ---- Reports ----------------------------------------------------------------------------------------

void Client::Diagnose() {
    std::vector<char> buffer(kReportSize);
    Result result = Result::kOk;
    for (unsigned number = 1; result == Result::kOk; ++number) {
        const Page page = library.Diagnose(buffer, number == 1);
        result = page.result;
        output.Report(number, std::string(page.text));
    }
}

void Client::Tick() {
    const auto silence = Clock::now() - phaseStart;
    if (phase == Phase::kAbsent && !hinted) {
        hinted = true;
        output.State("waiting",
                     "there is no " + Whereabouts() + "; waiting for it (start it with: pegeir-component)");
    } else if (phase == Phase::kRegistering && !hinted && silence >= kPatience) {
        hinted = true;
        output.Problem("silent", Whereabouts() + " is there but has not answered the registration for " +
                                     std::to_string(kPatience.count()) +
                                     " s; is it a pegeir-component, and is it running?");
    }
    if (output.ShowsProgress()) {
        output.Progress(silence >= kProgressDelay ? ProgressText() : std::string());
    }
}

// The library does not count acknowledgements for the consumer, but its first report tells how many keys
// still wait for one.
uint64_t Client::PendingKeys() {
    static constexpr std::string_view kLabel = "subscribeTree num";
    std::array<char, 2048> buffer = {};
    const std::string_view text = library.Diagnose(buffer, true).text;
    uint64_t pending = 0;
    const size_t label = text.find(kLabel);
    const size_t digits = label == std::string_view::npos ? label : text.find_first_of("0123456789", label);
    if (digits != std::string_view::npos) {
        (void)std::from_chars(text.data() + digits, text.data() + text.size(), pending);
    }
    return pending;
}

std::string Client::ProgressText() {
    const std::string pass = verifying ? "verifying: " : "";
    switch (phase) {
    case Phase::kCollecting:
        return "collecting subscriptions: " + std::to_string(collected) + " of " +
               std::to_string(options.subscriptions.size());
    case Phase::kUploading:
        if (verifying && table.CurrentTally().records != 0) { // the pass has got on to its download
            return pass + Plural(table.CurrentTally().records, "record");
        }
        return pass + "uploading: " + std::to_string(keys - std::min<uint64_t>(keys, PendingKeys())) +
               " of " + Plural(keys, "key") + " acknowledged";
    case Phase::kDownloading:
        return "downloading: " + Plural(table.CurrentTally().records, "record");
    default:
        return {};
    }
}

} // namespace pegeir::watch
