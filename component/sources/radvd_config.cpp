/* A scanner for words and punctuation, and a parser of two levels that passes over what is deeper. */
#include "sources/radvd_config.h"

#include "protocol/report.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <utility>

namespace pegeir::component {

namespace {

/* RFC 4861, section 6.2.1. */
constexpr uint32_t kMaxDefault = 600;
constexpr uint32_t kMaxLowest = 4;
constexpr uint32_t kMaxHighest = 1800;
constexpr uint32_t kMinLowest = 3;
constexpr uint32_t kMaxOfPlainDefault = 9; /* below that the default minimum is the greatest legal one */

constexpr size_t kInterfaceNameMax = 15;
constexpr size_t kShownMax = 40;

constexpr std::string_view kMaxOption = "MaxRtrAdvInterval";
constexpr std::string_view kMinOption = "MinRtrAdvInterval";

/* A word, one of { } ;, or an empty text at the end of the file. */
struct Token {
    std::string_view text;
    unsigned line = 0;

    [[nodiscard]] bool AtEnd() const { return text.empty(); }
    [[nodiscard]] bool Is(std::string_view other) const { return text == other; }
    [[nodiscard]] bool IsWord() const { return !text.empty() && !Is("{") && !Is("}") && !Is(";"); }

    /* For a message: whatever the file holds, a short and printable text. */
    [[nodiscard]] std::string Shown() const {
        std::string shown(text.substr(0, kShownMax));
        std::replace_if(
            shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        return shown;
    }
    [[nodiscard]] std::string Quoted() const {
        return AtEnd() ? "the end of the file" : Text("'", Shown(), text.size() > kShownMax ? "...'" : "'");
    }
};

class Scanner {
public:
    explicit Scanner(std::string_view text) : text_(text) {}

    Token Next() {
        SkipBlanks();
        if (position_ == text_.size()) {
            return {{}, line_};
        }
        const size_t begin = position_;
        if (IsPunctuation(text_[begin])) {
            ++position_;
        } else {
            while (position_ < text_.size() && IsWordByte(text_[position_])) {
                ++position_;
            }
        }
        return {text_.substr(begin, position_ - begin), line_};
    }

private:
    static bool IsPunctuation(char c) { return c == '{' || c == '}' || c == ';'; }
    static bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
    static bool IsWordByte(char c) { return !IsPunctuation(c) && !IsBlank(c) && c != '#'; }

    void SkipBlanks() {
        for (; position_ < text_.size(); ++position_) {
            const char c = text_[position_];
            if (c == '#') {
                position_ = std::min(text_.find('\n', position_), text_.size());
                if (position_ == text_.size()) {
                    return;
                }
            } else if (!IsBlank(c)) {
                return;
            }
            if (text_[position_] == '\n') {
                ++line_;
            }
        }
    }

    std::string_view text_;
    size_t position_ = 0;
    unsigned line_ = 1;
};

/* A number and where it stands. */
struct Setting {
    uint32_t seconds = 0;
    unsigned line = 0;
};

class Parser {
public:
    explicit Parser(std::string_view text) : scanner_(text) {}

    std::variant<RaConfig, ConfigError> Run() {
        for (Token token = scanner_.Next(); !token.AtEnd(); token = scanner_.Next()) {
            if (!token.Is("interface")) {
                Fail(token.line, Text("expected 'interface', found ", token.Quoted()));
            } else {
                Interface();
            }
            if (error_) {
                return *error_;
            }
        }
        return std::move(config_);
    }

private:
    bool Fail(unsigned line, std::string message) {
        if (!error_) {
            error_ = ConfigError{line, std::move(message)};
        }
        return false;
    }

    bool Expect(std::string_view wanted, std::string_view where) {
        const Token token = scanner_.Next();
        return token.Is(wanted) ||
               Fail(token.line, Text("expected '", wanted, "' ", where, ", found ", token.Quoted()));
    }

    void Interface() {
        const Token name = scanner_.Next();
        if (!name.IsWord() || name.text.size() > kInterfaceNameMax ||
            name.text.find('/') != std::string_view::npos) {
            Fail(name.line, Text("expected the name of an interface, found ", name.Quoted()));
            return;
        }
        if (config_.contains(std::string(name.text))) {
            Fail(name.line, Text("interface ", name.Shown(), " is configured a second time"));
            return;
        }
        if (!Expect("{", "behind the name of the interface")) {
            return;
        }
        std::optional<Setting> min;
        std::optional<Setting> max;
        Token token = scanner_.Next();
        for (; !token.Is("}"); token = scanner_.Next()) {
            if (token.AtEnd()) {
                Fail(token.line,
                     Text("interface ", name.Shown(), " of line ", name.line, " is not closed with '}'"));
                return;
            }
            if (!Statement(token, min, max)) {
                return;
            }
        }
        if (Expect(";", Text("behind the '}' of interface ", name.Shown()))) {
            Store(name, min, max);
        }
    }

    bool Statement(const Token &first, std::optional<Setting> &min, std::optional<Setting> &max) {
        if (!first.IsWord()) {
            return Fail(first.line, Text("expected an option, found ", first.Quoted()));
        }
        for (const auto &[option, setting] : {std::pair{kMinOption, &min}, std::pair{kMaxOption, &max}}) {
            if (first.Is(option)) {
                return Number(first, *setting);
            }
            if (SameButForCase(first.text, option)) {
                return Fail(first.line, Text("unknown option ", first.Quoted(), ", it is written ", option));
            }
        }
        return PassOver(first);
    }

    bool Number(const Token &option, std::optional<Setting> &setting) {
        const Token value = scanner_.Next();
        Setting read{0, value.line};
        const char *end = value.text.data() + value.text.size();
        const auto [stop, problem] = std::from_chars(value.text.data(), end, read.seconds);
        if (!value.IsWord() || problem != std::errc{} || stop != end) {
            return Fail(value.line,
                        Text(option.text, " needs a whole number of seconds, found ", value.Quoted()));
        }
        setting = read;
        return Expect(";", Text("behind the value of ", option.text));
    }

    /* The rest of a statement that is of no interest; braces nest to any depth. */
    bool PassOver(const Token &first) {
        Token open; /* the outermost brace */
        for (size_t depth = 0;;) {
            const Token token = scanner_.Next();
            if (token.AtEnd()) {
                return depth > 0 ? Fail(open.line, "this '{' is never closed")
                                 : Fail(first.line, Text("no ';' behind ", first.Quoted()));
            }
            if (token.Is("{")) {
                open = depth++ == 0 ? token : open;
            } else if (token.Is("}")) {
                if (depth == 0) {
                    return Fail(token.line, Text("expected ';' behind ", first.Quoted(), " of line ",
                                                 first.line, ", found '}'"));
                }
                if (--depth == 0) {
                    return Expect(";", Text("behind the '}' of ", first.Shown()));
                }
            } else if (token.Is(";") && depth == 0) {
                return true;
            }
        }
    }

    void Store(const Token &name, const std::optional<Setting> &min, const std::optional<Setting> &max) {
        const uint32_t maxSeconds = max ? max->seconds : kMaxDefault;
        if (maxSeconds < kMaxLowest || maxSeconds > kMaxHighest) {
            Fail(max->line,
                 Text(kMaxOption, " is ", maxSeconds, ", it must be from ", kMaxLowest, " to ", kMaxHighest));
            return;
        }
        const uint32_t greatest = maxSeconds * 3 / 4;
        if (min && (min->seconds < kMinLowest || min->seconds > greatest)) {
            Fail(min->line, Text(kMinOption, " is ", min->seconds, ", it must be from ", kMinLowest, " to ",
                                 greatest, ", three quarters of ", kMaxOption));
            return;
        }
        const uint32_t usual =
            maxSeconds < kMaxOfPlainDefault ? greatest : std::max(kMinLowest, maxSeconds * 33 / 100);
        config_.emplace(name.text, RaIntervals{min ? min->seconds : usual, maxSeconds});
    }

    static bool SameButForCase(std::string_view left, std::string_view right) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
        });
    }

    Scanner scanner_;
    RaConfig config_;
    std::optional<ConfigError> error_;
};

} // namespace

std::variant<RaConfig, ConfigError> ParseRadvdConfig(std::string_view text) {
    return Parser(text).Run();
}

} // namespace pegeir::component
