#include "collectors/heap/frame_rules.h"

#include <cstring>

#include <dlfcn.h>

namespace heap {

namespace {

// Registers by their numbers in the tables.
constexpr std::uint64_t kFramePointer = 6;
constexpr std::uint64_t kStackPointer = 7;
constexpr std::uint64_t kReturnAddress = 16;

// Encodings of addresses: the format in the low half, what it counts from in the high half.
constexpr std::uint8_t kAbsolute8 = 0x00;
constexpr std::uint8_t kUnsigned4 = 0x03;
constexpr std::uint8_t kSigned4 = 0x0B;
constexpr std::uint8_t kSigned8 = 0x0C;
constexpr std::uint8_t kFormat = 0x0F;
constexpr std::uint8_t kFromHere = 0x10;
constexpr std::uint8_t kFromTable = 0x30;
constexpr std::uint8_t kOmitted = 0xFF;

// Reads forward and never past its end; `failed` says that it wanted to.
class Cursor {
public:
  Cursor(const std::uint8_t* begin, std::uint64_t size) : at_(begin), end_(begin + size) {}

  bool atEnd() const { return at_ == end_ || failed_; }
  bool failed() const { return failed_; }
  const std::uint8_t* position() const { return at_; }
  void fail() { failed_ = true; }

  template <class T>
  T read() {
    T value{};
    if (static_cast<std::uint64_t>(end_ - at_) < sizeof(T))
      failed_ = true;
    else {
      std::memcpy(&value, at_, sizeof(T));
      at_ += sizeof(T);
    }
    return value;
  }

  void skip(std::uint64_t bytes) {
    if (static_cast<std::uint64_t>(end_ - at_) < bytes)
      failed_ = true;
    else
      at_ += bytes;
  }

  std::uint64_t unsignedLeb() {
    std::uint64_t value = 0;
    for (std::uint32_t shift = 0; shift < 64; shift += 7) {
      const auto byte = read<std::uint8_t>();
      value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
      if ((byte & 0x80) == 0) return value;
    }
    failed_ = true;
    return 0;
  }

  std::int64_t signedLeb() {
    std::uint64_t value = 0;
    for (std::uint32_t shift = 0; shift < 64;) {
      const auto byte = read<std::uint8_t>();
      value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
      shift += 7;
      if ((byte & 0x80) != 0) continue;
      if ((byte & 0x40) != 0 && shift < 64) value |= ~std::uint64_t{0} << shift;
      return static_cast<std::int64_t>(value);
    }
    failed_ = true;
    return 0;
  }

  // An address or, with `plain`, a number in the same format.
  std::uint64_t encoded(std::uint8_t encoding, bool plain = false) {
    const auto here = reinterpret_cast<std::uint64_t>(at_);
    std::uint64_t value = 0;
    switch (encoding & kFormat) {
    case kAbsolute8:
      value = read<std::uint64_t>();
      break;
    case kUnsigned4:
      value = read<std::uint32_t>();
      break;
    case kSigned4:
      value = static_cast<std::uint64_t>(static_cast<std::int64_t>(read<std::int32_t>()));
      break;
    case kSigned8:
      value = read<std::uint64_t>();
      break;
    default:
      failed_ = true;
    }
    if (plain) return value;
    if ((encoding & ~kFormat) == kFromHere) return value + here;
    if ((encoding & ~kFormat) != 0) failed_ = true;
    return value;
  }

private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
  bool failed_ = false;
};

// ---- The row of a table that holds at one address ----

enum class Saved : std::uint8_t { kUntouched, kAtOffset, kUndefined, kOtherwise };

struct Place {
  Saved saved = Saved::kUntouched;
  std::int64_t offset = 0; // from the CFA
};

struct Row {
  std::uint64_t cfaRegister = kStackPointer;
  std::int64_t cfaOffset = 0;
  bool cfaIsExpression = false;
  Place framePointer;
  Place returnAddress;
};

struct Common {
  std::uint64_t codeAlignment = 1;
  std::int64_t dataAlignment = 1;
  std::uint8_t addressEncoding = kAbsolute8;
  bool hasAugmentationData = false;
  bool signalFrame = false;
  Cursor instructions{nullptr, 0};
};

// Runs the instructions of a table until they pass `target`.
class Machine {
public:
  Machine(const Common& common, std::uint64_t target) : common_(common), target_(target) {}

  bool run(Cursor code, std::uint64_t location) {
    location_ = location;
    while (!code.atEnd() && location_ <= target_) {
      if (!step(code)) return false;
    }
    return !code.failed();
  }

  void endCommonPart() { initial_ = row_; }
  const Row& row() const { return row_; }

private:
  static constexpr std::uint32_t kRemembered = 8;

  // Going past the target ends the run before what follows is applied.
  void advance(std::uint64_t units) { location_ += units * common_.codeAlignment; }

  Place* placeOf(std::uint64_t reg) {
    if (reg == kFramePointer) return &row_.framePointer;
    if (reg == kReturnAddress) return &row_.returnAddress;
    return nullptr;
  }

  void set(std::uint64_t reg, Place place) {
    if (Place* known = placeOf(reg)) *known = place;
  }

  void restore(std::uint64_t reg) {
    if (reg == kFramePointer) row_.framePointer = initial_.framePointer;
    if (reg == kReturnAddress) row_.returnAddress = initial_.returnAddress;
  }

  Place atOffset(std::int64_t factored) const { return {Saved::kAtOffset, factored * common_.dataAlignment}; }

  void defineCfa(std::uint64_t reg, std::int64_t offset) {
    row_.cfaRegister = reg;
    row_.cfaOffset = offset;
    row_.cfaIsExpression = false;
  }

  bool step(Cursor& code) {
    const auto instruction = code.read<std::uint8_t>();
    const std::uint8_t operand = instruction & 0x3F;
    switch (instruction & 0xC0) {
    case 0x40:
      advance(operand);
      return true;
    case 0x80:
      set(operand, atOffset(static_cast<std::int64_t>(code.unsignedLeb())));
      return true;
    case 0xC0:
      restore(operand);
      return true;
    default:
      return extended(code, instruction);
    }
  }

  bool extended(Cursor& code, std::uint8_t instruction) {
    const auto number = [&code] { return static_cast<std::int64_t>(code.unsignedLeb()); };
    switch (instruction) {
    case 0x00:
      return true; // nop
    case 0x01:
      location_ = code.encoded(common_.addressEncoding);
      return true; // set_loc
    case 0x02:
      advance(code.read<std::uint8_t>());
      return true;
    case 0x03:
      advance(code.read<std::uint16_t>());
      return true;
    case 0x04:
      advance(code.read<std::uint32_t>());
      return true;
    case 0x05: { // offset_extended
      const std::uint64_t reg = code.unsignedLeb();
      set(reg, atOffset(number()));
      return true;
    }
    case 0x06:
      restore(code.unsignedLeb());
      return true;
    case 0x07:
      set(code.unsignedLeb(), {Saved::kUndefined, 0});
      return true;
    case 0x08:
      set(code.unsignedLeb(), {Saved::kUntouched, 0});
      return true;
    case 0x09: // register
    case 0x14: // val_offset
    case 0x15: // val_offset_sf
      set(code.unsignedLeb(), {Saved::kOtherwise, 0});
      code.unsignedLeb();
      return true;
    case 0x0A: // remember_state
      if (remembered_ == kRemembered) return false;
      stack_[remembered_++] = row_;
      return true;
    case 0x0B: // restore_state
      if (remembered_ == 0) return false;
      row_ = stack_[--remembered_];
      return true;
    case 0x0C: { // def_cfa
      const std::uint64_t reg = code.unsignedLeb();
      defineCfa(reg, number());
      return true;
    }
    case 0x0D:
      defineCfa(code.unsignedLeb(), row_.cfaOffset);
      return true;
    case 0x0E:
      row_.cfaOffset = number();
      return true;
    case 0x0F: // def_cfa_expression
      row_.cfaIsExpression = true;
      code.skip(code.unsignedLeb());
      return true;
    case 0x10: // expression
    case 0x16: // val_expression
      set(code.unsignedLeb(), {Saved::kOtherwise, 0});
      code.skip(code.unsignedLeb());
      return true;
    case 0x11: { // offset_extended_sf
      const std::uint64_t reg = code.unsignedLeb();
      set(reg, atOffset(code.signedLeb()));
      return true;
    }
    case 0x12: { // def_cfa_sf
      const std::uint64_t reg = code.unsignedLeb();
      defineCfa(reg, code.signedLeb() * common_.dataAlignment);
      return true;
    }
    case 0x13:
      row_.cfaOffset = code.signedLeb() * common_.dataAlignment;
      return true;
    case 0x2E:
      code.unsignedLeb();
      return true; // the size of arguments: nothing to unwinding
    default:
      return false;
    }
  }

  const Common& common_;
  const std::uint64_t target_;
  std::uint64_t location_ = 0;
  Row row_;
  Row initial_;
  Row stack_[kRemembered];
  std::uint32_t remembered_ = 0;
};

// ---- Finding the table ----

// A record begins with its length, 4 bytes. The longer form is not used by compilers.
bool openRecord(const std::uint8_t* record, Cursor& cursor) {
  std::uint32_t length;
  std::memcpy(&length, record, sizeof length);
  if (length == 0 || length == 0xFFFFFFFF) return false;
  cursor = Cursor(record + sizeof length, length);
  return true;
}

bool readCommon(const std::uint8_t* record, Common& common) {
  Cursor cursor(nullptr, 0);
  if (!openRecord(record, cursor)) return false;
  const auto id = cursor.read<std::uint32_t>();
  const auto version = cursor.read<std::uint8_t>();
  if (id != 0 || (version != 1 && version != 3)) return false;
  char augmentation[8];
  std::uint32_t length = 0;
  for (;;) {
    const auto letter = static_cast<char>(cursor.read<std::uint8_t>());
    if (letter == '\0') break;
    if (length == sizeof augmentation - 1) return false;
    augmentation[length++] = letter;
  }
  augmentation[length] = '\0';
  common.codeAlignment = cursor.unsignedLeb();
  common.dataAlignment = cursor.signedLeb();
  const std::uint64_t returnRegister = version == 1 ? cursor.read<std::uint8_t>() : cursor.unsignedLeb();
  if (returnRegister != kReturnAddress) return false;
  if (length > 0 && augmentation[0] != 'z') return false;
  common.hasAugmentationData = length > 0;
  const std::uint64_t dataLength = length > 0 ? cursor.unsignedLeb() : 0;
  Cursor data = cursor;
  cursor.skip(dataLength);
  for (std::uint32_t i = 1; i < length; ++i) {
    switch (augmentation[i]) {
    case 'R':
      common.addressEncoding = data.read<std::uint8_t>();
      break;
    case 'L':
      data.read<std::uint8_t>();
      break;
    case 'P':
      data.encoded(data.read<std::uint8_t>(), true);
      break;
    case 'S':
      common.signalFrame = true;
      break;
    default:
      return false;
    }
  }
  common.instructions = cursor;
  return !cursor.failed() && !data.failed();
}

// The record for an address in the sorted index of a module; null when there is none.
const std::uint8_t* findRecord(const std::uint8_t* header, std::uint64_t address) {
  if (header[0] != 1 || header[1] == kOmitted || header[2] != kUnsigned4 ||
      header[3] != (kFromTable | kSigned4)) {
    return nullptr;
  }
  Cursor cursor(header + 4, 64);
  cursor.encoded(header[1], true);
  const auto count = cursor.read<std::uint32_t>();
  const std::uint8_t* entries = cursor.position();
  const auto base = reinterpret_cast<std::uint64_t>(header);
  const auto value = [&](std::uint32_t index, std::uint32_t field) {
    std::int32_t offset = 0;
    std::memcpy(&offset, entries + std::uint64_t{index} * 8 + field * 4, sizeof offset);
    return base + static_cast<std::uint64_t>(static_cast<std::int64_t>(offset));
  };
  if (cursor.failed() || count == 0 || value(0, 0) > address) return nullptr;
  std::uint32_t low = 0;
  for (std::uint32_t high = count; high - low > 1;) {
    const std::uint32_t middle = low + (high - low) / 2;
    (value(middle, 0) <= address ? low : high) = middle;
  }
  return reinterpret_cast<const std::uint8_t*>(value(low, 1));
}

bool fits(std::int64_t value) { return value == static_cast<std::int32_t>(value); }

FrameRule ruleOf(const Row& row) {
  constexpr FrameRule kOther = {FrameKind::kOther, false, 0, 0};
  if (row.returnAddress.saved == Saved::kUndefined) return {FrameKind::kOutermost, false, 0, 0};
  const bool usualReturn = row.returnAddress.saved == Saved::kAtOffset && row.returnAddress.offset == -8;
  const bool usualCfa = !row.cfaIsExpression && fits(row.cfaOffset) &&
                        (row.cfaRegister == kStackPointer || row.cfaRegister == kFramePointer);
  const Place& saved = row.framePointer;
  const bool usualSave =
      saved.saved == Saved::kUntouched || (saved.saved == Saved::kAtOffset && fits(saved.offset));
  if (!usualReturn || !usualCfa || !usualSave) return kOther;
  return {row.cfaRegister == kStackPointer ? FrameKind::kStackPointer : FrameKind::kFramePointer,
          saved.saved == Saved::kAtOffset, static_cast<std::int32_t>(row.cfaOffset),
          static_cast<std::int32_t>(saved.offset)};
}

} // namespace

FrameRule readFrameRule(std::uint64_t returnAddress) {
  constexpr FrameRule kOther = {FrameKind::kOther, false, 0, 0};
  const std::uint64_t call = returnAddress - 1;
  dl_find_object object;
  if (_dl_find_object(reinterpret_cast<void*>(call), &object) != 0 || object.dlfo_eh_frame == nullptr)
    return kOther;
  const std::uint8_t* record = findRecord(static_cast<const std::uint8_t*>(object.dlfo_eh_frame), call);
  Cursor cursor(nullptr, 0);
  if (record == nullptr || !openRecord(record, cursor)) return kOther;

  const std::uint8_t* idPosition = cursor.position();
  const auto commonDistance = cursor.read<std::uint32_t>();
  Common common;
  if (commonDistance == 0 || !readCommon(idPosition - commonDistance, common) || common.signalFrame)
    return kOther;
  const std::uint64_t start = cursor.encoded(common.addressEncoding);
  const std::uint64_t length = cursor.encoded(common.addressEncoding, true);
  if (common.hasAugmentationData) cursor.skip(cursor.unsignedLeb());
  if (cursor.failed() || call - start >= length) return kOther;

  Machine machine(common, call);
  if (!machine.run(common.instructions, 0)) return kOther;
  machine.endCommonPart();
  if (!machine.run(cursor, start)) return kOther;
  return ruleOf(machine.row());
}

} // namespace heap
