#include "report/file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "report/failure.h"
#include "report/text.h"

namespace report {

namespace {

[[noreturn]] void refuse(ExitStatus status, const std::string& path, int error) {
  throw Failure(status, printable(path) + ": " + std::strerror(error));
}

class OwnedDescriptor {
public:
  explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
  ~OwnedDescriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  int get() const { return descriptor_; }
  int close() { return ::close(std::exchange(descriptor_, -1)); }

private:
  int descriptor_;
};

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

} // namespace

std::string readFile(const std::string& path, Progress& progress) {
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "re"), std::fclose);
  if (file == nullptr) refuse(kUnreadable, path, errno);
  struct stat status;
  const std::size_t size = fstat(fileno(file.get()), &status) == 0 && S_ISREG(status.st_mode)
                               ? static_cast<std::size_t>(status.st_size)
                               : 0;
  std::string bytes;
  bytes.reserve(size);
  char part[1 << 16];
  errno = 0;
  while (const std::size_t count = std::fread(part, 1, sizeof part, file.get())) {
    bytes.append(part, count);
    progress.show("reading " + printable(baseName(path)), bytes.size(), size);
  }
  if (std::ferror(file.get()) != 0) refuse(kUnreadable, path, errno);
  return bytes;
}

void replaceFile(const std::string& path, const std::string& bytes) {
  std::string part = path + ".XXXXXX";
  OwnedDescriptor file(mkstemp(part.data()));
  if (file.get() < 0) refuse(kUnwritable, path, errno);
  const mode_t mask = umask(0);
  umask(mask);
  const bool written = writeAll(file.get(), bytes) && fchmod(file.get(), 0666 & ~mask) == 0 &&
                       file.close() == 0 && std::rename(part.c_str(), path.c_str()) == 0;
  if (written) return;
  const int error = errno;
  unlink(part.c_str());
  refuse(kUnwritable, path, error);
}

} // namespace report
