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

/* Returns the texts of all parts in one. */
template <class... Part>
std::string Text(const Part &...part) {
    std::ostringstream text;
    (text << ... << part);
    return text.str();
}

} // namespace pegeir::component

#endif
