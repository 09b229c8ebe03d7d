#include "tool/fleet/published_state.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kHeader = "signdb-fleet-state 1";

// The fields of a line as they are (escapes kept): the state stores what is sent. Returns how many
// there are; only the first "most" are kept.
template <size_t most>
size_t RawFields(std::string_view line, std::array<std::string_view, most>& fields) {
  size_t count = 0;
  size_t start = 0;
  for (;;) {
    size_t tab = line.find('\t', start);
    if (count < most)
      fields[count] = line.substr(start, tab == std::string_view::npos ? tab : tab - start);
    ++count;
    if (tab == std::string_view::npos) return count;
    start = tab + 1;
  }
}

bool Number(std::string_view text, uint64_t& value) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

CPublishedState CPublishedState::Read(const std::string& path, bool header_only) {
  std::ifstream in(path, std::ios::binary);
  CPublishedState state;
  std::string line;
  if (!std::getline(in, line)) return state;
  std::array<std::string_view, 6> header;
  if (RawFields(line, header) != 6 || header[0] != kHeader ||
      !Number(header[1], state.generation) || !Number(header[2], state.revision) ||
      !Number(header[3], state.object_count)) {
    return CPublishedState();
  }
  state.cstm_id = header[4];
  state.lcs_id = header[5];
  if (header_only) return state;
  while (std::getline(in, line)) {
    std::array<std::string_view, 9> fields;
    CPublishedObject object;
    if (RawFields(line, fields) != 9 || !Number(fields[7], object.since_revision) ||
        !Number(fields[8], object.since)) {
      return CPublishedState();
    }
    // The six fields of the row, as they stand in the line.
    object.row.assign(fields[1].data(),
                      static_cast<size_t>(fields[6].data() + fields[6].size() - fields[1].data()));
    state.objects.emplace(std::string(fields[0]), std::move(object));
  }
  if (state.generation == 0 || state.objects.size() != state.object_count) return CPublishedState();
  return state;
}

void CPublishedState::Write(const std::string& path) const {
  std::string text;
  text.reserve(objects.size() * 160);
  text += std::string(kHeader) + "\t" + std::to_string(generation) + "\t" +
          std::to_string(revision) + "\t" + std::to_string(objects.size()) + "\t" + cstm_id + "\t" +
          lcs_id + "\n";
  for (const auto& [object_path, object] : objects) {
    text += object_path;
    text += '\t';
    text += object.row;
    text += '\t';
    text += std::to_string(object.since_revision);
    text += '\t';
    text += std::to_string(object.since);
    text += '\n';
  }
  std::string aside = path + ".new";
  {
    std::ofstream out(aside, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) {
      ::unlink(aside.c_str());
      throw std::runtime_error("cannot write " + aside);
    }
  }
  if (::rename(aside.c_str(), path.c_str()) != 0) {
    ::unlink(aside.c_str());
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  }
}
