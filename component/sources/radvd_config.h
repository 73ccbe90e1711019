/*
 * Reads router-advertisement intervals out of a configuration in radvd's syntax:
 *
 *   file      := interface*
 *   interface := "interface" name "{" statement* "}" ";"
 *   statement := word+ ";" | word+ "{" anything with balanced braces "}" ";"
 *
 * with comments from # to the end of the line.  Only MinRtrAdvInterval and MaxRtrAdvInterval matter
 * here; every other statement has to be well-formed and is passed over.
 */
#ifndef PEGEIR_COMPONENT_RADVD_CONFIG_H
#define PEGEIR_COMPONENT_RADVD_CONFIG_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

namespace pegeir::component {

/* Seconds between two unsolicited advertisements of an interface. */
struct RaIntervals {
    uint32_t min = 0;
    uint32_t max = 0;
    bool operator==(const RaIntervals &) const = default;
};

using RaConfig = std::map<std::string, RaIntervals>; /* by interface name */

struct ConfigError {
    unsigned line = 0; /* from 1 */
    std::string message;
};

/* Returns the intervals of every interface of the text, those that are not given as RFC 4861, section
 * 6.2.1 has them, or the first error. */
[[nodiscard]] std::variant<RaConfig, ConfigError> ParseRadvdConfig(std::string_view text);

} // namespace pegeir::component

#endif
