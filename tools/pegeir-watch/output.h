/*
 * How the program speaks: text for people, or JSON, one object a line, for programs.
 *
 * Lines are collected and written by Flush, once per round of the event loop, so that a download of
 * many thousand items is not as many writes.  Progress goes to a terminal on standard error and never
 * into the lines.
 */
#ifndef PEGEIR_WATCH_OUTPUT_H
#define PEGEIR_WATCH_OUTPUT_H

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "table.h"

namespace pegeir::watch {

using Json = nlohmann::ordered_json;

// An item as one line of text.  interfaceName may be empty: the number stands for it then.
[[nodiscard]] std::string ItemText(const Item &item, const std::string &interfaceName);

// An item as JSON object, with the field "kind" first.
[[nodiscard]] Json ItemJson(const Item &item);

[[nodiscard]] std::string HexText(std::span<const uint8_t> bytes);

// Text of another process made fit for a terminal: whatever is not printable ASCII becomes \xNN.
[[nodiscard]] std::string Printable(const std::string &text);

class Output {
public:
    struct Config {
        bool json = false;
        bool quiet = false;       // no state changes
        bool changesOnly = false; // no items that are as before
        bool progress = false;    // standard error is a terminal that may show progress
    };

    explicit Output(const Config &settings) : config(settings) {}

    // A number that the text tells in words, for programs.
    struct Field {
        const char *name;
        uint64_t value;
    };

    // A change of state, and something that is not as it should be: `name` and fields for programs,
    // `text` for people.
    void State(const char *name, const std::string &text, std::initializer_list<Field> fields = {});
    void Problem(const char *name, const std::string &text, std::initializer_list<Field> fields = {});

    void ItemSeen(Change change, const Item &item, const std::string &interfaceName);

    // Everything that is known, one line an item, then the numbers.
    void Summary(const Table &table);

    // One page of the diagnose reports.
    void Report(unsigned page, const std::string &text);

    [[nodiscard]] bool ShowsProgress() const { return config.progress; }
    // Shows text in place of the last progress; empty removes it.
    void Progress(const std::string &text);

    // Writes the collected lines to standard output.  False, with errno, when that failed.
    [[nodiscard]] bool Flush();

private:
    void Event(const char *event, const char *name, char mark, const std::string &text,
               std::initializer_list<Field> fields);
    void Line(char mark, const std::string &text);
    void Object(const char *event, const Json &fields);
    [[nodiscard]] bool WriteLines();

    Config config;
    std::string lines;
    std::string progress;
};

} // namespace pegeir::watch

#endif
