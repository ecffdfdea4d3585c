/* A collector with options and a result file: how many blocks of each size a program takes.
 * Try: veskrun -collector ./libsizes_collector.so -out sizes.xml -- ls; cat sizes.xml */
#include "veskrt/atomic.h"
#include "veskrt/host.h"
#include "veskrt/options.h"
#include "veskrt/xml.h"

static VeskXMLFile* result;
static uint32_t blocks[64]; /* by the number of the highest bit of their size */

static void allocated(void* block, size_t bytes, VeskHeapFunction function, const void* caller) {
  __VeskInterlockedIncrement(&blocks[__VeskGetMostSignificantOneIndexLong(bytes)]);
}

static void ended(VeskProcessEnd how, int status) {
  __VeskXMLAcquireFile(result);
  __VeskXMLWriteOpeningTag(result, "sizes");
  for (uint32_t i = 0; i < 64; i++) {
    if (blocks[i] == 0) continue;
    __VeskXMLStartWritingOpeningTag(result, "class");
    __VeskXMLWriteIntegerAttribute(result, "bits", (int32_t)i);
    __VeskXMLFinishWritingOpeningTag(result);
    __VeskXMLWriteDecimalElement(result, "blocks", blocks[i]);
    __VeskXMLWriteClosingTag(result, "class");
  }
  __VeskXMLWriteClosingTag(result, "sizes");
  __VeskXMLReleaseFile(result);
  __VeskXMLCloseFile(&result);
}

VESK_API int veskCollectorStart(uint32_t argc, const char* const* argv, VeskHostEvents* events) {
  const uint32_t parser = __VeskGetOptionParser("sizes");
  const uint32_t out = __VeskRegisterPathOption(parser, "-out", "result file", "sizes.xml", 0, 0, 1);
  const uint32_t help = __VeskRegisterBooleanOption(parser, "-help", "this list", 0, 0, 1);
  if (!__VeskParseOptions2(parser, argc, argv)) return 2;
  if (__VeskGetBooleanOptionValue(parser, help)) {
    __VeskPrintHelp(parser, 0);
    return VESK_COLLECTOR_DONE;
  }
  result = __VeskXMLCreateFile(__VeskGetPathOptionValue(parser, out), 0);
  if (result == NULL) return 2;
  events->allocated = allocated;
  events->processEnding = ended;
  return 0;
}
