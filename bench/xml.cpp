// The XML writer beside libxml2's: a record with an attribute and five elements, to a file.
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <libxml/xmlwriter.h>
#include <unistd.h>

#include "bench/bench.h"
#include "veskrt/xml.h"

namespace {

using namespace bench;

constexpr const char* kName = "std::vector<int, std::allocator<int> >::_M_realloc_insert";
constexpr uint64_t kAddress = 0x7F12345678;

// Each contestant: a file of its own, write(number) and flush().

struct Ours {
  explicit Ours(const char* path) : file(__VeskXMLCreateFile(path, 0)) { __VeskXMLAcquireFile(file); }
  ~Ours() {
    __VeskXMLReleaseFile(file);
    __VeskXMLCloseFile(&file);
  }
  void write(int32_t number) {
    __VeskXMLStartWritingOpeningTag(file, "site");
    __VeskXMLWriteIntegerAttribute(file, "id", number);
    __VeskXMLFinishWritingOpeningTag(file);
    __VeskXMLWriteDecimalElement(file, "calls", number);
    __VeskXMLWriteLongDecimalElement(file, "bytes", int64_t{64} * number);
    __VeskXMLWriteHexadecimalElement(file, "flags", 0x11);
    __VeskXMLWriteHexadecimalAddressElement(file, "address", kAddress);
    __VeskXMLWriteStringElement(file, "name", kName);
    __VeskXMLWriteClosingTag(file, "site");
  }
  void flush() {
    __VeskXMLReleaseFile(file);
    __VeskXMLAcquireFile(file);
  }
  VeskXMLFile* file;
};

const xmlChar* text(const char* value) { return reinterpret_cast<const xmlChar*>(value); }

struct Libxml {
  // Over a descriptor: what a flush hands over is with the system then, not in another buffer.
  explicit Libxml(const char* path)
      : file(open(path, O_CREAT | O_TRUNC | O_WRONLY, 0600)),
        writer(xmlNewTextWriter(xmlOutputBufferCreateFd(file, nullptr))) {
    xmlTextWriterSetIndent(writer, 1);
    xmlTextWriterSetIndentString(writer, text("\t"));
  }
  ~Libxml() {
    xmlFreeTextWriter(writer);
    close(file);
  }
  template <class Number>
  void number(const char* name, Number value, int base) {
    char digits[24] = "0x";
    *std::to_chars(base == 16 ? digits + 2 : digits, std::end(digits) - 1, value, base).ptr = '\0';
    xmlTextWriterWriteElement(writer, text(name), text(digits));
  }
  void write(int32_t id) {
    char digits[12];
    *std::to_chars(digits, std::end(digits) - 1, id).ptr = '\0';
    xmlTextWriterStartElement(writer, text("site"));
    xmlTextWriterWriteAttribute(writer, text("id"), text(digits));
    number("calls", id, 10);
    number("bytes", int64_t{64} * id, 10);
    number("flags", 0x11, 16);
    number("address", kAddress, 16);
    xmlTextWriterWriteElement(writer, text("name"), text(kName));
    xmlTextWriterEndElement(writer);
  }
  void flush() { xmlTextWriterFlush(writer); }
  int file;
  xmlTextWriterPtr writer;
};

// The bytes of such a record, known beforehand, into a buffer that goes to the file in one write.
struct Floor {
  explicit Floor(const char* path) : file(open(path, O_CREAT | O_TRUNC | O_WRONLY, 0600)) {}
  ~Floor() { close(file); }
  static const std::string& record() {
    static const std::string made = [] {
      { Ours("record.xml").write(1234567); }
      std::ostringstream whole;
      whole << std::ifstream("record.xml").rdbuf();
      return whole.str().substr(whole.str().find("\n<site"));
    }();
    return made;
  }
  void write(int32_t) {
    std::memcpy(buffer + used, record().data(), record().size());
    benchmark::ClobberMemory();
    used += record().size();
  }
  void flush() {
    if (::write(file, buffer, used) < 0) std::abort();
    used = 0;
  }
  int file;
  size_t used = 0;
  char buffer[65536];
};

template <class Contestant, size_t kRecordsOfFlush>
void writeRecords(benchmark::State& state) {
  Contestant contestant("result.xml");
  int32_t number = 1000000;
  for (auto _ : state) {
    for (size_t i = 0; i < kRecordsOfFlush; ++i) contestant.write(++number);
    contestant.flush();
  }
  countItems(state, kRecordsOfFlush);
}

template <class Contestant>
void addContestant(const char* name) {
  add("xml.batch", name, writeRecords<Contestant, 100>);
  add("xml.flushed", name, writeRecords<Contestant, 1>);
}

} // namespace

void registerRows() {
  Floor::record();
  addContestant<Ours>("ours");
  addContestant<Floor>("floor");
  addContestant<Libxml>("libxml2");
}
