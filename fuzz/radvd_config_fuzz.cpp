// The configuration that an operator writes.
#include "fuzz.h"

#include <sources/radvd_config.h>

namespace pegeir::fuzz {

using namespace component;

void Run(Input input) {
    const auto bytes = input.Rest();
    const std::string text(bytes.begin(), bytes.end());
    const auto result = ParseRadvdConfig(text);
    if (const auto *error = std::get_if<ConfigError>(&result)) {
        const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
        Require(error->line >= 1 && error->line <= lines, "an error stands on a line that is not there");
        Require(!error->message.empty() && std::all_of(error->message.begin(), error->message.end(),
                                                       [](char c) { return c >= ' ' && c <= '~'; }),
                "an error in words that a terminal cannot show");
        return;
    }
    const auto &config = std::get<RaConfig>(result);
    std::string plain; // the same, as short as it can be said
    for (const auto &[name, intervals] : config) {
        Require(!name.empty() && name.size() <= 15 && name.find('/') == std::string::npos,
                "a name that no interface can have");
        Require(intervals.max >= 4 && intervals.max <= 1800 && intervals.min >= 3 &&
                    intervals.min <= intervals.max * 3 / 4,
                "intervals that no router may have");
        plain += "interface " + name + "{MaxRtrAdvInterval " + std::to_string(intervals.max) +
                 ";MinRtrAdvInterval " + std::to_string(intervals.min) + ";};";
    }
    const auto reads = [&](const std::string &other) {
        const auto again = ParseRadvdConfig(other);
        return std::holds_alternative<RaConfig>(again) && std::get<RaConfig>(again) == config;
    };
    Require(reads(plain), "the same configuration in other words reads differently");
    Require(reads("#{\n" + text + "\n#}"), "comments change what is read");
}

} // namespace pegeir::fuzz
