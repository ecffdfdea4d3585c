// The annotations collector: lists the annotated places of every module that the program loads, on standard error and in a
// result file (docs/annotations-result.md).
//
// A module's section is found through its file, and decoded where it was loaded, since addresses in it may be relative to
// where it lies. Of the file nothing is believed: the section must lie in a readable segment of the module as the dynamic
// loader has it.
#include <climits>
#include <cstdio>
#include <cstring>

#include <link.h>
#include <unistd.h>

#include "collectors/common/elf_file.h"
#include "collectors/common/high_descriptors.h"
#include "collectors/common/text.h"
#include "collectors/common/xml_text.h"
#include "host/veskhost.h"
#include "veskrt/annotations.h"
#include "veskrt/log.h"
#include "veskrt/options.h"
#include "veskrt/runtime.h"
#include "veskrt/xml.h"

namespace annotations {

namespace {

using common::Text;
using Path = Text<PATH_MAX + 64>;

constexpr char kSectionName[] = ".ovk_notify_tab";
constexpr char kRoot[] = "annotations";

constinit VeskXMLFile* result = nullptr;
constinit Path resultPath{};
constinit Path partPath{};

// A line on standard error, in one piece.
template <class... Arguments>
void tell(const char* format, Arguments... arguments) {
  Text<2 * PATH_MAX> line;
  line.append(format, arguments...);
  line.append("\n");
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, line.text(), line.length());
}

// ---- Options ----

struct Options {
  std::uint32_t parser;
  std::uint32_t out;
  std::uint32_t log;
  std::uint32_t definitions;
};

constexpr const char* kOptionsWithFile[] = {"-out", "-log", "-definitions"};

Options registerOptions() {
  const std::uint32_t parser = __VeskGetOptionParser("veskannotations");
  const Options options = {
      .parser = parser,
      .out = __VeskRegisterPathOption(parser, "-out", "result file", "veskannotations.PID.xml", 0, 0, 1),
      .log = __VeskRegisterPathOption(parser, "-log", "log file", "veskannotations.PID.log", 0, 0, 1),
      .definitions = __VeskRegisterPathOption(parser, "-definitions",
                                              "file with definitions of modules without tables, repeatable",
                                              nullptr, 0, 1, 1)};
  __VeskRegisterBooleanOption(parser, "-help", "this list", 0, 0, 1);
  return options;
}

bool takesFile(const char* argument) {
  for (const char* option : kOptionsWithFile) {
    if (std::strcmp(option, argument) == 0) return true;
  }
  return false;
}

// Tells what is wrong with the first argument that is: the library's parser says so in the log only.
bool acceptArguments(std::uint32_t argc, const char* const* argv) {
  for (std::uint32_t i = 0; i < argc; i += 2) {
    if (!takesFile(argv[i])) {
      tell("veskannotations: '%s' is not an option (-help lists the options)", argv[i]);
      return false;
    }
    if (i + 1 == argc || argv[i + 1][0] == '-' || argv[i + 1][0] == '\0') {
      tell("veskannotations: option %s needs the name of a file (-help lists the options)", argv[i]);
      return false;
    }
  }
  return true;
}

bool asksForHelp(std::uint32_t argc, const char* const* argv) {
  for (std::uint32_t i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "-help") == 0) return true;
  }
  return false;
}

// Absolute, since the program may go elsewhere.
void nameFile(Path& path, const Options& options, std::uint32_t option, const char* extension) {
  const bool given = __VeskIsOptionSet(options.parser, option) != 0;
  const char* name = given ? __VeskGetPathOptionValue(options.parser, option) : "veskannotations";
  char directory[PATH_MAX] = "";
  if (name[0] != '/' && getcwd(directory, sizeof directory) != nullptr) path.append("%s/", directory);
  path.append("%s", name);
  if (!given) path.append(".%d.%s", __VeskGetPid(), extension);
}

// ---- One module ----

struct ModuleWalk {
  const VeskHostModule& module;
  const common::ElfFile& file;
  std::uint32_t count = 0;
};

// Is [start, end) inside a readable segment of the module that the loader has at this base?
bool isReadable(std::uint64_t base, std::uint64_t start, std::uint64_t end) {
  struct Question {
    std::uint64_t base;
    std::uint64_t start;
    std::uint64_t end;
    bool readable;
  } question = {base, start, end, false};
  const auto ask = [](dl_phdr_info* info, std::size_t, void* context) {
    auto& asked = *static_cast<Question*>(context);
    if (info->dlpi_addr != asked.base) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const ElfW(Phdr)& segment = info->dlpi_phdr[i];
      if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) == 0) continue;
      const std::uint64_t first = info->dlpi_addr + segment.p_vaddr;
      if (asked.start >= first && asked.end >= asked.start && asked.end - first <= segment.p_filesz) {
        asked.readable = true;
      }
    }
    return 1;
  };
  dl_iterate_phdr(ask, &question);
  return question.readable;
}

using LocationText = Text<64>;

void describe(LocationText& text, const VESK_QEL_RECORD& record) {
  static constexpr const char* kRegisters[] = {"rax", "rdx", "rcx", "rbx", "rsi", "rdi", "rbp", "rsp", "r8",
                                               "r9",  "r10", "r11", "r12", "r13", "r14", "r15", "rip"};
  const VESK_QEL_LOCATION& location = record.location;
  if (record.hasLocation == 0) {
    text.append("nowhere");
  } else if (location.isRegister == 0) {
    text.append("constant %lld", static_cast<long long>(location.value));
  } else if (location.value < static_cast<std::int64_t>(sizeof kRegisters / sizeof kRegisters[0])) {
    text.append("%s", kRegisters[location.value]);
  } else if (location.value <= 32) {
    text.append("xmm%d", static_cast<int>(location.value - 17));
  } else {
    text.append("unknown register");
  }
  if (record.hasLocation != 0 && location.isRegister != 0 && location.offset != 0)
    text.append("%+d", location.offset);
}

std::uint64_t list(VESK_QEL_RECORD* record, std::uint64_t context) {
  auto& walk = *reinterpret_cast<ModuleWalk*>(context);
  ++walk.count;
  Text<1024> symbol;
  std::uint64_t offset = 0;
  const char* function = walk.file.find(record->address - walk.module.base, &offset);
  if (function != nullptr) {
    common::appendClean(symbol, function);
    symbol.append("+0x%llx", static_cast<unsigned long long>(offset));
  }
  Text<1024> name;
  common::appendClean(name, record->name);
  LocationText location;
  describe(location, *record);

  __VeskXMLStartWritingOpeningTag(result, "annotation");
  __VeskXMLWriteHexadecimalAddressAttribute(result, "address", record->address);
  __VeskXMLWriteHexadecimalAddressAttribute(result, "offset", record->address - walk.module.base);
  if (record->probe != 0) __VeskXMLWriteHexadecimalAttribute(result, "probe", record->probe);
  __VeskXMLFinishWritingOpeningTag(result);
  if (symbol.length() != 0) __VeskXMLWriteStringElement(result, "symbol", symbol.text());
  __VeskXMLWriteStringElement(result, "name", name.text());
  __VeskXMLWriteStringElement(result, "location", location.text());
  __VeskXMLWriteClosingTag(result, "annotation");
  tell("  0x%llx  %-28s  %-20s  %s", static_cast<unsigned long long>(record->address),
       symbol.length() != 0 ? symbol.text() : "?", name.text(), location.text());
  return 0;
}

void listSection(const VeskHostModule& module, const common::ElfFile& file, ModuleWalk& walk) {
  common::ElfFile::Section section = {};
  if (!file.findSection(kSectionName, section) || !section.isLoaded) return;
  const std::uint64_t start = module.base + section.address;
  if (!isReadable(module.base, start, start + section.size)) {
    __VeskLogInternal(VESKLOG_SEVERITY_WARNING, VESKLOG_MSG_INTERNAL, 0,
                      "The annotation section of %s does not lie in the module; it is left out", module.path);
    return;
  }
  __VeskQELParseAndProcessRecords(module.base, reinterpret_cast<const unsigned char*>(start), section.size,
                                  list, &walk);
}

void moduleLoaded(const VeskHostModule* module) {
  Path path;
  common::appendClean(path, module->path);
  const common::ElfFile file(module->path);
  ModuleWalk walk{*module, file};
  __VeskXMLAcquireFile(result);
  __VeskXMLStartWritingOpeningTag(result, "module");
  __VeskXMLWriteHexadecimalAddressAttribute(result, "base", module->base);
  __VeskXMLFinishWritingOpeningTag(result);
  __VeskXMLWriteStringElement(result, "path", path.text());
  listSection(*module, file, walk);
  __VeskQELProcessExternalRecords(module->path, module->base, list, &walk);
  __VeskXMLWriteClosingTag(result, "module");
  __VeskXMLReleaseFile(result);
  if (walk.count != 0) tell("veskannotations: %u in %s", walk.count, path.text());
}

// ---- Start and end ----

void processEnding(VeskProcessEnd, int) {
  __VeskXMLAcquireFile(result);
  __VeskXMLWriteClosingTag(result, kRoot);
  __VeskXMLReleaseFile(result);
  __VeskXMLCloseFile(&result);
  if (std::rename(partPath.text(), resultPath.text()) == 0) {
    tell("veskannotations: all of it is in %s", resultPath.text());
  } else {
    tell("veskannotations: cannot write %s", resultPath.text());
  }
  __VeskCloseLogger();
}

bool createFiles(const Options& options) {
  nameFile(resultPath, options, options.out, "xml");
  partPath.append("%s.%d.part", resultPath.text(), __VeskGetPid());
  Path logPath;
  nameFile(logPath, options, options.log, "log");
  {
    const common::HighDescriptors scope;
    if (__VeskCreateLogger("veskannotations", logPath.text(), 0) == 0) {
      tell("veskannotations: cannot create the log file %s", logPath.text());
      return false;
    }
  }
  {
    const common::HighDescriptors scope;
    result = __VeskXMLCreateFile(partPath.text(), 0);
  }
  if (result == nullptr) {
    tell("veskannotations: cannot create the result file %s", resultPath.text());
    return false;
  }
  Path program;
  common::appendClean(program, veskHostProgramPath());
  __VeskXMLAcquireFile(result);
  __VeskXMLStartWritingOpeningTag(result, kRoot);
  __VeskXMLWriteIntegerAttribute(result, "version", 1);
  __VeskXMLFinishWritingOpeningTag(result);
  __VeskXMLWriteStringElement(result, "program", program.text());
  __VeskXMLReleaseFile(result);
  return true;
}

bool loadDefinitions(const Options& options) {
  bool loaded = true;
  __VeskProcessAppendOptionValues(
      options.parser, options.definitions,
      [](const char* path, void* context) {
        if (__VeskQELLoadExternalDefinitions(path) != 0) return 1;
        tell("veskannotations: cannot open the definitions %s", path);
        *static_cast<bool*>(context) = false;
        return 0;
      },
      &loaded);
  return loaded;
}

} // namespace

} // namespace annotations

extern "C" VESK_API int veskCollectorStart(std::uint32_t argc, const char* const* argv,
                                           VeskHostEvents* events) {
  using namespace annotations;
  constexpr int kRefused = 2;
  const Options options = registerOptions();
  if (asksForHelp(argc, argv)) {
    __VeskPrintHelp(options.parser, 0);
    return VESK_COLLECTOR_DONE;
  }
  if (!acceptArguments(argc, argv) || __VeskParseOptions2(options.parser, argc, argv) == 0) return kRefused;
  if (!createFiles(options)) return kRefused;
  if (!loadDefinitions(options)) {
    unlink(partPath.text());
    return kRefused;
  }
  events->moduleLoaded = moduleLoaded;
  events->processEnding = processEnding;
  return 0;
}
