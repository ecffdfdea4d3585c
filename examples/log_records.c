/* What a log is made of: comments, free text, records with arguments, debug messages. */
#include "veskrt/debug.h"
#include "veskrt/host.h"
#include "veskrt/log.h"

int main(void) {
  veskHostInstall();
  if (!__VeskCreateLogger("reader", "reader.log", 0)) return 1;

  /* A comment, for people. */
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "read %d files", 3);

  /* A record of a type of our own, for programs: which file, which line. */
  const int32_t source = __VeskGetLoggerHandle("reader");
  const char* const arguments[] = {"file", "line", NULL};
  const LogMessageDefinition definition = {"BAD_INPUT", arguments, 0, source};
  const uint32_t badInput = __VeskRegisterLogMessage2(&definition);
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, badInput, 0, VESKLOG_ARG_STRING, "a<b>", VESKLOG_ARG_INT, 7);

  /* An error without a type. */
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "%s is empty", "b.txt");

  /* Debug messages come out once somebody has asked for their category. */
  __VeskParseDbgDumpOption("API,MEM");
  __VeskDbgMessageDumpInternal(1, "opened %d files", 3);
  __VeskDbgMessageDumpInternal(2, "never written: CAL is not enabled");

  __VeskCloseLogger();
  return 0;
}
