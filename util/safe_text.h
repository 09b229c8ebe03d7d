#pragma once

#include <string>
#include <string_view>

// Text from the file system (names, link targets, attribute values, error reasons) made safe to
// print on a terminal or into a line-oriented report: nothing in it can start a new line, move
// the cursor, recolour the screen or reorder what follows it.
//
// Valid printable UTF-8 stays as it is. A backslash becomes \\; newline, carriage return, tab and
// escape become \n, \r, \t and \e; any other C0 control byte and DEL become \xHH; a byte that is
// not part of valid UTF-8 becomes \xHH (so distinct names stay distinct); the C1 controls, the
// line and paragraph separators and the bidirectional controls become \uHHHH.
std::string EscapedText(std::string_view text);

// EscapedText in double quotes, with \" for a double quote inside.
std::string QuotedText(std::string_view text);

// A path for a report's path column: EscapedText, and in double quotes (with \" inside) when it
// holds a space or a double quote or is empty, so that it cannot pass for the words beside it.
std::string SafePath(std::string_view path);
