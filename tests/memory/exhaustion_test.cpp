// Every host allocation fails in turn while a script goes through all families of the library: the process
// goes on with the right results, or ends as it is promised to, with a whole log.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pugixml.hpp>
#include <sys/mman.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/annotations.h"
#include "veskrt/backtrace.h"
#include "veskrt/counted_string.h"
#include "veskrt/debug.h"
#include "veskrt/hash_table.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/memory_collection.h"
#include "veskrt/modules.h"
#include "veskrt/options.h"
#include "veskrt/queue.h"
#include "veskrt/range_table.h"
#include "veskrt/runtime.h"
#include "veskrt/set.h"
#include "veskrt/text.h"
#include "veskrt/tree.h"
#include "veskrt/vector.h"
#include "veskrt/xml.h"

namespace {

// What a child leaves behind, in memory shared with it.
struct Report {
  std::uint64_t allocations;
  std::uint64_t beforeLog; // those of them before there was a log, and before the first reserve
  std::int32_t exitCode;   // that the exit handler was given
  std::uint64_t digest;    // of all results; 0 if the script did not come to its end
};
Report* report = nullptr;

std::uint64_t digest;
void note(std::uint64_t value) { digest = (digest ^ value) * 1099511628211u + 1; }
void note(const char* text) {
  for (; *text != '\0'; ++text) note(static_cast<unsigned char>(*text));
}
template <class T>
T* given(T* pointer) {
  if (pointer == nullptr) _exit(77); // null handed out
  return pointer;
}

std::uint32_t newCategory() {
  static int count = 0;
  return __VeskRegisterMemoryCategory(("CATEGORY_" + std::to_string(++count)).c_str());
}

void useMemory() {
  const std::uint32_t category = newCategory();
  std::vector<char*> blocks;
  for (std::uint32_t size = 1; size < 200000; size = size * 3 + 1) {
    for (int n = 0; n < 3; ++n) {
      blocks.push_back(static_cast<char*>(given(__VeskMalloc(category, size, 0))));
      std::memset(blocks.back(), n, size);
    }
  }
  for (char* block : blocks) {
    note(static_cast<std::uint64_t>(*block));
    __VeskFree(block);
  }
}

void useLog() {
  const std::int32_t logger = __VeskGetLoggerHandle("exhaustion");
  static constexpr const char* kNames[] = {"first", "second", nullptr};
  const LogMessageDefinition definition = {"MADE", kNames, 0, logger};
  const std::uint32_t message = __VeskRegisterLogMessage2(&definition);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, message, 0, VESKLOG_ARG_STRING, "<text>", VESKLOG_ARG_INT, 5);
  note(message);
  static constexpr DbgMapEntry kMap[] = {{1, "SOME"}, {0, nullptr}};
  note(static_cast<std::uint64_t>(__VeskDbgRegisterDbgMap(kMap)));
}

void useXml() {
  VeskXMLFile* file = given(__VeskXMLCreateFile("result.xml", 0));
  __VeskXMLWriteOpeningTag(file, "root");
  __VeskXMLWriteStringElement(file, "name", std::string(5000, '&').c_str());
  __VeskXMLWriteClosingTag(file, "root");
  __VeskXMLCloseFile(&file);
  pugi::xml_document document;
  note(document.load_file("result.xml").status);
}

void useOptions() {
  const std::uint32_t parser = __VeskGetOptionParser("exhaustion");
  const std::uint32_t list = __VeskRegisterStringOption(parser, "-list", "texts", nullptr, 0, 1, 1);
  const std::uint32_t mode = __VeskRegisterStringEnumOption(parser, "-mode", "a mode", "slow", 0, 1);
  __VeskSetValidStringOptionArgumentWithEnum(parser, mode, "fast", 7);
  const std::string text(300, 'x');
  const char* const arguments[] = {"-list", text.c_str(), "-list", "b", "-mode", "fa"};
  note(static_cast<std::uint64_t>(__VeskParseOptions2(parser, 6, arguments)));
  note(given(__VeskGetStringOptionArgumentValue(parser, list, 2)));
  note(static_cast<std::uint64_t>(__VeskGetStringOptionEnumValue(parser, mode)));
  __VeskLogToolOptionValues(parser);
  __VeskReleaseOptionParserHandle(parser, "exhaustion");
}

void useHashTable() {
  VeskHashTable* table = given(__VeskCreateHashTable(0, nullptr, 2, nullptr, nullptr, newCategory(), 0));
  for (std::uint64_t key = 1; key <= 6000; ++key) {
    note(reinterpret_cast<std::uint64_t>(
        given(__VeskInsertHashTableEntry(table, key * 769, reinterpret_cast<void*>(key)))));
  }
  for (std::uint64_t key = 1; key <= 6000; key += 3) {
    note(reinterpret_cast<std::uint64_t>(given(__VeskRemoveHashTableEntry(table, key * 769))));
  }
  std::uint32_t count = 0;
  note(__VeskScanAndEmptyHashTable(table, nullptr, &count));
  __VeskDestroyHashTable(table, nullptr);
}

void useTree() {
  RedBlackTree* tree = given(__VeskCreateRedBlackTree(newCategory(), nullptr, nullptr, nullptr));
  for (std::uint64_t n = 0; n < 3000; ++n) __VeskInsertRedBlackEntry(tree, n * 7919 % 3001, n);
  __VeskDestroyRedBlackRange(tree, 100, 2000);
  note(tree->count);
  note(static_cast<std::uint64_t>(__VeskValidateRedBlack(tree)));
  __VeskDestroyRedBlackTree(tree);
}

void useRangeTable() {
  RangeTable* table = given(__VeskCreateRangeTable(1 << 20, newCategory(), 0, 0, nullptr));
  for (std::uint64_t n = 1; n <= 700; ++n) {
    __VeskInsertRangeTableEntry(table, n << 21, (n << 21) + n * 2999 % 2000000 + 1, n);
  }
  std::uint64_t start = 0, end = 0;
  note(__VeskLookupRangeTable(table, (555u << 21), &start, &end));
  note(end);
  __VeskDestroyRangeTableSpan(table, 100 << 21, 300u << 21, &start, &end);
  note(end);
  __VeskScanAndEmptyRangeTable(table);
  __VeskDestroyRangeTable(table);
}

void useSets() {
  Set a = {0, newCategory(), nullptr};
  Set b = {0, newCategory(), nullptr};
  MultiSet many = {0, newCategory(), nullptr};
  for (std::uint32_t n = 0; n < 3000; ++n) {
    __VeskAddAnElementToSet(&a, n * 64);
    __VeskAddAnElementToSet(&b, n * 96);
    __VeskAddAnElementToMultiSet(&many, n * 97);
  }
  __VeskUnionSet(&a, &b);
  __VeskUnionMultiSetSet(&many, &a);
  note(a.count);
  note(many.count);
  __VeskDestroySet(&a);
  __VeskDestroySet(&b);
  __VeskDestroyMultiSet(&many);
}

void useVectorAndQueue() {
  Vector* vector = given(__VeskCreateVector(newCategory()));
  for (std::uint32_t n = 0; n < 20000; n += 97) __VeskSetVectorElement(vector, n, n);
  Vector* copy = given(__VeskDuplicateVector(vector, newCategory()));
  note(__VeskGetVectorElement(copy, 970));
  __VeskDestroyVector(vector);
  __VeskDestroyVector(copy);
  Queue* queue = given(__VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, newCategory()));
  for (std::uint64_t n = 1; n < 5000; ++n) __VeskEnqueue(queue, n);
  for (int n = 0; n < 3000; ++n) note(__VeskDequeue(queue));
  __VeskDestroyQueue(queue);
}

void useText() {
  CountedString* string = given(__VeskStrAlloc(newCategory(), 10, "begin"));
  for (int n = 0; n < 3000; ++n) __VeskStrAppend(string, "0123456789");
  note(string->length);
  note(string->buffer);
  __VeskStrDestroy(string);
  char* copy = given(__VeskStrdup(std::string(7000, 'y').c_str()));
  note(given(__VeskGetBaseName("/a/b/c")));
  wchar_t* wide = given(__VeskAllocateAndConvertUtf8ToWstring(copy));
  char* narrow = given(__VeskAllocateAndConvertWstringToUtf8(wide));
  note(narrow);
  __VeskFreeWstring(wide);
  __VeskFreeMbString(narrow);
  __VeskFree(copy);
}

void useAnnotations() {
  {
    std::ofstream file("definitions");
    for (int n = 0; n < 400; ++n) file << "name" << n << " \"/opt/app/lib.so\" " << n << " 1\n";
  }
  note(static_cast<std::uint64_t>(__VeskQELLoadExternalDefinitions("definitions")));
  static constexpr auto kSee = [](VESK_QEL_RECORD* record, std::uint64_t) -> std::uint64_t {
    note(given(record->name));
    note(record->address);
    return 0;
  };
  __VeskQELProcessExternalRecords("/opt/app/lib.so", 0x1000, kSee, nullptr);
  __VeskQELCleanupDefinitions();
}

void useModulesAndBackTrace() {
  for (std::uint64_t n = 1; n <= 500; ++n) given(__VeskLoadModule(n, n << 20, (n << 20) + 4096));
  std::uint64_t handle = 0;
  note(__VeskGetModuleForVariable((77u << 20) + 5, &handle));
  note(handle);
  for (std::uint64_t n = 1; n <= 500; ++n) __VeskUnloadModule(n, n << 20);
  void* frames[VESK_MAX_BACKTRACE_FRAMES];
  note(__VeskCaptureStackBackTrace(0, 0, 0, 0, 0, frames) > 0);
}

// The end is what a host does: it closes the log, and may return.
void atExit(std::int32_t code) {
  report->exitCode = code;
  __VeskCloseLogger();
  if (report->allocations % 2 != 0) _exit(code);
}

void script(std::uint32_t reserves) {
  __VeskSetExitHandler(atExit);
  test::startRuntime();
  __VeskCreateLogger("exhaustion", "log", 0);
  __VeskEnableMemoryStatisticsCollection();
  __VeskRegisterMemoryCollector([] {});
  report->beforeLog = report->allocations;
  __VeskInitializeMemoryCollectorAndReserveMemory(reserves);
  useMemory();
  useLog();
  useXml();
  useOptions();
  useHashTable();
  __VeskPreVirtualAllocCheck(1 << 20);
  useTree();
  useRangeTable();
  useSets();
  useVectorAndQueue();
  useText();
  useAnnotations();
  useModulesAndBackTrace();
  __VeskCloseLogger();
}

// A sanitizer makes each run slow: there, some of the allocations fail.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t kStep = 11;
#else
constexpr std::uint64_t kStep = 1;
#endif

enum class Failing { kOnce, kFromThere };

// Runs the script with the k-th host allocation failing. The children share the parent's directory.
test::ChildResult runFailing(std::uint64_t k, Failing failing, std::uint32_t reserves) {
  std::remove("log");
  *report = {};
  return test::runInChild([=] {
    test::host().allow = [=](std::uint64_t) {
      const std::uint64_t n = ++report->allocations;
      return failing == Failing::kOnce ? n != k : n < k;
    };
    script(reserves);
    report->digest = digest;
  });
}

// The types of the records in order, from a log that must be whole.
std::vector<std::string> recordsOf(const std::string& path) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_file(path.c_str());
  EXPECT_TRUE(parsed) << parsed.description();
  std::vector<std::string> types;
  for (const pugi::xml_node& message : document.child("log").children("msg")) {
    types.push_back(message.child_value("type"));
    EXPECT_EQ(message.attribute("id").as_uint(), types.size());
  }
  return types;
}

std::size_t count(const std::vector<std::string>& types, const char* type) {
  return static_cast<std::size_t>(std::count(types.begin(), types.end(), type));
}

struct Outcome {
  std::uint64_t late;   // runs whose failure came after there was a log, and a reserve if any
  std::uint64_t wentOn; // runs that came to the end of the script
};

// Lets each allocation fail in turn.
Outcome failEach(Failing failing, std::uint32_t reserves) {
  EXPECT_EQ(runFailing(0, Failing::kOnce, reserves).exitStatus, 0);
  const Report unhindered = *report;
  EXPECT_NE(unhindered.digest, 0u);
  EXPECT_EQ(recordsOf("log"), std::vector<std::string>{"MADE"});
  Outcome outcome = {0, 0};
  for (std::uint64_t k = 1; k <= unhindered.allocations; k += kStep) {
    SCOPED_TRACE(k);
    const test::ChildResult child = runFailing(k, failing, reserves);
    outcome.late += k > unhindered.beforeLog;
    if (child.exitStatus == 0) {
      ++outcome.wentOn;
      EXPECT_EQ(report->digest, unhindered.digest);
      EXPECT_EQ(count(recordsOf("log"), "OUT_OF_MEMORY"), 0u);
      continue;
    }
    EXPECT_EQ(child.exitStatus, 255) << "signal " << child.signal << ": " << child.output;
    EXPECT_EQ(report->exitCode, -1);
    EXPECT_EQ(report->digest, 0u);
    if (k <= unhindered.beforeLog) continue;
    const std::vector<std::string> types = recordsOf("log");
    const std::uint64_t got = std::min<std::uint64_t>(reserves, k - unhindered.beforeLog - 1);
    EXPECT_EQ(count(types, "FREEING_RESERVES"), got);
    const std::vector<std::string> end(types.end() - std::min<std::ptrdiff_t>(2, types.size()), types.end());
    EXPECT_EQ(end, (std::vector<std::string>{"OUT_OF_MEMORY", "ABNORMAL_TERMINATE"}));
  }
  std::printf("%llu host allocations failed in turn, %llu runs went on\n",
              static_cast<unsigned long long>(unhindered.allocations),
              static_cast<unsigned long long>(outcome.wentOn));
  return outcome;
}

struct Exhaustion : testing::Test {
  void SetUp() override {
    report = static_cast<Report*>(
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  }
};

} // namespace

TEST_F(Exhaustion, EndsTheProcess) { EXPECT_EQ(failEach(Failing::kFromThere, 0).wentOn, 0u); }

TEST_F(Exhaustion, ReservesBridgeOneFailure) {
  const Outcome outcome = failEach(Failing::kOnce, 2);
  EXPECT_EQ(outcome.wentOn, outcome.late);
}

TEST_F(Exhaustion, ReservesAreGivenBackBeforeTheEnd) {
  EXPECT_EQ(failEach(Failing::kFromThere, 2).wentOn, 0u);
}
