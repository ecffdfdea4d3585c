// Names of functions, from the symbol tables in a module's file.
//
// The file is read, not the mapped module: it is still there when the module has been unloaded, and it has
// the full table if it was not stripped. Nothing is allocated; the file is mapped while it is open. A file is
// untrusted input: what does not lie inside it is not there.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heap {

class SymbolFile {
public:
  explicit SymbolFile(const char* path);
  ~SymbolFile();
  SymbolFile(const SymbolFile&) = delete;
  SymbolFile& operator=(const SymbolFile&) = delete;

  // The function that an address of the module's own lies in, as the file spells it; null when no symbol
  // covers it. Lives as long as this.
  const char* find(std::uint64_t address) const;

private:
  template <class T>
  const T* at(std::uint64_t offset, std::uint64_t count) const;
  const char* findIn(std::uint32_t sectionType, std::uint64_t address) const;

  const std::byte* bytes_ = nullptr;
  std::size_t size_ = 0;
};

} // namespace heap
