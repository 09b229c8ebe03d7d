#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

// Where a text stops being one JSON value (RFC 8259), for a message a person can act on: the line
// and column (both from 1; the column counts bytes) of the first byte that cannot continue it, or
// of the end when the text ends too soon. Nothing when the text is one whole JSON value.
struct CJsonPosition {
  size_t line = 1;
  size_t column = 1;
};
std::optional<CJsonPosition> JsonErrorPosition(std::string_view text);
