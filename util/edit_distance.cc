#include "util/edit_distance.h"

#include <algorithm>
#include <utility>

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::vector<std::string> NearestWords(const std::string& word,
                                      const std::vector<std::string>& candidates, size_t most) {
  size_t allowed = std::max<size_t>(1, word.size() / 3);
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string& candidate : candidates) {
    size_t distance = EditDistance(word, candidate);
    bool begins = !word.empty() && candidate.rfind(word, 0) == 0;
    if (distance <= allowed || begins) near.emplace_back(begins ? 0 : distance, candidate);
  }
  std::sort(near.begin(), near.end());
  std::vector<std::string> words;
  for (size_t i = 0; i < near.size() && i < most; ++i) words.push_back(near[i].second);
  return words;
}
