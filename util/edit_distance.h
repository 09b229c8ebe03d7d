#pragma once

#include <cstddef>
#include <string>
#include <vector>

// How many single-character edits (insertions, deletions, substitutions) turn "a" into "b".
size_t EditDistance(const std::string& a, const std::string& b);

// The candidates nearest to "word", nearest first, that a person may have meant: within a third of
// the word's length in edits (at least one), or that begin with it. At most "most".
std::vector<std::string> NearestWords(const std::string& word,
                                      const std::vector<std::string>& candidates, size_t most = 3);
