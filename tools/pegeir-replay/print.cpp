/*
 * Text and JSON.  A difference shows both messages field by field, so that the eye need not compare hex.
 */
#include "print.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "output.h"

namespace pegeir::replay {
namespace {

using Json = nlohmann::ordered_json;
using watch::HexText;

// More of them are no help to anybody.
constexpr size_t kMostFields = 8;
constexpr size_t kMostRequests = 10;

void Print(const Json &object) {
    // A name in a record need not be UTF-8.
    (void)std::printf("%s\n", object.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

struct Look {
    const char *name;
    char mark;
};

Look LookOf(Event::Kind kind) {
    switch (kind) {
    case Event::Kind::kSent:
        return {"sent", '>'};
    case Event::Kind::kState:
        return {"state", '*'};
    case Event::Kind::kRecord:
        return {"record", '+'};
    case Event::Kind::kNotify:
        return {"notified", '='};
    case Event::Kind::kPack:
        return {"asked", '='};
    case Event::Kind::kRefused:
        break;
    }
    return {"refused", '!'};
}

std::vector<Field> FieldsOf(const Sent &sent) {
    std::vector<Field> fields = MessageFields(sent.bytes);
    fields.insert(fields.begin(), {"receiver", std::to_string(sent.receiver)});
    return fields;
}

Json JsonOf(const Sent &sent) {
    Json object = {{"bytes", HexText(sent.bytes)}};
    for (const Field &field : FieldsOf(sent)) {
        object[field.name] = field.value;
    }
    return object;
}

void PrintFields(const Difference &difference) {
    const auto fieldsOf = [](const auto &sent) { return sent ? FieldsOf(*sent) : std::vector<Field>(); };
    std::vector<Field> then = fieldsOf(difference.then);
    std::vector<Field> now = fieldsOf(difference.now);
    const auto same = [](const Field &left, const Field &right) {
        return left.name == right.name && left.value == right.value;
    };
    if (difference.then && difference.now && std::ranges::equal(then, now, same)) {
        then.push_back({"bytes", HexText(difference.then->bytes)}); // of what no field tells
        now.push_back({"bytes", HexText(difference.now->bytes)});
    }
    size_t records = 0; // that are the same
    size_t shown = 0;
    for (size_t i = 0; i < std::max(then.size(), now.size()); ++i) {
        const Field *const left = i < then.size() ? &then[i] : nullptr;
        const Field *const right = i < now.size() ? &now[i] : nullptr;
        if (left != nullptr && right != nullptr && same(*left, *right)) {
            if (left->name.starts_with("record")) {
                ++records;
            } else {
                (void)std::printf("             %-10s %s\n", left->name.c_str(), left->value.c_str());
            }
            continue;
        }
        if (++shown > kMostFields) {
            (void)std::printf("             and more\n");
            break;
        }
        if (left != nullptr) {
            (void)std::printf("    ! then   %-10s %s\n", left->name.c_str(), left->value.c_str());
        }
        if (right != nullptr) {
            (void)std::printf("    ! now    %-10s %s\n", right->name.c_str(), right->value.c_str());
        }
    }
    if (records != 0) {
        (void)std::printf("             %zu records are the same\n", records);
    }
}

double SecondsOf(uint64_t ms) {
    return static_cast<double>(ms) / 1000;
}

} // namespace

std::string InputText(const Session &session, const Step &step) {
    const std::string component = "component " + std::to_string(session.component);
    switch (step.input) {
    case Input::kAvailable:
        return component + " has come";
    case Input::kGone:
        return component + " is gone";
    case Input::kSecond:
        return "a second has passed";
    case Input::kOtherTimer:
        return "another timer has expired";
    case Input::kMessage:
        break;
    }
    std::string text = MessageText(step.packet.data);
    if (step.packet.sender != session.component) {
        text += ", from process " + std::to_string(step.packet.sender) + (step.handedOn ? "" : ", kept back");
    }
    return text;
}

void Printer::Line(const char *event, char mark, const std::string &text, const Bytes *bytes) const {
    if (json) {
        Json object = {{"time", SecondsOf(atMs)}, {"event", event}, {"text", text}};
        if (bytes != nullptr) {
            object["bytes"] = HexText(*bytes);
        }
        Print(object);
    } else {
        (void)std::printf("%10.3f %c %s\n", SecondsOf(atMs), mark, watch::Printable(text).c_str());
    }
}

void Printer::Fed(const Step &step) {
    atMs = step.atMs;
    ++steps;
    if (json || all) {
        Line("fed", '<', InputText(session, step),
             step.input == Input::kMessage ? &step.packet.data : nullptr);
    }
}

void Printer::Show(const Played &played) {
    const Step &step = session.steps.at(played.index);
    if (!json && !all && (step.input == Input::kMessage || !played.events.empty() || played.difference)) {
        Line("fed", '<', InputText(session, step));
    }
    ShowRequests(played.before);
    for (const Event &event : played.events) {
        const Look look = LookOf(event.kind);
        const bool hasBytes = event.kind == Event::Kind::kSent || event.kind == Event::Kind::kRecord;
        Line(look.name, look.mark, event.text, hasBytes ? &event.bytes : nullptr);
        ShowRequests(event.requests);
        messages += event.kind == Event::Kind::kSent ? 1 : 0;
    }
    if (played.difference) {
        equal = false;
        Show(*played.difference, step);
    }
}

void Printer::ShowRequests(const std::vector<Request> &requests) const {
    for (size_t i = 0; i < requests.size(); ++i) {
        if (i == kMostRequests && !json && !all) {
            Line("request", '=', "and " + std::to_string(requests.size() - i) + " more");
            return;
        }
        Line("request", '=',
             (requests[i].subscribe ? "subscribe " : "unsubscribe ") + RequestText(requests[i]));
    }
}

void Printer::Show(const Difference &difference, const Step &step) const {
    const uint64_t position = difference.then ? difference.then->position : step.packet.position;
    if (json) {
        Json object = {{"time", SecondsOf(atMs)},
                       {"event", "difference"},
                       {"text", difference.text},
                       {"packet", position},
                       {"then", difference.then ? JsonOf(*difference.then) : Json(nullptr)},
                       {"now", difference.now ? JsonOf(*difference.now) : Json(nullptr)}};
        Print(object);
        return;
    }
    (void)std::printf("\nfirst difference at %.3f s, %s packet %llu: %s\n", SecondsOf(atMs),
                      difference.then ? "in" : "after", static_cast<unsigned long long>(position),
                      difference.text.c_str());
    PrintFields(difference);
}

void Printer::Report(const std::vector<std::string> &pages) const {
    for (const std::string &page : pages) {
        if (json) {
            Print({{"time", SecondsOf(atMs)}, {"event", "diagnose"}, {"text", page}});
        } else {
            (void)std::printf("%s", page.c_str());
        }
    }
}

void Printer::End(const std::string &problems) const {
    const bool well = equal && problems.empty();
    if (json) {
        Print({{"time", SecondsOf(atMs)},
               {"event", "end"},
               {"equal", well},
               {"steps", steps},
               {"messages", messages},
               {"problems", problems}});
        return;
    }
    if (!problems.empty()) {
        (void)std::printf("\nat the end:\n%s", problems.c_str());
    }
    if (well) {
        (void)std::printf("\nequal: %zu steps in %.3f s, %zu messages sent as then\n", steps, SecondsOf(atMs),
                          messages);
    }
}

} // namespace pegeir::replay
