// A module's file: names of functions, from its symbol tables, and its sections.
//
// The file is read, not the mapped module: it is still there when the module has been unloaded, and it has
// the full table if it was not stripped. Nothing is allocated; the file is mapped while it is open. A file is
// untrusted input: what does not lie inside it is not there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <elf.h>

namespace common {

class ElfFile {
public:
  explicit ElfFile(const char* path);
  ~ElfFile();
  ElfFile(const ElfFile&) = delete;
  ElfFile& operator=(const ElfFile&) = delete;

  // The function that an address of the module's own lies in, as the file spells it, and how far in; null when no symbol
  // covers it. Lives as long as this.
  const char* find(std::uint64_t address, std::uint64_t* offset = nullptr) const;

  struct Section {
    std::uint64_t address; // the module's own
    std::uint64_t size;
    bool isLoaded; // part of the program in memory
  };
  // The first section of that name; false when there is none.
  bool findSection(const char* name, Section& found) const;

private:
  template <class T>
  const T* at(std::uint64_t offset, std::uint64_t count) const;
  const char* findIn(std::uint32_t sectionType, std::uint64_t address, std::uint64_t* offset) const;
  std::span<const Elf64_Shdr> sections() const;

  const std::byte* bytes_ = nullptr;
  std::size_t size_ = 0;
};

} // namespace common
