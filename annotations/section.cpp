// The walk over the tables of an annotation section.
//
//   table   [ header | items | ... names ... expressions ... ]     offsets count from the header's first byte
//
// The versions differ in the header's layout and in what an item's address means; TableHeader and Item are
// what is left when that has been settled.
#include <cstring>

#include "annotations/location.h"
#include "veskrt/log.h"

extern const uint64_t VESK_QEL_FLAG_PCREL = 1;
extern const uint64_t VESK_QEL_FLAG_PROBE = 2;
extern const uint64_t VESK_QEL_FLAG_32BIT = 4;

namespace vesk::annotations {

namespace {

constexpr char kMagic[16] = ".ovk_notify_tab";
constexpr std::uint16_t kVersion11 = 0x0101;
constexpr std::uint16_t kVersion12 = 0x0102;
constexpr std::uint64_t kSmallestHeader = 36;

struct Area {
  std::uint32_t offset;
  std::uint32_t size;
};

struct TableHeader {
  std::uint16_t version;
  std::uint16_t count;
  Area names;
  Area expressions;
  std::uint64_t flags;
  std::uint64_t itemSize;
};

struct Walk {
  std::uint64_t loadBase;
  VeskQELCallback callback;
  void* context;
  // Every name that starts at or before the section's last zero byte has its terminator inside.
  const unsigned char* lastZero;
};

bool readArea(ByteReader& reader, Area& area) { return reader.read(area.offset) && reader.read(area.size); }

// The rest of a header behind its version.
bool readHeader(ByteReader& reader, TableHeader& header) {
  header.flags = 0;
  std::uint16_t reserved;
  if (header.version == kVersion11) {
    header.itemSize = 20;
    return reader.read(header.count) && readArea(reader, header.names) &&
           readArea(reader, header.expressions);
  }
  const bool whole = reader.read(reserved) && reader.read(header.count) && reader.read(reserved) &&
                     readArea(reader, header.names) && readArea(reader, header.expressions) &&
                     reader.read(header.flags);
  header.itemSize = (header.flags & VESK_QEL_FLAG_PROBE) != 0 ? 20 : 16;
  return whole;
}

// The reader at `offset` in an area of the table; false when that is not inside the section.
bool seek(const ByteReader& table, const Area& area, std::uint32_t offset, ByteReader& result) {
  result = table;
  return result.skip(std::uint64_t{area.offset} + offset) && result.left() != 0;
}

std::uint64_t relocate(std::uint64_t address, const TableHeader& header, const ByteReader& table,
                       const Walk& walk) {
  if (header.version == kVersion11) return address + walk.loadBase;
  if ((header.flags & VESK_QEL_FLAG_32BIT) != 0 && (address & 0x80000000) != 0) address |= 0xFFFFFFFF00000000;
  if ((header.flags & VESK_QEL_FLAG_PCREL) != 0) address += reinterpret_cast<std::uintptr_t>(table.at());
  return address;
}

// One item: false when something of it is not inside the section.
bool processItem(ByteReader& items, const TableHeader& header, const ByteReader& table, const Walk& walk) {
  VESK_QEL_RECORD record = {};
  std::uint64_t address = 0;
  std::uint32_t nameOffset = 0;
  std::uint32_t expressionOffset = 0;
  items.read(address); // all items have been seen to fit
  if (header.itemSize == 20) items.read(record.probe);
  items.read(nameOffset);
  items.read(expressionOffset);

  ByteReader name = table;
  ByteReader expression = table;
  if (!seek(table, header.names, nameOffset, name) || name.at() > walk.lastZero ||
      !seek(table, header.expressions, expressionOffset, expression) || !decodeLocation(expression, record)) {
    return false;
  }
  record.address = relocate(address, header, table, walk);
  record.name = reinterpret_cast<const char*>(name.at());
  if (walk.callback != nullptr) walk.callback(&record, reinterpret_cast<std::uintptr_t>(walk.context));
  return true;
}

void noteWrongSize() { note("QEL parser: invalid qel section size"); }

// One table at the reader, which it moves behind the table. False when the walk ends here.
bool processTable(ByteReader& reader, const Walk& walk) {
  const ByteReader table = reader;
  if (table.left() < kSmallestHeader) return noteWrongSize(), false;
  if (std::memcmp(table.at(), kMagic, sizeof kMagic) != 0) {
    return note("qel_parser: Incorrect qel header format"), false;
  }
  ByteReader items = table;
  TableHeader header;
  items.skip(sizeof kMagic);
  items.read(header.version);
  if (header.version == kVersion11) {
    note("Found QEL section with version 1.1");
  } else if (header.version == kVersion12) {
    note("Found QEL section with version 1.2");
  } else {
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "qel_parser: Expected qel version %d.%d",
                      header.version >> 8, header.version & 0xFF);
    return false;
  }
  if (!readHeader(items, header)) return noteWrongSize(), false;
  if (items.left() < header.count * header.itemSize) {
    return note("qel_parser: incorrect number of qel items"), false;
  }
  for (std::uint16_t i = 0; i < header.count; ++i) {
    if (!processItem(items, header, table, walk)) return noteWrongSize(), false;
  }
  const Area& last = header.expressions.offset > header.names.offset ? header.expressions : header.names;
  const std::uint64_t size = std::uint64_t{last.offset} + last.size;
  if (size == 0) return noteWrongSize(), false; // would be walked for ever
  return reader.skip(size);                     // a table that claims to reach beyond the section is its last
}

const unsigned char* findLastZero(const unsigned char* section, std::uint64_t size) {
  return static_cast<const unsigned char*>(memrchr(section, 0, size));
}

} // namespace

} // namespace vesk::annotations

using namespace vesk;
using namespace vesk::annotations;

void __VeskQELParseAndProcessRecords(uint64_t loadBase, const unsigned char* section, uint64_t size,
                                     VeskQELCallback callback, void* context) {
  const Walk walk = {loadBase, callback, context, size != 0 ? findLastZero(section, size) : nullptr};
  ByteReader reader(section, size);
  while (reader.left() != 0) {
    if (*reader.at() == 0) {
      reader.skip(1);
    } else if (!processTable(reader, walk)) {
      return;
    }
  }
}
