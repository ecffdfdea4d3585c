// A look at the dynamic loader's list costs one callback while nothing has changed, since each carries the
// loader's counts of loads and unloads. If they have changed the list is gone through under the loader's
// lock, and callbacks run after that.
#include "host/modules.h"

#include <cstring>
#include <new>

#include <elf.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include "host/spin.h"

namespace veskhost {

constinit std::uintptr_t loaderStart = 0;
constinit std::uintptr_t loaderSize = 0;

namespace {

using Segment = ElfW(Phdr);

constexpr std::uint32_t kMaxBuildId = 64;

struct Known {
  Known* next;
  VeskHostModule module;
  std::uint32_t seen; // the last look that found it
  bool told;
  std::uint8_t buildId[kMaxBuildId];
  char path[]; // absolute; behind it the loader's own name of the module, by which it is recognised
};

// One look at a time: the lock is only ever tried, never waited for.
constinit SpinLock lock;
constinit std::atomic<bool> again{false}; // somebody found the lock taken
// Under the lock.
constinit Known* known = nullptr; // in the order in which they were found
constinit std::uint32_t look = 0;
constinit unsigned long long lastAdds = 0;
constinit unsigned long long lastSubs = 0;
constinit const r_debug* debugger = nullptr; // the loader's record for debuggers: its lists of all namespaces

const char* loaderName(const Known& entry) noexcept { return entry.path + std::strlen(entry.path) + 1; }

void findBuildId(Known& entry, const char* note, std::size_t size) noexcept {
  while (size >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) header;
    std::memcpy(&header, note, sizeof header);
    note += sizeof header;
    size -= sizeof header;
    const std::size_t name = (std::size_t{header.n_namesz} + 3) & ~std::size_t{3};
    const std::size_t text = (std::size_t{header.n_descsz} + 3) & ~std::size_t{3};
    if (name > size || text > size - name) return;
    if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 && std::memcmp(note, "GNU", 4) == 0 &&
        header.n_descsz <= kMaxBuildId) {
      std::memcpy(entry.buildId, note + name, header.n_descsz);
      entry.module.buildId = entry.buildId;
      entry.module.buildIdSize = header.n_descsz;
      return;
    }
    note += name + text;
    size -= name + text;
  }
}

struct Extent {
  std::uint64_t start = UINT64_MAX;
  std::uint64_t end = 0;
};

Extent extentOf(const dl_phdr_info& info) noexcept {
  Extent extent;
  for (const Segment* header = info.dlpi_phdr; header != info.dlpi_phdr + info.dlpi_phnum; ++header) {
    if (header->p_type != PT_LOAD) continue;
    const std::uint64_t start = info.dlpi_addr + header->p_vaddr;
    if (start < extent.start) extent.start = start;
    if (start + header->p_memsz > extent.end) extent.end = start + header->p_memsz;
  }
  return extent;
}

// A name with a path behind which the loader's own follows. The program's own name in the list is empty.
Known* makeEntry(const char* name, bool vdso) noexcept {
  char directory[1024];
  const char* shown = vdso ? "[vdso]" : name[0] == '\0' ? veskHostProgramPath() : name;
  std::size_t prefix = 0;
  if (!vdso && shown[0] != '/' && getcwd(directory, sizeof directory - 1) != nullptr) {
    prefix = std::strlen(directory);
    directory[prefix++] = '/';
  }
  const std::size_t length = std::strlen(shown) + 1;
  const std::size_t nameLength = std::strlen(name) + 1;
  void* memory = veskHostAllocate(sizeof(Known) + prefix + length + nameLength);
  if (memory == nullptr) return nullptr;
  auto* entry = new (memory) Known();
  std::memcpy(entry->path, directory, prefix);
  std::memcpy(entry->path + prefix, shown, length);
  std::memcpy(entry->path + prefix + length, name, nameLength);
  return entry;
}

void seeModule(const dl_phdr_info& info) noexcept {
  const Extent extent = extentOf(info);
  if (extent.end == 0) return;
  Known** place = &known;
  for (; *place != nullptr; place = &(*place)->next) {
    Known* entry = *place;
    if (entry->module.start == extent.start && entry->module.end == extent.end &&
        std::strcmp(loaderName(*entry), info.dlpi_name) == 0) {
      entry->seen = look;
      return;
    }
  }
  const bool vdso = extent.start == getauxval(AT_SYSINFO_EHDR);
  Known* entry = makeEntry(info.dlpi_name, vdso);
  if (entry == nullptr) return;
  entry->module = {entry->path, info.dlpi_addr, extent.start, extent.end, nullptr, 0};
  entry->seen = look;
  for (const Segment* header = info.dlpi_phdr; header != info.dlpi_phdr + info.dlpi_phnum; ++header) {
    const auto* address = reinterpret_cast<const char*>(info.dlpi_addr + header->p_vaddr);
    if (header->p_type == PT_NOTE && entry->module.buildId == nullptr)
      findBuildId(*entry, address, header->p_memsz);
    if (header->p_type == PT_DYNAMIC && info.dlpi_name[0] == '\0') {
      for (auto* item = reinterpret_cast<const ElfW(Dyn)*>(address); item->d_tag != DT_NULL; ++item) {
        if (item->d_tag == DT_DEBUG) debugger = reinterpret_cast<const r_debug*>(item->d_un.d_ptr);
      }
    }
  }
  if (extent.start == getauxval(AT_BASE)) {
    loaderStart = extent.start;
    loaderSize = extent.end - extent.start;
  }
  *place = entry;
}

// Namespaces that dlmopen has made are in no list but the debugger's. Called under the loader's lock.
void seeOtherNamespaces() noexcept {
  if (debugger == nullptr || debugger->r_version < 2) return;
  const auto* space = reinterpret_cast<const r_debug_extended*>(debugger)->r_next;
  for (; space != nullptr; space = space->r_next) {
    for (const link_map* map = space->base.r_map; map != nullptr; map = map->l_next) {
      const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(map->l_addr);
      if (header == nullptr || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) continue;
      dl_phdr_info info = {};
      info.dlpi_addr = map->l_addr;
      info.dlpi_name = map->l_name;
      info.dlpi_phdr = reinterpret_cast<const Segment*>(map->l_addr + header->e_phoff);
      info.dlpi_phnum = header->e_phnum;
      seeModule(info);
    }
  }
}

int seeChanges(dl_phdr_info* info, std::size_t, void* changed) noexcept {
  auto& hasChanged = *static_cast<bool*>(changed);
  if (!hasChanged) {
    if (info->dlpi_adds == lastAdds && info->dlpi_subs == lastSubs) return 1;
    hasChanged = true;
    lastAdds = info->dlpi_adds;
    lastSubs = info->dlpi_subs;
    ++look;
    seeOtherNamespaces();
  }
  seeModule(*info);
  return 0;
}

// Those that are gone first: a new module may lie where an old one was.
void tellChanges(const Event& event) noexcept {
  for (Known** place = &known; *place != nullptr;) {
    Known* entry = *place;
    if (entry->seen == look) {
      place = &entry->next;
      continue;
    }
    *place = entry->next;
    if (event->moduleUnloaded != nullptr) event->moduleUnloaded(&entry->module);
    veskHostFree(entry);
  }
  for (Known* entry = known; entry != nullptr; entry = entry->next) {
    if (entry->told) continue;
    entry->told = true;
    if (event->moduleLoaded != nullptr) event->moduleLoaded(&entry->module);
  }
}

} // namespace

void lookForModules(const Event& event) noexcept {
  again.store(true);
  while (again.load() && lock.tryLock()) {
    again.store(false);
    bool changed = false;
    dl_iterate_phdr(seeChanges, &changed);
    if (changed) tellChanges(event);
    lock.unlock();
  }
}

void lookForModules() noexcept {
  if (!watching() || self.mark != Mark::kProgram) return;
  Event event;
  lookForModules(event);
}

} // namespace veskhost
