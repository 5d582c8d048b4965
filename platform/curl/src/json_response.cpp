#include "tovrel/curl/json_response.h"

#include <string>

#include "tovrel/platform/json_scanner.h"

namespace tovrel::curl {
namespace {

constexpr std::size_t kExcerptBytes = 120;

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// Keeps the description one line and cuts on a UTF-8 character boundary.
std::string excerpt(std::string_view text) {
    std::string out;
    bool cut = false;
    if (text.size() > kExcerptBytes) {
        std::size_t end = kExcerptBytes;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
            --end;
        }
        text = text.substr(0, end);
        cut = true;
    }
    for (char c : text) {
        out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    if (cut) {
        out += "…";
    }
    return out;
}

std::string statusSentence(int status, const nlohmann::json& body) {
    std::string sentence = "The server answered " + std::to_string(status);
    if (auto reason = httpReasonPhrase(status); !reason.empty()) {
        sentence += ' ';
        sentence += reason;
    }
    if (body.is_object()) {
        auto it = body.find("error");
        if (it != body.end() && it->is_string() && !it->get_ref<const std::string&>().empty()) {
            sentence += ": \"" + excerpt(it->get_ref<const std::string&>()) + '"';
        }
    }
    return sentence + '.';
}

}  // namespace

platform::JsonResult classifyJsonResponse(int status, std::string body, std::string_view hostPort) {
    platform::JsonResult result;
    result.status = status;
    result.text = std::move(body);
    const std::string_view text = result.text;
    if (status < 200 || status > 299) {
        const auto parsed = platform::readJsonText(text);
        result.error = platform::HttpError{platform::HttpErrorKind::kStatus, status,
                                           statusSentence(status, parsed.ok() ? parsed.value : nullptr)};
        return result;
    }
    if (isBlank(text)) {
        std::string where = hostPort.empty() ? "The server" : "The server at " + std::string(hostPort);
        result.error = platform::HttpError{platform::HttpErrorKind::kBadBody, 0,
                                           where + " sent an empty answer where JSON was expected."};
        return result;
    }
    // The answer is only checked here: its reader reads what it needs straight from the text.
    const auto checked = platform::checkJsonText(text);
    if (!checked.ok()) {
        result.error = platform::HttpError{
            platform::HttpErrorKind::kBadBody, 0,
            std::string("The server's answer is not ") +
                (checked.problem == platform::JsonTextProblem::kSyntax ? "valid" : "usable") + " JSON (" +
                checked.error + ")."};
    }
    return result;
}

std::string_view httpReasonPhrase(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 202:
            return "Accepted";
        case 204:
            return "No Content";
        case 300:
            return "Multiple Choices";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 303:
            return "See Other";
        case 304:
            return "Not Modified";
        case 307:
            return "Temporary Redirect";
        case 308:
            return "Permanent Redirect";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 406:
            return "Not Acceptable";
        case 408:
            return "Request Timeout";
        case 409:
            return "Conflict";
        case 410:
            return "Gone";
        case 411:
            return "Length Required";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 415:
            return "Unsupported Media Type";
        case 422:
            return "Unprocessable Content";
        case 429:
            return "Too Many Requests";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "";
    }
}

}  // namespace tovrel::curl
