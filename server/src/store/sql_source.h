#pragma once

#include <charconv>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tovrel::server {

/// A parameter of a statement: its text, or SQL NULL. Numbers go in as text: a CAST in the SQL says what
/// they are where the statement alone does not.
using SqlParam = std::optional<std::string>;

/// Rows of an answer, each column as text (NULL as "").
using SqlRows = std::vector<std::vector<std::string>>;

/// How a store answers SQL that both dialects share: each row's columns as text (NULL as ""), the
/// number of rows a statement changed, and its SQL for the UTC day ("YYYY-MM-DD") of a column of
/// seconds since 1970. `rows` and `run` take SQL without parameters (callers put in numbers only);
/// `query` binds `?` placeholders in order.
struct SqlSource {
    std::function<SqlRows(const std::string& sql)> rows;
    std::function<std::string(const std::string& secondsColumn)> utcDay;
    std::function<int64_t(const std::string& sql)> run;
    /// Put after a SELECT to lock the rows it reads until the transaction ends (PostgreSQL's
    /// " FOR UPDATE"; "" where one writer at a time is all there is).
    std::string forUpdate;
    std::function<SqlRows(const std::string& sql, const std::vector<SqlParam>& params)> query;
};

/// A number as a statement parameter: integers exactly, other values to the microsecond. Pure.
inline SqlParam sqlNumber(int64_t value) {
    return std::to_string(value);
}
inline SqlParam sqlNumber(double value) {
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

}  // namespace tovrel::server
