#include "foundation/json_writer.h"

#include <algorithm>

namespace tovrel {
namespace {

/// Whether a dump prints `text` between quotes as it stands: printable ASCII but '"' and '\'.
bool printsAsItStands(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
    });
}

void appendQuoted(std::string& out, std::string_view text) {
    out += '"';
    out += text;
    out += '"';
}

std::string dumped(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    if (printsAsItStands(text)) {
        appendQuoted(out, text);
    } else {
        out += dumped(nlohmann::json(std::string(text)));
    }
}

void appendJson(std::string& out, const nlohmann::json& value) {
    if (value.is_string() && printsAsItStands(value.get_ref<const std::string&>())) {
        appendQuoted(out, value.get_ref<const std::string&>());
    } else {
        out += dumped(value);
    }
}

void appendMemberName(std::string& out, std::string_view name, bool first) {
    if (!first) {
        out += ',';
    }
    appendJsonString(out, name);
    out += ':';
}

}  // namespace tovrel
