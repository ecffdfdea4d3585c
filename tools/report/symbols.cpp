// Each module is a session of libdwfl of its own, reported at the addresses that the file itself has: modules
// of a result may have lain at the same place, one after the other.
#include "report/symbols.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "report/text.h"

namespace report {

namespace {

// In which libdwfl looks, after the module's own directory (the empty entry).
constexpr char kSystemDebugDirectory[] = "/usr/lib/debug";

using Scopes = std::unique_ptr<Dwarf_Die[], decltype(&std::free)>;

std::string nameOf(Dwarf_Die* function) {
  Dwarf_Attribute attribute;
  for (const unsigned linkage : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
    const char* name = dwarf_formstring(dwarf_attr_integrate(function, linkage, &attribute));
    if (name != nullptr) return printable(demangled(name));
  }
  const char* name = dwarf_diename(function);
  return name != nullptr ? printable(name) : "";
}

struct SourceLine {
  std::string file;
  unsigned line = 0;
};

SourceLine lineAt(Dwarf_Die* unit, Dwarf_Addr address) {
  Dwarf_Line* line = dwarf_getsrc_die(unit, address);
  int number = 0;
  if (line == nullptr || dwarf_lineno(line, &number) != 0) return {};
  const char* file = dwarf_linesrc(line, nullptr, nullptr);
  return file != nullptr ? SourceLine{printable(file), static_cast<unsigned>(number)} : SourceLine{};
}

// Where an inlined function was called.
SourceLine lineOfCall(Dwarf_Die* unit, Dwarf_Die* inlined) {
  Dwarf_Attribute attribute;
  Dwarf_Word file;
  Dwarf_Word line;
  Dwarf_Files* files;
  std::size_t count;
  if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &attribute), &file) != 0 ||
      dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &attribute), &line) != 0 ||
      dwarf_getsrcfiles(unit, &files, &count) != 0 || file >= count) {
    return {};
  }
  const char* path = dwarf_filesrc(files, file, nullptr, nullptr);
  return path != nullptr ? SourceLine{printable(path), static_cast<unsigned>(line)} : SourceLine{};
}

int openRegular(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status;
  if (descriptor < 0 || (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))) return descriptor;
  close(descriptor);
  return -1;
}

bool isHexadecimal(const std::string& text) {
  return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

} // namespace

// ---- A module's file ----

class Symbols::File {
public:
  File(const Module& module, const std::string& debugPath)
      : debugPath_(debugPath), debugPathText_(debugPath_.data()) {
    const bool inMemory = module.path.starts_with('[');
    if (inMemory || open(module.path, module.buildId) || openDebugFile(module.buildId)) return;
    missing_ = true;
  }
  ~File() { dwfl_end(session_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool isMissing() const { return missing_; }

  // Innermost first; none if nothing is known there. Function and line are all that it fills.
  std::vector<Place> find(Dwarf_Addr address) {
    if (module_ == nullptr) return {};
    Dwarf_Addr bias = 0;
    Dwarf_Die* unit = unitAt(address + bias_, bias);
    std::vector<Place> places;
    if (unit != nullptr) places = findInUnit(unit, address + bias_ - bias);
    if (places.empty()) places.push_back({{}, {}, 0, {}, 0, false});
    Place& outermost = places.back();
    if (outermost.function.empty()) outermost.function = symbolAt(address + bias_);
    return places;
  }

private:
  struct UnitRange {
    Dwarf_Addr start;
    Dwarf_Addr end;
    Dwarf_Die* unit;
    Dwarf_Addr bias;
  };

  bool open(const std::string& path, const std::string& buildId) {
    const int descriptor = openRegular(path);
    if (descriptor < 0) return false;
    session_ = dwfl_begin(&callbacks_);
    dwfl_report_begin(session_);
    module_ = dwfl_report_elf(session_, baseName(path).c_str(), path.c_str(), descriptor, 0, true);
    if (module_ == nullptr) close(descriptor); // else it is the session's
    dwfl_report_end(session_, nullptr, nullptr);
    if (module_ != nullptr && dwfl_module_getelf(module_, &bias_) != nullptr &&
        (buildId.empty() || ownBuildId() == buildId)) {
      return true;
    }
    dwfl_end(session_);
    session_ = nullptr;
    module_ = nullptr;
    return false;
  }

  // In place of a module that is gone.
  bool openDebugFile(const std::string& buildId) {
    if (buildId.size() <= 2 || !isHexadecimal(buildId)) return false;
    for (std::size_t start = 0; start <= debugPath_.size();) {
      const std::size_t end = std::min(debugPath_.find(':', start), debugPath_.size());
      const std::string directory = debugPath_.substr(start, end - start);
      start = end + 1;
      if (directory.starts_with('/') &&
          open(directory + "/.build-id/" + buildId.substr(0, 2) + "/" + buildId.substr(2) + ".debug",
               buildId)) {
        return true;
      }
    }
    return false;
  }

  std::string ownBuildId() const {
    const unsigned char* bytes = nullptr;
    GElf_Addr ignored;
    const int count = dwfl_module_build_id(module_, &bytes, &ignored);
    std::string text;
    for (int i = 0; i < count; ++i) {
      text += "0123456789abcdef"[bytes[i] >> 4];
      text += "0123456789abcdef"[bytes[i] & 15];
    }
    return text;
  }

  Dwarf_Die* unitAt(Dwarf_Addr address, Dwarf_Addr& bias) {
    Dwarf_Die* nearest = dwfl_module_addrdie(module_, address, &bias);
    if (nearest != nullptr && dwarf_haspc(nearest, address - bias) > 0) return nearest;
    // Some compilers write no table of the units' addresses.
    if (!unitsListed_) listUnits();
    for (const UnitRange& range : units_) {
      if (address - range.start >= range.end - range.start) continue;
      bias = range.bias;
      return range.unit;
    }
    return nullptr;
  }

  void listUnits() {
    unitsListed_ = true;
    Dwarf_Addr bias;
    for (Dwarf_Die* unit = nullptr; (unit = dwfl_module_nextcu(module_, unit, &bias)) != nullptr;) {
      Dwarf_Addr base;
      Dwarf_Addr start;
      Dwarf_Addr end;
      for (std::ptrdiff_t next = 0; (next = dwarf_ranges(unit, next, &base, &start, &end)) > 0;) {
        units_.push_back({start + bias, end + bias, unit, bias});
      }
    }
  }

  static std::vector<Place> findInUnit(Dwarf_Die* unit, Dwarf_Addr address) {
    SourceLine line = lineAt(unit, address);
    std::vector<Place> places;
    Dwarf_Die* found = nullptr;
    if (dwarf_getscopes(unit, address, &found) > 0) {
      const Scopes innermost(found, std::free);
      // The scopes around it in the code, and not those around its definition.
      Dwarf_Die* around = nullptr;
      const int count = dwarf_getscopes_die(&innermost[0], &around);
      const Scopes scopes(count > 0 ? around : nullptr, std::free);
      for (int i = 0; i < count; ++i) {
        const int tag = dwarf_tag(&scopes[i]);
        if (tag != DW_TAG_inlined_subroutine && tag != DW_TAG_subprogram) continue;
        const bool inlined = tag == DW_TAG_inlined_subroutine;
        places.push_back({nameOf(&scopes[i]), {}, 0, line.file, line.line, inlined});
        if (!inlined) break;
        line = lineOfCall(unit, &scopes[i]);
      }
    }
    if (places.empty()) places.push_back({{}, {}, 0, line.file, line.line, false});
    return places;
  }

  // Only of a function that reaches so far: the nearest symbol before it may be any other's.
  std::string symbolAt(Dwarf_Addr address) const {
    GElf_Off offset;
    GElf_Sym symbol;
    const char* name = dwfl_module_addrinfo(module_, address, &offset, &symbol, nullptr, nullptr, nullptr);
    const int type = GELF_ST_TYPE(symbol.st_info);
    if (name == nullptr || offset >= symbol.st_size || (type != STT_FUNC && type != STT_GNU_IFUNC)) return "";
    return printable(demangled(name));
  }

  std::string debugPath_;
  char* debugPathText_;
  const Dwfl_Callbacks callbacks_ = {nullptr, dwfl_standard_find_debuginfo, nullptr, &debugPathText_};
  Dwfl* session_ = nullptr;
  Dwfl_Module* module_ = nullptr;
  Dwarf_Addr bias_ = 0;
  bool missing_ = false;
  bool unitsListed_ = false;
  std::vector<UnitRange> units_;
};

// ---- All modules ----

Symbols::Symbols(const std::vector<Module>& modules, const std::string& debugDirectory)
    : modules_(modules), debugPath_(std::string(":.debug:") + kSystemDebugDirectory), files_(modules.size()) {
  if (!debugDirectory.empty()) debugPath_ += ":" + debugDirectory;
}

Symbols::~Symbols() = default;

std::vector<Place> Symbols::find(const Frame& frame) {
  if (frame.module == Frame::kNoModule) return {{{}, {}, frame.offset, {}, 0, false}};
  const Module& module = modules_[frame.module];
  auto& file = files_[frame.module];
  if (file == nullptr) file = std::make_unique<File>(module, debugPath_);
  // The call lies in front of where it returns to.
  std::vector<Place> places = file->find(frame.offset - 1);
  if (places.empty()) places.push_back({{}, {}, 0, {}, 0, false});
  for (Place& place : places) {
    place.module = printable(baseName(module.path));
    place.offset = frame.offset;
  }
  return places;
}

std::string Symbols::remark() const {
  constexpr std::size_t kNamed = 5;
  std::string names;
  std::size_t count = 0;
  for (std::size_t i = 0; i < files_.size(); ++i) {
    if (files_[i] == nullptr || !files_[i]->isMissing()) continue;
    if (count++ < kNamed) names += (names.empty() ? "" : ", ") + printable(modules_[i].path);
  }
  if (count == 0) return "";
  if (count > kNamed) names += " and " + std::to_string(count - kNamed) + " more";
  return "not there, or not as it was when it ran, so that its frames have no names: " + names;
}

} // namespace report
