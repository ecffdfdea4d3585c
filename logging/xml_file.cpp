// The XML writer.
//
// Everything goes into the stream's buffer, which lies in the file's own record, so that a usual record
// leaves in one write when its writer releases the file. Writing is copying: no formatted print where the
// bytes are known, no allocation.
#include "veskrt/xml.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <new>

#include <stdio_ext.h>

#include "runtime/backoff.h"
#include "runtime/spin_lock.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

using namespace vesk;

// All of it but `path` is under `lock`, which the callers take.
struct VeskXMLFile {
  FILE* stream; // null once closing it has failed
  char* path;
  std::uint32_t depth; // elements opened and not yet closed
  VeskSpinLock lock;
  char scratch[65536];  // comment texts are built here
  char buffer[1 << 17]; // the stream's
};

namespace {

constexpr std::size_t kMostEscapedBytes = 65535;
constexpr std::size_t kCommentLimit = 65535; // with the terminator

void write(VeskXMLFile& file, const char* text, std::size_t length) {
  fwrite_unlocked(text, 1, length, file.stream); // the file's lock is the stream's
}
void write(VeskXMLFile& file, const char* text) { write(file, text, std::strlen(text)); }
template <std::size_t N>
void writeLiteral(VeskXMLFile& file, const char (&text)[N]) {
  write(file, text, N - 1);
}

template <class Integer>
void writeNumber(VeskXMLFile& file, Integer value, int base = 10) {
  char digits[24];
  write(file, digits,
        static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, value, base).ptr - digits));
}

void writeHexadecimal(VeskXMLFile& file, std::uint64_t value) {
  writeLiteral(file, "0x");
  writeNumber(file, value, 16);
}

void startLine(VeskXMLFile& file) {
  static constexpr char kTabs[] = "\n\t\t\t\t\t\t\t\t";
  std::uint32_t tabs = file.depth;
  std::uint32_t piece = tabs < 8 ? tabs : 8;
  write(file, kTabs, piece + 1);
  for (tabs -= piece; tabs != 0; tabs -= piece) {
    piece = tabs < 8 ? tabs : 8;
    write(file, kTabs + 1, piece);
  }
}

void writeTag(VeskXMLFile& file, const char* name) {
  writeLiteral(file, "<");
  write(file, name);
  writeLiteral(file, ">");
}

void writeClosing(VeskXMLFile& file, const char* name) {
  writeLiteral(file, "</");
  write(file, name);
  writeLiteral(file, ">");
}

// More closing tags than opening ones leave the depth at 0.
void leaveElement(VeskXMLFile& file) {
  if (file.depth != 0) --file.depth;
}

struct Entity {
  const char* text;
  std::size_t length;
};

// The entity of a character that must be escaped; an empty one for the others.
Entity entityOf(char character) {
  switch (character) {
  case '"':
    return {"&quot;", 6};
  case '&':
    return {"&amp;", 5};
  case '\'':
    return {"&apos;", 6};
  case '<':
    return {"&lt;", 4};
  case '>':
    return {"&gt;", 4};
  default:
    return {nullptr, 0};
  }
}

// Runs of ordinary characters go out as they are. An entity that would not fit ends the text.
void writeEscaped(VeskXMLFile& file, const char* value) {
  if (value == nullptr) return;
  std::size_t left = kMostEscapedBytes;
  const char* run = value;
  for (const char* at = value;; ++at) {
    const auto length = static_cast<std::size_t>(at - run);
    const Entity entity = entityOf(*at);
    const bool full = length == left;
    if (*at != '\0' && !full && entity.length == 0) continue;
    write(file, run, length);
    left -= length;
    if (*at == '\0' || full || entity.length > left) return;
    write(file, entity.text, entity.length);
    left -= entity.length;
    run = at + 1;
  }
}

// Makes every run of '-' a single one, so that the text cannot end its comment.
std::size_t collapseDashes(char* text) {
  char* to = text;
  for (const char* from = text; *from != '\0'; ++from) {
    if (*from != '-' || to == text || to[-1] != '-') *to++ = *from;
  }
  *to = '\0';
  return static_cast<std::size_t>(to - text);
}

void attach(VeskXMLFile& file, FILE* stream) {
  file.stream = stream;
  setvbuf(stream, file.buffer, _IOFBF, sizeof file.buffer);
}

// Lets go of a stream that stays open: what it holds is never written, and it no longer points into the
// record.
void detach(VeskXMLFile& file) {
  if (file.stream == nullptr) return;
  __fpurge(file.stream);
  setvbuf(file.stream, nullptr, _IONBF, 0);
}

void destroy(VeskXMLFile** handle) {
  __VeskFree((*handle)->path);
  __VeskFree(*handle);
  *handle = nullptr;
}

bool isOpen(const VeskXMLFile* file) { return file != nullptr && file->stream != nullptr; }

// A whole element with a value that `writeValue` writes.
template <class WriteValue>
void writeElement(VeskXMLFile* file, const char* name, WriteValue writeValue) {
  if (!isOpen(file)) return;
  startLine(*file);
  writeTag(*file, name);
  writeValue(*file);
  writeClosing(*file, name);
}

template <class WriteValue>
void writeAttribute(VeskXMLFile* file, const char* name, WriteValue writeValue) {
  if (!isOpen(file)) return;
  writeLiteral(*file, " ");
  write(*file, name);
  writeLiteral(*file, "='");
  writeValue(*file);
  writeLiteral(*file, "'");
}

} // namespace

VeskXMLFile* __VeskXMLCreateFile(const char* path, int append) {
  FILE* const stream = __VeskFopen(path, append != 0 ? "a" : "w", nullptr);
  if (stream == nullptr) return nullptr;
  auto* const file =
      static_cast<VeskXMLFile*>(__VeskMalloc(VESK_MEMORY_CATEGORY_MISC, sizeof(VeskXMLFile), 0));
  attach(*file, stream);
  file->path = __VeskStrdup(path);
  file->depth = append != 0 ? 1 : 0;
  __VeskInitializeSpinLockAndSpinCount(&file->lock, kDefaultSpinCount);
  if (append == 0) {
    writeLiteral(*file, "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<!-- DO NOT EDIT THIS FILE -->\n");
    std::fflush(stream);
  }
  return file;
}

int __VeskXMLReopenFile(VeskXMLFile* file) {
  if (file == nullptr) return 0;
  if (file->stream != nullptr && __VeskFtell(file->stream) >= 0) return 1;
  FILE* const stream = __VeskFopen(file->path, "a", nullptr);
  if (stream == nullptr) return 0;
  detach(*file);
  attach(*file, stream);
  return 1;
}

void __VeskXMLCloseFile(VeskXMLFile** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  FILE* const stream = (*handle)->stream;
  (*handle)->stream = nullptr; // gone, whether closing it succeeds or not
  if (stream == nullptr || __VeskFclose(stream) == 0) destroy(handle);
}

void __VeskXMLCleanupAfterFork(VeskXMLFile** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  detach(**handle); // the parent's unfinished record is the parent's to write
  destroy(handle);
}

void __VeskXMLAcquireFile(VeskXMLFile* file) {
  if (file != nullptr) acquire(file->lock);
}

void __VeskXMLReleaseFile(VeskXMLFile* file) {
  if (file == nullptr) return;
  if (file->stream != nullptr) fflush_unlocked(file->stream);
  release(file->lock);
}

void __VeskXMLWriteComment(VeskXMLFile* file, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  __VeskXMLWriteCommentV(file, format, arguments);
  va_end(arguments);
}

void __VeskXMLWriteCommentV(VeskXMLFile* file, const char* format, va_list arguments) {
  if (!isOpen(file)) return;
  file->scratch[0] = '\0';
  if (format != nullptr) __VeskVsnprintf(file->scratch, kCommentLimit, format, arguments);
  const std::size_t length = collapseDashes(file->scratch);
  startLine(*file);
  writeLiteral(*file, "<!-- ");
  write(*file, file->scratch, length);
  writeLiteral(*file, " -->");
}

void __VeskXMLWriteOpeningTag(VeskXMLFile* file, const char* name) {
  if (!isOpen(file)) return;
  startLine(*file);
  writeTag(*file, name);
  ++file->depth;
}

void __VeskXMLStartWritingOpeningTag(VeskXMLFile* file, const char* name) {
  if (!isOpen(file)) return;
  startLine(*file);
  writeLiteral(*file, "<");
  write(*file, name);
  ++file->depth;
}

void __VeskXMLWriteIntegerAttribute(VeskXMLFile* file, const char* name, int32_t value) {
  writeAttribute(file, name, [value](VeskXMLFile& to) { writeNumber(to, value); });
}

void __VeskXMLWriteStringAttribute(VeskXMLFile* file, const char* name, const char* value) {
  writeAttribute(file, name, [value](VeskXMLFile& to) { write(to, value); });
}

void __VeskXMLWriteHexadecimalAttribute(VeskXMLFile* file, const char* name, uint64_t value) {
  writeAttribute(file, name, [value](VeskXMLFile& to) { writeHexadecimal(to, value); });
}

void __VeskXMLWriteHexadecimalAddressAttribute(VeskXMLFile* file, const char* name, uint64_t address) {
  __VeskXMLWriteHexadecimalAttribute(file, name, address);
}

void __VeskXMLFinishWritingOpeningTag(VeskXMLFile* file) {
  if (isOpen(file)) writeLiteral(*file, ">");
}

void __VeskXMLWriteStringValue(VeskXMLFile* file, const char* value) {
  if (isOpen(file)) writeEscaped(*file, value);
}

void __VeskXMLWriteClosingTag(VeskXMLFile* file, const char* name) {
  if (!isOpen(file)) return;
  leaveElement(*file);
  startLine(*file);
  writeClosing(*file, name);
}

void __VeskXMLAppendClosingTag(VeskXMLFile* file, const char* name) {
  if (!isOpen(file)) return;
  leaveElement(*file);
  writeClosing(*file, name);
}

void __VeskXMLWriteDecimalElement(VeskXMLFile* file, const char* name, int64_t value) {
  writeElement(file, name, [value](VeskXMLFile& to) { writeNumber(to, value); });
}

void __VeskXMLWriteLongDecimalElement(VeskXMLFile* file, const char* name, int64_t value) {
  __VeskXMLWriteDecimalElement(file, name, value);
}

void __VeskXMLWriteHexadecimalElement(VeskXMLFile* file, const char* name, uint64_t value) {
  writeElement(file, name, [value](VeskXMLFile& to) { writeHexadecimal(to, value); });
}

void __VeskXMLWriteHexadecimalAddressElement(VeskXMLFile* file, const char* name, uint64_t address) {
  __VeskXMLWriteHexadecimalElement(file, name, address);
}

void __VeskXMLWriteStringElement(VeskXMLFile* file, const char* name, const char* value) {
  writeElement(file, name, [value](VeskXMLFile& to) { writeEscaped(to, value); });
}
