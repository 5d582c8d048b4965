#include "tovrel/curl/json_reader.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <system_error>

namespace tovrel::curl {
namespace {

using Json = nlohmann::json;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The length of the UTF-8 sequence at `p` that the full parser accepts inside a string (a
/// well-formed sequence of two to four bytes), or 0.
std::size_t multiByteLength(const unsigned char* p, const unsigned char* end) {
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

/// Reads one well-formed JSON text into a value. Every read returns false at the first thing it
/// leaves to the full parser, nesting deeper than the limit among them; the value is then incomplete
/// and dropped.
class Reader {
  public:
    Reader(std::string_view text, std::size_t limit)
        : p_(text.data()), end_(text.data() + text.size()), depthLeft_(limit) {}

    bool document(Json& out) {
        skipSpace();
        if (!value(out)) {
            return false;
        }
        skipSpace();
        return p_ == end_;
    }

  private:
    void skipSpace() {
        while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }

    bool value(Json& out) {
        if (p_ == end_) {
            return false;
        }
        switch (*p_) {
            case '{':
                return object(out);
            case '[':
                return array(out);
            case '"': {
                std::string text;
                if (!string(text)) {
                    return false;
                }
                out = std::move(text);
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

    bool literal(std::string_view word, Json meaning, Json& out) {
        if (static_cast<std::size_t>(end_ - p_) < word.size() || std::string_view(p_, word.size()) != word) {
            return false;
        }
        p_ += word.size();
        out = std::move(meaning);
        return true;
    }

    bool object(Json& out) {
        if (depthLeft_ == 0) {
            return false;
        }
        const Nested nested(depthLeft_);
        ++p_;
        out = Json::object();
        auto& members = out.get_ref<Json::object_t&>();
        skipSpace();
        if (p_ != end_ && *p_ == '}') {
            ++p_;
            return true;
        }
        for (;;) {
            skipSpace();
            std::string key;
            if (p_ == end_ || *p_ != '"' || !string(key)) {
                return false;
            }
            skipSpace();
            if (p_ == end_ || *p_ != ':') {
                return false;
            }
            ++p_;
            skipSpace();
            // Members in key order (as a dump writes them) go in at the end without a search. A repeated
            // key keeps its last value, as with the full parser.
            const auto member = members.try_emplace(members.end(), std::move(key));
            if (!value(member->second)) {
                return false;
            }
            skipSpace();
            if (p_ == end_) {
                return false;
            }
            if (*p_ == '}') {
                ++p_;
                return true;
            }
            if (*p_ != ',') {
                return false;
            }
            ++p_;
        }
    }

    bool array(Json& out) {
        if (depthLeft_ == 0) {
            return false;
        }
        const Nested nested(depthLeft_);
        ++p_;
        out = Json::array();
        auto& items = out.get_ref<Json::array_t&>();
        skipSpace();
        if (p_ != end_ && *p_ == ']') {
            ++p_;
            return true;
        }
        for (;;) {
            skipSpace();
            if (!value(items.emplace_back())) {
                return false;
            }
            skipSpace();
            if (p_ == end_) {
                return false;
            }
            if (*p_ == ']') {
                ++p_;
                return true;
            }
            if (*p_ != ',') {
                return false;
            }
            ++p_;
        }
    }

    bool string(std::string& out) {
        ++p_;
        const char* run = p_;
        while (p_ != end_) {
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                out.append(run, p_);
                ++p_;
                return true;
            }
            if (c == '\\') {
                out.append(run, p_);
                if (end_ - p_ < 2) {
                    return false;
                }
                switch (p_[1]) {
                    case '"':
                    case '\\':
                    case '/':
                        out += p_[1];
                        break;
                    case 'b':
                        out += '\b';
                        break;
                    case 'f':
                        out += '\f';
                        break;
                    case 'n':
                        out += '\n';
                        break;
                    case 'r':
                        out += '\r';
                        break;
                    case 't':
                        out += '\t';
                        break;
                    default:
                        return false;  // \u escapes (rare in answers) and malformed ones
                }
                p_ += 2;
                run = p_;
            } else if (c < 0x20) {
                return false;
            } else if (c < 0x80) {
                ++p_;
            } else {
                const std::size_t length = multiByteLength(reinterpret_cast<const unsigned char*>(p_),
                                                           reinterpret_cast<const unsigned char*>(end_));
                if (length == 0) {
                    return false;
                }
                p_ += length;
            }
        }
        return false;
    }

    bool number(Json& out) {
        const char* start = p_;
        const bool negative = *p_ == '-';
        if (negative) {
            ++p_;
        }
        if (p_ == end_ || !isDigit(*p_)) {
            return false;
        }
        if (*p_ == '0') {
            ++p_;
        } else {
            skipDigits();
        }
        bool integral = true;
        if (p_ != end_ && *p_ == '.') {
            integral = false;
            ++p_;
            if (p_ == end_ || !isDigit(*p_)) {
                return false;
            }
            skipDigits();
        }
        if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
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
        // As with the full parser: an integer is signed with a minus and unsigned without, and one
        // beyond 64 bits becomes a double.
        if (integral && negative) {
            std::int64_t whole = 0;
            if (const auto read = std::from_chars(start, p_, whole);
                read.ec == std::errc() && read.ptr == p_) {
                out = whole;
                return true;
            }
        } else if (integral) {
            std::uint64_t whole = 0;
            if (const auto read = std::from_chars(start, p_, whole);
                read.ec == std::errc() && read.ptr == p_) {
                out = whole;
                return true;
            }
        }
        // Both this and the full parser's strtod round correctly; results beyond range (or below it) are
        // left to the full parser, which refuses the first and keeps the second as strtod gives it.
        double real = 0;
        const auto read = std::from_chars(start, p_, real);
        if (read.ec != std::errc() || read.ptr != p_ || !std::isfinite(real)) {
            return false;
        }
        out = real;
        return true;
    }

    void skipDigits() {
        while (p_ != end_ && isDigit(*p_)) {
            ++p_;
        }
    }

    /// One level deeper for its scope.
    struct Nested {
        explicit Nested(std::size_t& left) : left_(--left) {}
        ~Nested() { ++left_; }
        Nested(const Nested&) = delete;
        Nested& operator=(const Nested&) = delete;
        std::size_t& left_;
    };

    const char* p_;
    const char* end_;
    std::size_t depthLeft_;  ///< how many more arrays and objects may open inside the current one
};

}  // namespace

platform::JsonText readJsonText(std::string_view text, std::size_t limit) {
    platform::JsonText result;
    if (Reader(text, limit).document(result.value)) {
        return result;
    }
    return platform::parseJsonText(text, limit);
}

}  // namespace tovrel::curl
