// What holds for sets and multisets alike.
#pragma once

#include <algorithm>
#include <vector>

#include "fuzz/support.h"

namespace fuzz {

// What an operation leaves in a set begins with the chunks that were there, and what it adds comes behind them.
template <class Header, class Operation>
void expectChunksUsedAgain(const Header& set, Operation operation) {
  const auto chunksOf = [&] {
    std::vector<const void*> chunks;
    for (const auto* chunk = set.chunks; chunk != nullptr; chunk = chunk->next) chunks.push_back(chunk);
    return chunks;
  };
  const auto before = chunksOf();
  operation();
  const auto after = chunksOf();
  const auto common = std::min(before.size(), after.size());
  require(std::equal(before.begin(), before.begin() + static_cast<std::ptrdiff_t>(common), after.begin()));
}

} // namespace fuzz
