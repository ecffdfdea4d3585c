// Whether calls are counted, and from when on.
#pragma once

#include <atomic>
#include <cstdint>

namespace heap {

// While it is set, blocks that are handed out stay unknown. Releases of known ones count.
inline constinit std::atomic<bool> countingPaused{false};

inline bool countingIsPaused() { return countingPaused.load(std::memory_order_relaxed); }

// Everything is 0 again, and every block that is live now counts as older than the observation. No other
// thread may be inside an event.
void restartCounting();

// Marks a token that lies between the two events of a realloc, so that a restart in between is noticed.
std::uint64_t stampToken(std::uint64_t word);

// Takes the mark off again: the word, or 0 when counting has been restarted since.
std::uint64_t openToken(std::uint64_t token);

} // namespace heap
