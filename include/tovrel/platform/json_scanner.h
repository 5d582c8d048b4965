#pragma once

#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>

#include "tovrel/platform/decimal_text.h"
#include "tovrel/platform/json_text.h"

namespace tovrel::platform {

/// Walks JSON text from outside, reading the values a caller asks for and only checking the rest, so
/// that no tree is built for what nobody reads. Every step returns false at the first thing it leaves
/// to the full parser (malformed text, \u escapes, numbers beyond double range, nesting beyond the
/// limit); the caller then falls back to parseJsonText(), which decides. What the scanner reads is
/// exactly what the full parser reads, to the kind of every number. One scanner per text; any thread.
class JsonScanner {
  public:
    explicit JsonScanner(std::string_view text, std::size_t limit = kMaxJsonNesting)
        : begin_(text.data()), p_(text.data()), end_(text.data() + text.size()), depthLeft_(limit) {}

    /// Whether `part` lies in the text (a string or key read without escapes does; one decoded from
    /// escapes lies in its scratch), so that it stays valid as long as the text.
    [[nodiscard]] bool holds(std::string_view part) const {
        return std::less_equal<const char*>()(begin_, part.data()) &&
               std::less_equal<const char*>()(part.data() + part.size(), end_);
    }

    /// The next character after white space, or '\0' at the end of the text.
    [[nodiscard, gnu::always_inline]] char peek() {
        skipSpace();
        return p_ == end_ ? '\0' : *p_;
    }

    /// Whether nothing but white space is left.
    [[nodiscard]] bool atEnd() {
        skipSpace();
        return p_ == end_;
    }

    /// Where the scanner stands: after the last value read, before any white space.
    [[nodiscard]] const char* position() const { return p_; }

    /// Reads any value into `out`, or only checks it when `out` is null.
    bool value(nlohmann::json* out) {
        switch (peek()) {
            case '{':
                return out == nullptr ? object([this](std::string_view) { return value(nullptr); })
                                      : objectInto(*out);
            case '[':
                return out == nullptr ? array([this] { return value(nullptr); }) : arrayInto(*out);
            case '"': {
                if (out == nullptr) {
                    return string(nullptr, nullptr);
                }
                std::string scratch;
                std::string_view contents;
                if (!string(&scratch, &contents)) {
                    return false;
                }
                if (scratch.empty()) {
                    *out = contents;
                } else {
                    *out = std::move(scratch);
                }
                return true;
            }
            case 't':
                return literal("true", true, out);
            case 'f':
                return literal("false", false, out);
            case 'n':
                return literal("null", nullptr, out);
            default:
                return number(out);
        }
    }

    /// Checks one value of any kind and steps over it.
    bool skip() { return value(nullptr); }

    /// Steps over one value of text already checked to be JSON, without checking it again: a string to
    /// its closing quote, an array or object to its matching bracket, anything else to the next
    /// delimiter. Never reads outside the text, whatever it holds; on text that is not JSON it may stop
    /// anywhere, so only checked text gives what skip() gives.
    bool skipChecked() {
        const char first = peek();
        if (first == '"') {
            p_ = afterString(p_ + 1);
            return true;
        }
        if (first != '{' && first != '[') {
            while (p_ != end_ && *p_ != ',' && *p_ != '}' && *p_ != ']') {
                ++p_;
            }
            return p_ != end_;
        }
        std::size_t depth = 0;
        while (p_ != end_) {
            const char c = *p_;
            if (c == '"') {
                p_ = afterString(p_ + 1);
                continue;
            }
            ++p_;
            if (c == '{' || c == '[') {
                ++depth;
            } else if ((c == '}' || c == ']') && --depth == 0) {
                return true;
            }
        }
        return false;
    }

    /// Reads an object: `member(key)` runs for each member in text order with the scanner before its
    /// value, and must read or skip that value; its false ends the scan with false. `key` lives until
    /// `member` returns.
    template <class Member>
    bool object(Member&& member) {
        if (peek() != '{' || depthLeft_ == 0) {
            return false;
        }
        const Nested nested(depthLeft_);
        ++p_;
        if (peek() == '}') {
            ++p_;
            return true;
        }
        std::string scratch;
        for (;;) {
            std::string_view key;
            scratch.clear();
            if (peek() != '"' || !string(&scratch, &key) || peek() != ':') {
                return false;
            }
            ++p_;
            if (!member(key)) {
                return false;
            }
            const char next = peek();
            if (next == '\0') {
                return false;
            }
            ++p_;
            if (next == '}') {
                return true;
            }
            if (next != ',') {
                return false;
            }
        }
    }

    /// Reads an array: `element()` runs for each element with the scanner before it, and must read or
    /// skip it; its false ends the scan with false.
    template <class Element>
    bool array(Element&& element) {
        if (peek() != '[' || depthLeft_ == 0) {
            return false;
        }
        const Nested nested(depthLeft_);
        ++p_;
        if (peek() == ']') {
            ++p_;
            return true;
        }
        for (;;) {
            if (!element()) {
                return false;
            }
            const char next = peek();
            if (next == '\0') {
                return false;
            }
            ++p_;
            if (next == ']') {
                return true;
            }
            if (next != ',') {
                return false;
            }
        }
    }

    /// Reads a string. With `contents`, it is set to the string's contents: a view of the text when the
    /// string holds no escape, else of `scratch`, which receives the decoded contents (and must then be
    /// given). With neither, the string is only checked.
    bool string(std::string* scratch, std::string_view* contents) {
        if (peek() != '"') {
            return false;
        }
        // A local cursor: the member would be stored and loaded again at every step.
        const char* p = p_ + 1;
        const char* const start = p;
        const char* run = p;
        bool escaped = false;
        bool read = false;
        while ((p = plainRun(p, end_)) != end_) {
            const auto c = static_cast<unsigned char>(*p);
            if (c == '"') {
                if (contents != nullptr) {
                    if (escaped) {
                        scratch->append(run, p);
                        *contents = *scratch;
                    } else {
                        *contents = std::string_view(start, static_cast<std::size_t>(p - start));
                    }
                }
                ++p;
                read = true;
                break;
            }
            if (c == '\\') {
                const char decoded = end_ - p < 2 ? '\0' : unescaped(p[1]);
                if (decoded == '\0') {
                    break;  // \u escapes (rare in answers) and malformed ones
                }
                if (contents != nullptr) {
                    scratch->append(run, p);
                    *scratch += decoded;
                }
                escaped = true;
                p += 2;
                run = p;
            } else if (c < 0x20) {
                break;
            } else {
                const std::size_t length = multiByteLength(reinterpret_cast<const unsigned char*>(p),
                                                           reinterpret_cast<const unsigned char*>(end_));
                if (length == 0) {
                    break;
                }
                p += length;
            }
        }
        p_ = p;
        return read;
    }

    /// Reads a number into `out` (or only checks it): an integer is signed with a minus and unsigned
    /// without, and one beyond 64 bits becomes a double, as with the full parser.
    bool number(nlohmann::json* out) {
        skipSpace();
        const char* start = p_;
        const bool negative = p_ != end_ && *p_ == '-';
        if (negative) {
            ++p_;
        }
        if (p_ == end_ || !isDigit(*p_)) {
            return false;
        }
        const char* digitsStart = p_;
        if (*p_ == '0') {
            ++p_;
        } else {
            skipDigits();
        }
        const auto wholeDigits = static_cast<std::size_t>(p_ - digitsStart);
        bool integral = true;
        if (p_ != end_ && *p_ == '.') {
            integral = false;
            ++p_;
            if (p_ == end_ || !isDigit(*p_)) {
                return false;
            }
            skipDigits();
        }
        const bool scaled = p_ != end_ && (*p_ == 'e' || *p_ == 'E');
        if (scaled) {
            integral = false;
            ++p_;
            if (p_ != end_ && (*p_ == '+' || *p_ == '-')) {
                ++p_;
            }
            if (p_ == end_ || !isDigit(*p_)) {
                return false;
            }
            skipDigits();
        }
        // Only checking: without an exponent, fewer than 309 digits before the point never leave double
        // range (and below it the full parser keeps what strtod gives).
        if (out == nullptr && !scaled && wholeDigits <= 308) {
            return true;
        }
        if (integral && negative) {
            std::int64_t whole = 0;
            if (const auto read = std::from_chars(start, p_, whole);
                read.ec == std::errc() && read.ptr == p_) {
                assign(out, whole);
                return true;
            }
        } else if (integral) {
            std::uint64_t whole = 0;
            if (const auto read = std::from_chars(start, p_, whole);
                read.ec == std::errc() && read.ptr == p_) {
                assign(out, whole);
                return true;
            }
        }
        // Both this and the full parser's strtod round correctly; results beyond range (or below it) are
        // left to the full parser, which refuses the first and keeps the second as strtod gives it.
        const std::optional<double> real =
            readDouble(std::string_view(start, static_cast<std::size_t>(p_ - start)));
        if (!real || !std::isfinite(*real)) {
            return false;
        }
        assign(out, *real);
        return true;
    }

  private:
    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    /// Steps over the bytes of a string that need no attention (printable ASCII but '"' and '\\'),
    /// eight at a time where the machine allows.
    static const char* plainRun(const char* p, const char* end) {
        if constexpr (std::endian::native == std::endian::little) {
            constexpr std::uint64_t kOnes = 0x0101010101010101;
            constexpr std::uint64_t kHigh = 0x8080808080808080;
            // Each test flags the first byte that meets it exactly (a borrow may flag later bytes too),
            // so the lowest flag of all is the first byte that needs attention.
            const auto zeroBytes = [](std::uint64_t v) { return (v - kOnes) & ~v & kHigh; };
            while (end - p >= 8) {
                std::uint64_t word = 0;
                std::memcpy(&word, p, sizeof word);
                const std::uint64_t attention = zeroBytes(word ^ (kOnes * '"')) |
                                                zeroBytes(word ^ (kOnes * '\\')) |
                                                ((word - kOnes * 0x20) & ~word & kHigh) | (word & kHigh);
                if (attention != 0) {
                    return p + (std::countr_zero(attention) / 8);
                }
                p += 8;
            }
        }
        while (p != end) {
            const auto c = static_cast<unsigned char>(*p);
            if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') {
                break;
            }
            ++p;
        }
        return p;
    }

    /// What the escape `\c` stands for, or '\0' for one left to the full parser.
    static char unescaped(char c) {
        switch (c) {
            case '"':
            case '\\':
            case '/':
                return c;
            case 'b':
                return '\b';
            case 'f':
                return '\f';
            case 'n':
                return '\n';
            case 'r':
                return '\r';
            case 't':
                return '\t';
            default:
                return '\0';
        }
    }

    /// The length of the UTF-8 sequence at `p` that the full parser accepts inside a string (a
    /// well-formed sequence of two to four bytes), or 0.
    static std::size_t multiByteLength(const unsigned char* p, const unsigned char* end) {
        const auto follows = [p, end](std::size_t i, unsigned low, unsigned high) {
            return static_cast<std::size_t>(end - p) > i && p[i] >= low && p[i] <= high;
        };
        const unsigned lead = p[0];
        if (lead >= 0xC2 && lead <= 0xDF) {
            return follows(1, 0x80, 0xBF) ? 2 : 0;
        }
        if (lead >= 0xE0 && lead <= 0xEF) {
            const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
            const unsigned high = lead == 0xED ? 0x9F : 0xBF;
            return follows(1, low, high) && follows(2, 0x80, 0xBF) ? 3 : 0;
        }
        if (lead >= 0xF0 && lead <= 0xF4) {
            const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
            const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
            return follows(1, low, high) && follows(2, 0x80, 0xBF) && follows(3, 0x80, 0xBF) ? 4 : 0;
        }
        return 0;
    }

    template <class T>
    static void assign(nlohmann::json* out, T number) {
        if (out != nullptr) {
            *out = number;
        }
    }

    [[gnu::always_inline]] void skipSpace() {
        // Text written by a machine rarely holds any: one comparison tells.
        while (p_ != end_ && static_cast<unsigned char>(*p_) <= ' ' &&
               (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }

    /// Just past the quote that closes the string whose contents start at `p` (one not escaped by an
    /// odd run of backslashes), or the end of the text.
    const char* afterString(const char* p) const {
        for (;;) {
            const auto* quote =
                static_cast<const char*>(std::memchr(p, '"', static_cast<std::size_t>(end_ - p)));
            if (quote == nullptr) {
                return end_;
            }
            const char* backslash = quote;
            while (backslash != p && backslash[-1] == '\\') {
                --backslash;
            }
            if ((quote - backslash) % 2 == 0) {
                return quote + 1;
            }
            p = quote + 1;
        }
    }

    void skipDigits() {
        while (p_ != end_ && isDigit(*p_)) {
            ++p_;
        }
    }

    bool literal(std::string_view word, nlohmann::json meaning, nlohmann::json* out) {
        if (static_cast<std::size_t>(end_ - p_) < word.size() || std::string_view(p_, word.size()) != word) {
            return false;
        }
        p_ += word.size();
        if (out != nullptr) {
            *out = std::move(meaning);
        }
        return true;
    }

    bool objectInto(nlohmann::json& out) {
        out = nlohmann::json::object();
        auto& members = out.get_ref<nlohmann::json::object_t&>();
        return object([this, &members](std::string_view key) {
            // Members in key order (as a dump writes them) go in at the end without a search. A repeated
            // key keeps its last value, as with the full parser.
            const auto member = members.try_emplace(members.end(), std::string(key));
            return value(&member->second);
        });
    }

    bool arrayInto(nlohmann::json& out) {
        out = nlohmann::json::array();
        auto& items = out.get_ref<nlohmann::json::array_t&>();
        return array([this, &items] { return value(&items.emplace_back()); });
    }

    /// One level deeper for its scope.
    struct Nested {
        explicit Nested(std::size_t& left) : left_(--left) {}
        ~Nested() { ++left_; }
        Nested(const Nested&) = delete;
        Nested& operator=(const Nested&) = delete;
        std::size_t& left_;
    };

    const char* begin_;
    const char* p_;
    const char* end_;
    std::size_t depthLeft_;  ///< how many more arrays and objects may open inside the current one
};

/// Reads JSON text from outside as parseJsonText() does, to the same value, problem and error for any
/// input, in about a third of the time: well-formed text is read by a scanner, anything it leaves is
/// parsed in full. Never throws. Pure; any thread.
[[nodiscard]] inline JsonText readJsonText(std::string_view text, std::size_t limit = kMaxJsonNesting) {
    JsonText result;
    JsonScanner scanner(text, limit);
    if (scanner.value(&result.value) && scanner.atEnd()) {
        return result;
    }
    return parseJsonText(text, limit);
}

/// Judges JSON text as parseJsonText() does (the same problem and error for any input) without keeping
/// the value: well-formed text is only scanned. `value` of the outcome stays null. Never throws. Pure;
/// any thread.
[[nodiscard]] inline JsonText checkJsonText(std::string_view text, std::size_t limit = kMaxJsonNesting) {
    JsonScanner scanner(text, limit);
    if (scanner.skip() && scanner.atEnd()) {
        return {};
    }
    JsonText parsed = parseJsonText(text, limit);
    parsed.value = nullptr;
    return parsed;
}

}  // namespace tovrel::platform
