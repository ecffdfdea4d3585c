// Descriptors of the collector's own, out of the program's way: a program gets the numbers that it would get without us, and
// when it closes whatever it finds, what it opens next does not come where the log was.
#pragma once

namespace common {

// While it lives, the first file to be opened gets a number far above the program's, and is closed by an exec. Others that the
// process opens meanwhile come after it. One inside another one costs next to nothing.
class HighDescriptors {
public:
  HighDescriptors() noexcept;
  ~HighDescriptors();
  HighDescriptors(const HighDescriptors&) = delete;
  HighDescriptors& operator=(const HighDescriptors&) = delete;

private:
  static constexpr int kNumbers = 1024;

  bool plugged_[kNumbers] = {}; // numbers that are filled so that the next one is high
  int first_ = -1;              // the number of the first file; -1 if there are not so many
};

} // namespace common
