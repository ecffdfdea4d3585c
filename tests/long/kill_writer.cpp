// What ./dev kill kills: threads write records into a log and into an XML file without end. Writes its process id when it may
// be killed.
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "veskrt/host.h"
#include "veskrt/log.h"
#include "veskrt/xml.h"

namespace {

// Mostly short, at times longer than any buffer.
std::string randomText(std::mt19937& random) {
  const std::size_t size = random() % 20 == 0 ? random() % 60000 : random() % 300;
  return std::string(size, static_cast<char>('a' + random() % 26));
}

void writeRecords(unsigned thread, std::uint32_t message) {
  std::mt19937 random(thread);
  for (;;) {
    const std::string text = randomText(random);
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, message, 0, VESKLOG_ARG_INT, static_cast<int>(text.size()),
                      VESKLOG_ARG_STRING, text.c_str());
  }
}

void writeXml(unsigned thread, VeskXMLFile* file) {
  std::mt19937 random(thread);
  for (;;) {
    const std::string text = randomText(random);
    __VeskXMLAcquireFile(file);
    __VeskXMLStartWritingOpeningTag(file, "msg");
    __VeskXMLWriteIntegerAttribute(file, "thread", static_cast<int>(thread));
    __VeskXMLFinishWritingOpeningTag(file);
    __VeskXMLWriteDecimalElement(file, "size", static_cast<int>(text.size()));
    __VeskXMLWriteStringElement(file, "text", text.c_str());
    __VeskXMLWriteClosingTag(file, "msg");
    __VeskXMLReleaseFile(file);
  }
}

} // namespace

int main() {
  veskHostInstall();
  if (__VeskCreateLogger("kill", "log", 0) != 1) return 1;
  static constexpr const char* kNames[] = {"size", "text", nullptr};
  const LogMessageDefinition definition = {"TEXT", kNames, 0, __VeskGetLoggerHandle("kill")};
  const std::uint32_t message = __VeskRegisterLogMessage2(&definition);
  VeskXMLFile* file = __VeskXMLCreateFile("xml", 0);
  if (file == nullptr) return 1;
  __VeskXMLWriteOpeningTag(file, "log");
  std::vector<std::thread> threads;
  for (unsigned n = 0; n < 2; ++n) threads.emplace_back(writeRecords, n, message);
  for (unsigned n = 0; n < 2; ++n) threads.emplace_back(writeXml, n, file);
  std::printf("%d\n", static_cast<int>(getpid()));
  std::fflush(stdout);
  threads.front().join();
  return 0;
}
