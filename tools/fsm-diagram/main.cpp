// Draws the state machine of the library from its transition table, as a Mermaid diagram and as a
// Markdown table, and keeps the copy of both in a document current.
//
// The table names a state, an event and a handler; where a row leads is known to the handler alone.  So
// each row's handler is run on the sim platform, once in every situation that handlers look at: the
// consumer's answer when asked for its subscriptions, its answer when a verification pass is due, and
// whether requests are pending.  A next state that depends on the situation is shown with a guard, which
// must tell exactly the situations that lead there.  Nothing here repeats what a handler does.
//
// Every row is run with its pacing due: a send that is held back leads nowhere.

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dlfcn.h>

#include <pegeir/sim.hpp>

#include "nd_lib/nd_lib.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kBegin = "<!-- fsm-diagram: begin -->";
const std::string kEnd = "<!-- fsm-diagram: end -->";

// ---- Where a row leads ---------------------------------------------------------------------------

// What makes up a situation, each with its values as a guard names them.
const std::array<Lines, 3> kFactors = {{
    {"more", "done", "other answer"}, // the consumer's answer when asked for its subscriptions
    {"accepted", "not accepted"},     // its answer when a verification pass is due
    {"pending", "nothing pending"},   // requests to subscribe
}};
constexpr uint32_t kSituations = 12;

uint32_t ValueIn(uint32_t situation, size_t factor) {
    return std::array{situation % 3, situation / 3 % 2, situation / 6}.at(factor);
}

// An instance carries the number of its situation, from 1, as its appLocal.
uint32_t ValueFor(const ND_LIB_Instance *instance, size_t factor) {
    return ValueIn(ND_LIB_GetAppLocal(instance) - 1, factor);
}

uint32_t Log(ND_LIB_Instance *, uint32_t, const char *, ...) {
    return 0;
}

uint32_t RunHandler(const ND_LIB_FsmStateTrans &row, uint32_t situation) {
    pegeir::sim::World world;
    const ND_LIB_FrameRegister frame = {1, 2, 3, 4, situation + 1, Log, 0, 0};
    const ND_LIB_ConsumerRegister consumer = {
        1,
        [](ND_LIB_Instance *instance, void *) {
            return std::array<uint32_t, 3>{ND_LIB_PACK_MORE, ND_LIB_PACK_DONE, 7}.at(ValueFor(instance, 0));
        },
        [](ND_LIB_Instance *instance, uint32_t, uint32_t) { return ValueFor(instance, 1); },
        [](ND_LIB_Instance *, const ND_LIB_TlvHead *) { return uint32_t{0}; }};
    ND_LIB_Instance *instance = ND_LIB_Init(&frame);
    ND_LIB_RegisterConsumer(instance, &consumer);
    if (ValueIn(situation, 2) == 0) {
        const std::array<ND_LIB_ItemHead, 2> key = {{{1000, 4}, {0, 1}}}; // the second one is its bytes
        const ND_LIB_ItemHead data = {0, 0};
        ND_LIB_Subscribe(instance, key.data(), &data);
    }
    ND_LIB_StartVerify(instance);
    instance->consumer.compFsmState = row.state;
    pegeir::sim::Record record;
    record.bytes = {0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}; // a header without a body
    const pegeir::sim::Message message(world, record);
    const uint32_t next = row.handler(instance, message.Data());
    ND_LIB_Deinit(instance);
    return next;
}

// Names the values that the situations have in common, or nothing when they are all there are.
std::string GuardOf(const std::set<uint32_t> &situations) {
    std::string guard;
    size_t told = 1;
    for (size_t factor = 0; factor < kFactors.size(); ++factor) {
        std::set<uint32_t> values;
        for (const uint32_t situation : situations) {
            values.insert(ValueIn(situation, factor));
        }
        told *= values.size();
        for (const uint32_t value : values.size() < kFactors[factor].size() ? values : std::set<uint32_t>{}) {
            guard += (guard.empty()              ? " ["
                      : value == *values.begin() ? ", "
                                                 : " or ") +
                     kFactors[factor][value];
        }
    }
    if (told != situations.size()) {
        throw std::runtime_error("no guard tells when a row leads where it leads");
    }
    return guard.empty() ? guard : guard + "]";
}

// The next states of a row with their guards.
std::map<uint32_t, std::string> OutcomesOf(const ND_LIB_FsmStateTrans &row) {
    std::map<uint32_t, std::set<uint32_t>> leading;
    for (uint32_t situation = 0; situation < kSituations; ++situation) {
        leading[RunHandler(row, situation)].insert(situation);
    }
    leading.erase(ND_LIB_FSM_MAX);
    std::map<uint32_t, std::string> outcomes;
    for (const auto &[state, situations] : leading) {
        outcomes[state] = GuardOf(situations);
    }
    return outcomes;
}

// ---- The text ------------------------------------------------------------------------------------

std::string HandlerName(const ND_LIB_FsmStateTrans &row) {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<const void *>(row.handler), &info) == 0 || info.dli_sname == nullptr) {
        throw std::runtime_error("the library does not name its handlers");
    }
    return info.dli_sname;
}

std::string Arrow(uint32_t from, uint32_t to) {
    std::string ids = std::string(ND_LIB_GetFsmName(from)) + ">" + ND_LIB_GetFsmName(to);
    std::ranges::replace(ids, ' ', '_');
    return "    " + ids.replace(ids.find('>'), 1, " --> ");
}

void Join(std::string &list, const char *separator, const std::string &item) {
    list += (list.empty() ? "" : separator) + item;
}

Lines Generate() {
    std::map<std::pair<uint32_t, uint32_t>, std::string> labels;
    std::string fallen;
    Lines table = {"| Row | State | Event | Handler | Next state |", "|---|---|---|---|---|"};
    for (const ND_LIB_FsmStateTrans &row : g_ndLibFsmStateTrans) {
        const std::string state = ND_LIB_GetFsmName(row.state);
        const std::string event = ND_LIB_GetEventName(row.event);
        std::string next;
        for (const auto &[to, guard] : OutcomesOf(row)) {
            Join(next, ", ", ND_LIB_GetFsmName(to) + guard);
            if (row.event == ND_LIB_EVT_COMPONENT_DOWN && to == ND_LIB_FSM_INIT) {
                Join(fallen, ", ", state); // these arrows would hide all others
            } else {
                Join(labels[{row.state, to}], " / ", event + guard);
            }
        }
        std::string line = "| " + std::to_string(&row - g_ndLibFsmStateTrans);
        const std::string handler = std::string("`").append(HandlerName(row)).append("`");
        for (const std::string &cell : {state, event, handler, next.empty() ? "–" : next}) {
            line.append(" | ").append(cell);
        }
        table.push_back(line + " |");
    }
    Lines text = {"```mermaid", "stateDiagram-v2", "    [*] --> Init"};
    for (const auto &[states, label] : labels) {
        text.push_back(Arrow(states.first, states.second) + ": " + label);
    }
    text.insert(text.end(),
                {"```", "", "Not drawn: *Component down* leads to Init from " + fallen + ".", ""});
    std::ranges::move(table, std::back_inserter(text));
    return text;
}

// ---- The document --------------------------------------------------------------------------------

// Compares what stands between the markers with the generated text, or puts that text there.  Returns the
// exit code.
int Treat(const std::string &path, bool update) {
    std::ifstream in(path);
    Lines lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    if (lines.empty()) {
        throw std::runtime_error(path + " cannot be read");
    }
    const auto begin = std::ranges::find(lines, kBegin);
    const auto end = std::find(begin, lines.end(), kEnd);
    if (end == lines.end()) {
        throw std::runtime_error(path + " has no line \"" + kBegin + "\" with a line \"" + kEnd +
                                 "\" behind it");
    }
    const Lines wanted = Generate();
    const auto [found, expected] = std::mismatch(begin + 1, end, wanted.begin(), wanted.end());
    if (found == end && expected == wanted.end()) {
        return 0;
    }
    if (!update) {
        std::cerr << path << ":" << found - lines.begin() + 1 << ": is not what the transition table says\n"
                  << "  found:    " << *found << "\n"
                  << "  expected: " << (expected == wanted.end() ? kEnd : *expected) << "\n"
                  << "run: fsm-diagram --update " << path << "\n";
        return 1;
    }
    lines.insert(lines.erase(begin + 1, end), wanted.begin(), wanted.end());
    std::ofstream out(path);
    std::ranges::copy(lines, std::ostream_iterator<std::string>(out, "\n"));
    if (!out.flush()) {
        throw std::runtime_error(path + " cannot be written");
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (argc != 1 && (argc != 3 || (mode != "--check" && mode != "--update"))) {
        std::cerr << "usage: fsm-diagram                    print the diagram and the table\n"
                     "       fsm-diagram --check DOCUMENT   fail unless the document shows them\n"
                     "       fsm-diagram --update DOCUMENT  make it show them\n";
        return 2;
    }
    try {
        if (argc == 3) {
            return Treat(argv[2], mode == "--update");
        }
        std::ranges::copy(Generate(), std::ostream_iterator<std::string>(std::cout, "\n"));
        return 0;
    } catch (const std::exception &error) {
        std::cerr << "fsm-diagram: " << error.what() << "\n";
        return 1;
    }
}
