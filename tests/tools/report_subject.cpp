// A program for reports: inlined calls, blocks that are left, blocks of a moment, and a function whose name is an attack
// on a page.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

[[gnu::noinline]] void*
hostileFunction(std::size_t bytes) asm("\"</script><script>window.hacked=1</script><b>&amp;\"");

void* hostileFunction(std::size_t bytes) {
  void* volatile block = std::malloc(bytes);
  return block;
}

namespace {

void* volatile kept;

[[gnu::always_inline]] inline void keepInlined(std::size_t bytes) { kept = std::malloc(bytes); }

} // namespace

namespace shapes {

template <class Shape>
struct Store {
  [[gnu::noinline]] static void leak(Shape bytes) { keepInlined(bytes); }
};

} // namespace shapes

// The argument is the number of blocks that are left.
int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10;
  for (int i = 0; i < count; ++i) shapes::Store<std::uint64_t>::leak(1000);
  kept = hostileFunction(3000);
  for (int i = 0; i < 200; ++i) {
    kept = std::malloc(50'000);
    std::free(kept);
    if (i % 40 == 0) usleep(3000); // so that there is something over time
  }
  std::vector<std::string> texts(500, std::string(100, 'x'));
  return texts.size() == 500 ? 0 : 1;
}
