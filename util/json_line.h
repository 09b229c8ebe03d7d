#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Appends "text" as a JSON string literal (quotes included) in plain ASCII: quotes, backslashes
// and control characters escaped as JSON requires, every character past ASCII (and DEL) as
// \uXXXX (a surrogate pair past U+FFFF), and every byte that is not part of valid UTF-8 as
// \uFFFD. No terminal can take the result for a control sequence; every JSON reader decodes it.
void AppendJsonString(std::string& out, std::string_view text);

// One JSON value written straight into a string, members in the order they are added: for the
// report lines written per change (a long-running service writes one per file event, so no
// document tree is built for them).
//
//   CJsonLine line;
//   line.Open().String("policy", name).Number("status", 3).OpenArray("warnings").Close().Close();
//
// Keys and texts are escaped like any string; Open and OpenArray without a key (or with an empty
// one) start an element of the array that is open, or the outermost value.
class CJsonLine {
 public:
  CJsonLine() { text_.reserve(1024); }  // a report line's usual length: grown once at most
  CJsonLine& Open(std::string_view key = {});
  CJsonLine& OpenArray(std::string_view key = {});
  CJsonLine& Close();  // the innermost open object or array
  CJsonLine& String(std::string_view key, std::string_view value);
  CJsonLine& Number(std::string_view key, uint64_t value);
  CJsonLine& Null(std::string_view key);
  CJsonLine& Bool(std::string_view key, bool value);
  CJsonLine& Raw(std::string_view key, std::string_view json);  // a value written as JSON already
  CJsonLine& Item(std::string_view value);  // a string element of the open array

  // The text so far; whole once everything opened is closed.
  const std::string& text() const { return text_; }
  std::string Take() { return std::move(text_); }

 private:
  // The comma before every member or element but the first, then the key when there is one.
  void Begin(std::string_view key);
  CJsonLine& OpenWith(std::string_view key, char opener, char closer);

  std::string text_;
  std::vector<char> closers_;  // '}' or ']' for each value still open
  bool first_ = true;          // nothing written yet in the innermost open value
};
