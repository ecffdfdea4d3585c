#include "veskrt/counted_string.h"
#include "veskrt/host.h"
#include "veskrt/xml.h"

static VeskXMLFile* result;
static CountedString* modules;

static void moduleLoaded(const VeskHostModule* module) {
  __VeskStrAppend(modules, module->path);
  __VeskStrAppend(modules, " ");
}

static void ended(VeskProcessEnd how, int status) {
  (void)how;
  __VeskXMLWriteStringElement(result, "modules", modules->buffer);
  __VeskXMLWriteDecimalElement(result, "status", status);
  __VeskXMLWriteClosingTag(result, "outside");
  __VeskXMLCloseFile(&result);
}

VESK_API int veskCollectorStart(uint32_t argc, const char* const* argv, VeskHostEvents* events) {
  (void)argc, (void)argv;
  events->moduleLoaded = moduleLoaded;
  events->processEnding = ended;
  modules = __VeskStrAlloc(0, 64, "");
  result = __VeskXMLCreateFile("outside.xml", 0);
  __VeskXMLWriteOpeningTag(result, "outside");
  return 0;
}
