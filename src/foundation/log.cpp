#include "foundation/log.h"

namespace tovrel {

std::string functionName(std::string_view pretty) {
    // Lambdas print as "...::outer(args)::<lambda(...)>": the first '(' ends the enclosing function.
    const auto open = pretty.find('(');
    std::string_view head = pretty.substr(0, open);
    int depth = 0;
    std::size_t start = 0;
    for (std::size_t i = head.size(); i-- > 0;) {
        const char c = head[i];
        if (c == '>') {
            ++depth;
        } else if (c == '<') {
            --depth;
        } else if (c == ' ' && depth == 0) {
            start = i + 1;
            break;
        }
    }
    head = head.substr(start);
    constexpr std::string_view kNamespace = "tovrel::";
    if (head.substr(0, kNamespace.size()) == kNamespace) {
        head.remove_prefix(kNamespace.size());
    }
    return std::string(head);
}

void logLine(platform::LogSink& sink, std::string_view function, int line, std::string_view message) {
    std::string text;
    text.reserve(function.size() + message.size() + 16);
    text.append(function).append(" [Line ").append(std::to_string(line)).append("] ").append(message);
    sink.write(text);
}

}  // namespace tovrel
