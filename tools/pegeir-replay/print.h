/*
 * What is printed: a line for each thing that happens, for people or as JSON for programs.
 */
#ifndef PEGEIR_REPLAY_PRINT_H
#define PEGEIR_REPLAY_PRINT_H

#include <string>
#include <vector>

#include "player.h"

namespace pegeir::replay {

class Printer {
public:
    // Text leaves out the steps of which nothing comes, unless all are wanted.
    Printer(const Session &aSession, bool asJson, bool everyStep)
        : session(aSession), json(asJson), all(everyStep) {}

    // What the library is about to be fed.
    void Fed(const Step &step);
    // What came of it, the difference included.
    void Show(const Played &played);

    void Report(const std::vector<std::string> &pages) const;
    // The end; problems are what Player::Finish has found.
    void End(const std::string &problems) const;

private:
    void Line(const char *event, char mark, const std::string &text, const Bytes *bytes = nullptr) const;
    void ShowRequests(const std::vector<Request> &requests) const;
    void Show(const Difference &difference, const Step &step) const;

    const Session &session;
    bool json;
    bool all;
    uint64_t atMs = 0;
    size_t steps = 0;
    size_t messages = 0; // sent as then
    bool equal = true;
};

// What a step feeds, in words.
[[nodiscard]] std::string InputText(const Session &session, const Step &step);

} // namespace pegeir::replay

#endif
