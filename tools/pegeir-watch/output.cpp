/*
 * Text and JSON of everything that is printed.  Each kind of item has one function in either form; what
 * another process has named is made printable on the way.
 */
#include "output.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <pegeir/nd_data.h>

namespace pegeir::watch {
namespace {

// Enough to be worth a write of its own, in case one round of the loop brings very much.
constexpr size_t kFlushSize = 262144;

[[gnu::format(printf, 1, 2)]] std::string Formatted(const char *format, ...) {
    std::array<char, 128> text = {};
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return text.data();
}

std::string MacText(const Mac &mac) {
    return Formatted("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string AddressText(const Address &address) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    (void)inet_ntop(AF_INET6, address.data(), text.data(), text.size());
    return text.data();
}

std::string NeighbourStateText(uint8_t state) {
    struct Name {
        uint8_t state;
        const char *name;
    };
    static constexpr std::array<Name, 8> kNames = {{{1, "INCOMPLETE"},
                                                    {2, "REACHABLE"},
                                                    {4, "STALE"},
                                                    {8, "DELAY"},
                                                    {16, "PROBE"},
                                                    {32, "FAILED"},
                                                    {64, "NOARP"},
                                                    {128, "PERMANENT"}}};
    for (const Name &name : kNames) {
        if (name.state == state) {
            return name.name;
        }
    }
    return Formatted("0x%02x", state);
}

struct Writer {
    const std::string &interfaceName;

    [[nodiscard]] std::string Where(uint32_t ifindex) const {
        const std::string number = std::to_string(ifindex);
        return interfaceName.empty() ? "interface " + number : Printable(interfaceName) + " (" + number + ")";
    }
    std::string operator()(const Link &link) const {
        std::string text = "link " + Printable(link.name) + " (" + std::to_string(link.ifindex) + "): ";
        text += (link.flags & ND_DATA_LINK_UP) != 0 ? "up" : "down";
        text += (link.flags & ND_DATA_LINK_RUNNING) != 0 ? ", running" : "";
        text += (link.flags & ND_DATA_LINK_LOOPBACK) != 0 ? ", loopback" : "";
        return text + ", mtu " + std::to_string(link.mtu) + ", mac " + MacText(link.mac);
    }
    std::string operator()(const RaInterval &interval) const {
        return "router advertisements on " + Where(interval.ifindex) + ": every " +
               std::to_string(interval.min) + " to " + std::to_string(interval.max) + " s";
    }
    std::string operator()(const Neighbour &neighbour) const {
        return "neighbour " + AddressText(neighbour.address) + " on " + Where(neighbour.ifindex) + ": " +
               NeighbourStateText(neighbour.state) + (neighbour.router ? ", router" : "") +
               (neighbour.hasMac ? ", mac " + MacText(neighbour.mac) : "");
    }
    std::string operator()(const Synthetic &synthetic) const {
        return "synthetic " + std::to_string(synthetic.index) + ": revision " +
               std::to_string(synthetic.revision) +
               (synthetic.bytes.empty() ? "" : ", bytes " + HexText(synthetic.bytes));
    }
};

struct JsonWriter {
    Json operator()(const Link &link) const {
        return {{"kind", "link"},
                {"ifindex", link.ifindex},
                {"name", link.name},
                {"up", (link.flags & ND_DATA_LINK_UP) != 0},
                {"running", (link.flags & ND_DATA_LINK_RUNNING) != 0},
                {"loopback", (link.flags & ND_DATA_LINK_LOOPBACK) != 0},
                {"mtu", link.mtu},
                {"mac", MacText(link.mac)}};
    }
    Json operator()(const RaInterval &interval) const {
        return {{"kind", "ra-interval"},
                {"ifindex", interval.ifindex},
                {"min", interval.min},
                {"max", interval.max}};
    }
    Json operator()(const Neighbour &neighbour) const {
        Json fields = {{"kind", "neighbour"},
                       {"ifindex", neighbour.ifindex},
                       {"address", AddressText(neighbour.address)},
                       {"state", NeighbourStateText(neighbour.state)},
                       {"router", neighbour.router}};
        fields["mac"] = neighbour.hasMac ? Json(MacText(neighbour.mac)) : Json(nullptr);
        return fields;
    }
    Json operator()(const Synthetic &synthetic) const {
        return {{"kind", "synthetic"},
                {"index", synthetic.index},
                {"revision", synthetic.revision},
                {"bytes", HexText(synthetic.bytes)}};
    }
};

struct ChangeName {
    char mark;
    const char *name;
};

ChangeName NameOfChange(Change change) {
    switch (change) {
    case Change::kNew:
        return {'+', "new"};
    case Change::kChanged:
        return {'~', "changed"};
    case Change::kSame:
        return {'=', "same"};
    case Change::kGone:
        break;
    }
    return {'-', "gone"};
}

// The time of day for people, or the full time for programs.
std::string TimeText(bool full) {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    std::tm parts = {};
    std::array<char, 32> text = {};
    if (!full) {
        (void)localtime_r(&now.tv_sec, &parts);
        (void)std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
        return text.data();
    }
    (void)gmtime_r(&now.tv_sec, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return text.data() + Formatted(".%03dZ", static_cast<int>(now.tv_nsec / 1000000));
}

} // namespace

std::string ItemText(const Item &item, const std::string &interfaceName) {
    return std::visit(Writer{interfaceName}, item);
}

Json ItemJson(const Item &item) {
    return std::visit(JsonWriter{}, item);
}

std::string HexText(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        text += Formatted("%02x", static_cast<unsigned>(byte));
    }
    return text;
}

std::string Printable(const std::string &text) {
    std::string printable;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7f) {
            printable += character;
        } else {
            printable += Formatted("\\x%02x", static_cast<unsigned>(byte));
        }
    }
    return printable;
}

void Output::Line(char mark, const std::string &text) {
    lines += TimeText(false) + ' ' + mark + ' ' + text + '\n';
    if (lines.size() >= kFlushSize) {
        (void)WriteLines(); // what failed is still there for Flush, which reports it
    }
}

void Output::Object(const char *event, const Json &fields) {
    Json object = {{"time", TimeText(true)}, {"event", event}};
    object.update(fields);
    // A name need not be UTF-8; a byte that is not becomes the replacement character.
    lines += object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    if (lines.size() >= kFlushSize) {
        (void)WriteLines();
    }
}

void Output::Event(const char *event, const char *name, char mark, const std::string &text,
                   std::initializer_list<Field> fields) {
    if (!config.json) {
        Line(mark, text);
        return;
    }
    Json object = {{event, name}, {"text", text}};
    for (const Field &field : fields) {
        object[field.name] = field.value;
    }
    Object(event, object);
}

void Output::State(const char *name, const std::string &text, std::initializer_list<Field> fields) {
    if (!config.quiet) {
        Event("state", name, '*', text, fields);
    }
}

void Output::Problem(const char *name, const std::string &text, std::initializer_list<Field> fields) {
    Event("problem", name, '!', text, fields);
}

void Output::ItemSeen(Change change, const Item &item, const std::string &interfaceName) {
    if (change == Change::kSame && config.changesOnly) {
        return;
    }
    const ChangeName name = NameOfChange(change);
    if (config.json) {
        Json object = {{"change", name.name}};
        object.update(ItemJson(item));
        Object("item", object);
    } else {
        Line(name.mark, ItemText(item, interfaceName) + (change == Change::kGone ? " [gone]" : ""));
    }
}

void Output::Summary(const Table &table) {
    const std::array<size_t, 4> counts = {table.Count(0), table.Count(1), table.Count(2), table.Count(3)};
    if (config.json) {
        table.ForEach([this](const Item &item) { Object("known", ItemJson(item)); });
        Object("summary", {{"links", counts[0]},
                           {"raIntervals", counts[1]},
                           {"neighbours", counts[2]},
                           {"synthetic", counts[3]}});
        return;
    }
    lines +=
        Formatted("Known at the end (links: %zu, RA intervals: %zu, neighbours: %zu, synthetic items: %zu)\n",
                  counts[0], counts[1], counts[2], counts[3]);
    table.ForEach([this, &table](const Item &item) {
        lines += "    " + ItemText(item, table.InterfaceName(item)) + '\n';
    });
}

void Output::Report(unsigned page, const std::string &text) {
    if (config.json) {
        Object("diagnose", {{"page", page}, {"text", text}});
    } else {
        lines += text;
    }
}

void Output::Progress(const std::string &text) {
    if (config.progress && text != progress) {
        progress = text;
        (void)std::fprintf(stderr, "\r\033[K%s", text.c_str());
    }
}

bool Output::WriteLines() {
    if (!lines.empty() && !progress.empty()) {
        Progress({}); // both may be on the same terminal
    }
    size_t written = 0;
    while (written < lines.size()) {
        const ssize_t count = write(STDOUT_FILENO, lines.data() + written, lines.size() - written);
        if (count >= 0) {
            written += static_cast<size_t>(count);
        } else if (errno == EAGAIN) { // somebody has made our standard output non-blocking
            pollfd out = {STDOUT_FILENO, POLLOUT, 0};
            (void)poll(&out, 1, -1);
        } else if (errno != EINTR) {
            lines.erase(0, written);
            return false;
        }
    }
    lines.clear();
    return true;
}

bool Output::Flush() {
    return WriteLines();
}

} // namespace pegeir::watch
