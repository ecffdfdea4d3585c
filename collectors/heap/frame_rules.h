// How to get from a frame to the one that called it, as the unwind tables of its module say.
//
// The tables can say more than compilers use between calls. What a rule here can express is a frame whose
// canonical address (CFA) is the stack or the frame pointer plus a constant, with the return address just
// below it and the caller's frame pointer either untouched or saved at a constant place. Everything else,
// signal frames among it, is kOther and left to a full unwinder.
#pragma once

#include <cstdint>

namespace heap {

enum class FrameKind : std::uint8_t {
  kOther = 1,
  kOutermost,    // nobody has called this one
  kStackPointer, // CFA = rsp + cfaOffset
  kFramePointer  // CFA = rbp + cfaOffset
};

struct FrameRule {
  FrameKind kind;
  bool savesFramePointer; // the caller's rbp is at CFA + framePointerOffset; otherwise rbp is the caller's
  std::int32_t cfaOffset;
  std::int32_t framePointerOffset;
};

// The rule for a frame that a call in front of this return address was made from. Takes no lock and allocates
// nothing.
FrameRule readFrameRule(std::uint64_t returnAddress);

} // namespace heap
