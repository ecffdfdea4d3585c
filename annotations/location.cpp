// A location expression is a length and so many bytes of DWARF operations. Three forms are understood: a
// literal, a register, and a register with an offset.
#include "annotations/location.h"

#include "veskrt/log.h"

namespace vesk::annotations {

namespace {

// The first operation of each group of 32.
constexpr unsigned char kLiteral = 0x30;
constexpr unsigned char kRegister = 0x50;
constexpr unsigned char kRegisterOffset = 0x70;
constexpr std::int64_t kUnknownRegister = 0xFFFFFFFF;

bool isOneOf(unsigned char operation, unsigned char first) {
  return operation >= first && operation < first + 32;
}

} // namespace

void note(const char* text) noexcept {
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%s", text);
}

bool decodeLocation(ByteReader reader, VESK_QEL_RECORD& record) noexcept {
  record.expression = reader.at();
  record.hasLocation = 1;
  VESK_QEL_LOCATION& location = record.location;
  location = {};

  std::uint32_t length;
  if (!reader.readUnsignedLeb128(length) || length > reader.left()) return false;
  unsigned char operation = 0; // an empty expression is as good as one that is not understood
  if (length != 0) reader.read(operation);

  if (isOneOf(operation, kRegisterOffset)) {
    location.value = operation - kRegisterOffset;
    location.isRegister = 1;
    return length == 1 || reader.readSignedLeb128(location.offset);
  }
  if (length != 1) {
    note("VESKRT: Unsupported Dwarf Expression in QEL");
  } else if (isOneOf(operation, kLiteral)) {
    location.value = operation - kLiteral;
  } else {
    location.value = isOneOf(operation, kRegister) ? operation - kRegister : kUnknownRegister;
    location.isRegister = 1;
  }
  return true;
}

} // namespace vesk::annotations
