/*
 * How the component says what it does: through functions that its owner supplies, never by writing
 * anywhere itself.
 */
#ifndef PEGEIR_COMPONENT_REPORT_H
#define PEGEIR_COMPONENT_REPORT_H

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

namespace pegeir::component {

enum class Severity {
    kError,   /* something does not work */
    kWarning, /* something was refused or lost, and work goes on */
    kInfo,    /* a step that an operator wants to see */
    kDetail   /* the rest */
};

/* A line about the component itself. */
using Log = std::function<void(Severity, const std::string &)>;

/* A line about one consumer. */
using ConsumerLog = std::function<void(Severity, uint32_t consumer, const std::string &)>;

/* Milliseconds of a clock that does not jump. */
using Clock = std::function<uint64_t()>;

/* How long nothing more is said of the same sort after a line. */
constexpr uint64_t kReportPauseMs = 5000;

/* For what somebody else can make happen any number of times: the first is said at once, and after each
 * pause the last one, with how many there were. */
class SeldomLog {
public:
    explicit SeldomLog(ConsumerLog log) : log_(std::move(log)) {}

    void Add(uint64_t nowMs, uint32_t consumer, std::string text) {
        ++count_;
        consumer_ = consumer;
        last_ = std::move(text);
        OnTick(nowMs);
    }
    void OnTick(uint64_t nowMs) {
        if (count_ != 0 && nowMs >= nextMs_) {
            nextMs_ = nowMs + kReportPauseMs;
            const uint64_t count = std::exchange(count_, 0);
            log_(Severity::kWarning, consumer_,
                 count == 1 ? last_ : last_ + " (the last of " + std::to_string(count) + " such)");
        }
    }

private:
    ConsumerLog log_;
    uint64_t count_ = 0; /* since the last line */
    uint64_t nextMs_ = 0;
    uint32_t consumer_ = 0;
    std::string last_;
};

/* Returns the texts of all parts in one. */
template <class... Part>
std::string Text(const Part &...part) {
    std::ostringstream text;
    (text << ... << part);
    return text.str();
}

} // namespace pegeir::component

#endif
