#include "collectors/common/elf_file.h"

#include <cstring>

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace common {

ElfFile::ElfFile(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return;
  struct stat status;
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
    const auto size = static_cast<std::size_t>(status.st_size);
    void* mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    if (mapping != MAP_FAILED) {
      bytes_ = static_cast<const std::byte*>(mapping);
      size_ = size;
    }
  }
  close(descriptor);
}

ElfFile::~ElfFile() {
  if (bytes_ != nullptr) munmap(const_cast<std::byte*>(bytes_), size_);
}

template <class T>
const T* ElfFile::at(std::uint64_t offset, std::uint64_t count) const {
  if (offset > size_ || offset % alignof(T) != 0 || count > (size_ - offset) / sizeof(T)) return nullptr;
  return reinterpret_cast<const T*>(bytes_ + offset);
}

std::span<const Elf64_Shdr> ElfFile::sections() const {
  const auto* header = at<Elf64_Ehdr>(0, 1);
  if (header == nullptr || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0 ||
      header->e_ident[EI_CLASS] != ELFCLASS64 || header->e_shentsize != sizeof(Elf64_Shdr)) {
    return {};
  }
  const auto* first = at<Elf64_Shdr>(header->e_shoff, header->e_shnum);
  return first != nullptr ? std::span(first, header->e_shnum) : std::span<const Elf64_Shdr>{};
}

bool ElfFile::findSection(const char* name, Section& found) const {
  const auto all = sections();
  const auto* header = at<Elf64_Ehdr>(0, 1);
  if (all.empty() || header->e_shstrndx >= all.size()) return false;
  const Elf64_Shdr& names = all[header->e_shstrndx];
  const char* texts = at<char>(names.sh_offset, names.sh_size);
  if (texts == nullptr || names.sh_size == 0 || texts[names.sh_size - 1] != '\0') return false;
  for (const Elf64_Shdr& section : all) {
    if (section.sh_name >= names.sh_size || std::strcmp(texts + section.sh_name, name) != 0) continue;
    found = {section.sh_addr, section.sh_size, (section.sh_flags & SHF_ALLOC) != 0};
    return true;
  }
  return false;
}

const char* ElfFile::find(std::uint64_t address, std::uint64_t* offset) const {
  const char* name = findIn(SHT_SYMTAB, address, offset);
  return name != nullptr ? name : findIn(SHT_DYNSYM, address, offset);
}

const char* ElfFile::findIn(std::uint32_t sectionType, std::uint64_t address, std::uint64_t* offset) const {
  const auto all = sections();
  for (const Elf64_Shdr& section : all) {
    if (section.sh_type != sectionType || section.sh_link >= all.size()) continue;
    const std::uint64_t count = section.sh_size / sizeof(Elf64_Sym);
    const auto* symbols = at<Elf64_Sym>(section.sh_offset, count);
    const Elf64_Shdr& names = all[section.sh_link];
    const char* texts = at<char>(names.sh_offset, names.sh_size);
    if (symbols == nullptr || texts == nullptr || names.sh_size == 0 || texts[names.sh_size - 1] != '\0')
      continue;
    for (std::uint64_t k = 0; k < count; ++k) {
      const Elf64_Sym& symbol = symbols[k];
      const std::uint32_t type = ELF64_ST_TYPE(symbol.st_info);
      const bool isFunction = type == STT_FUNC || type == STT_GNU_IFUNC;
      if (isFunction && symbol.st_shndx != SHN_UNDEF && address - symbol.st_value < symbol.st_size &&
          symbol.st_name < names.sh_size) {
        if (offset != nullptr) *offset = address - symbol.st_value;
        return texts + symbol.st_name;
      }
    }
  }
  return nullptr;
}

} // namespace common
