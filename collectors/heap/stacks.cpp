#include "collectors/heap/stacks.h"

#include <cstring>
#include <new>

#include "collectors/heap/blocks.h"
#include "collectors/heap/debug_categories.h"
#include "collectors/heap/modules.h"
#include "veskrt/hash_table.h"
#include "veskrt/memory.h"

namespace heap {

namespace {

// Sites lie in chunks that never move.
constexpr std::uint32_t kSitesInChunk = 256;
constexpr std::uint32_t kSiteIds = 1u << kSiteBits;

constinit Lock lock;                      // all of the below; a site's figures are the accounts'
constinit VeskHashTable* table = nullptr; // by content: the key of a stack is its address
constinit StackCategories categories{};
constinit ThreadState* idleThreads = nullptr;
constinit std::uint32_t count = 0;
constinit Site* siteChunks[kSiteIds / kSitesInChunk] = {};

// ---- The hash: two frames a step ----

std::uint64_t mix(std::uint64_t left, std::uint64_t right) {
  const auto product = static_cast<unsigned __int128>(left) * right;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t hashOf(const Trace& trace) {
  constexpr std::uint64_t kLeft = 0xA0761D6478BD642Fu;
  constexpr std::uint64_t kRight = 0xE7037ED1A0B428DBu;
  const auto frame = [&trace](std::uint32_t i) { return reinterpret_cast<std::uint64_t>(trace.frames[i]); };
  std::uint64_t hash = trace.depth;
  std::uint32_t i = 0;
  for (; i + 1 < trace.depth; i += 2) hash = mix(frame(i) ^ kLeft, frame(i + 1) ^ kRight ^ hash);
  if (i < trace.depth) hash = mix(frame(i) ^ kLeft, kRight ^ hash);
  return hash;
}

// ---- The shared table ----

bool sameFrames(const Stack& stack, std::uint64_t hash, const Trace& trace) {
  return stack.hash == hash && stack.depth == trace.depth && stack.cut == trace.cut &&
         std::memcmp(stack.frames, trace.frames, trace.depth * sizeof(void*)) == 0;
}

std::uint64_t tableHash(VeskHashTable* /*table*/, std::uint64_t key) {
  return reinterpret_cast<const Stack*>(key)->hash;
}

std::uint32_t tableCompare(std::uint64_t storedKey, std::uint64_t searchedKey) {
  const auto& stored = *reinterpret_cast<const Stack*>(storedKey);
  const auto& searched = *reinterpret_cast<const Stack*>(searchedKey);
  return !stored.retired.load(std::memory_order_relaxed) && stored.hash == searched.hash &&
         stored.depth == searched.depth && stored.cut == searched.cut &&
         std::memcmp(stored.frames, searched.frames, searched.depth * sizeof(void*)) == 0;
}

void makeSite(Stack* stack) {
  Site*& chunk = siteChunks[stack->id / kSitesInChunk];
  if (chunk == nullptr) {
    chunk = static_cast<Site*>(__VeskMalloc(categories.sites, kSitesInChunk * sizeof(Site), 0));
    std::memset(chunk, 0, kSitesInChunk * sizeof(Site));
  }
  chunk[stack->id % kSitesInChunk].stack = stack;
}

// One block:  the stack | its frames | the module of each.
Stack& makeStack(std::uint64_t hash, const Trace& trace) {
  const std::uint32_t framesSize = static_cast<std::uint32_t>(trace.depth * sizeof(void*));
  const std::uint32_t modulesSize = static_cast<std::uint32_t>(trace.depth * sizeof(std::uint32_t));
  auto* block = static_cast<char*>(__VeskMalloc(
      categories.stacks, static_cast<std::uint32_t>(sizeof(Stack)) + framesSize + modulesSize, 0));
  auto* frames = reinterpret_cast<const void**>(block + sizeof(Stack));
  auto* modules = reinterpret_cast<std::uint32_t*>(block + sizeof(Stack) + framesSize);

  std::memcpy(frames, trace.frames, framesSize);
  // A return address may lie just behind the module's last instruction.
  for (std::uint32_t i = 0; i < trace.depth; ++i) {
    modules[i] = moduleAt(reinterpret_cast<std::uint64_t>(trace.frames[i]) - 1);
  }
  auto* stack = new (block) Stack{hash, frames, modules, trace.depth, ++count, trace.cut, false};
  makeSite(stack);
  __VeskDbgMessageDumpInternal(kDebugStacks, "stack %u of %u frames", stack->id, stack->depth);
  return *stack;
}

[[gnu::noinline]] Stack& findShared(std::uint64_t hash, const Trace& trace) {
  const Stack searched = {hash, trace.frames, nullptr, trace.depth, 0, trace.cut, false};
  Holding hold(lock);
  void* found = __VeskLookupHashTable(table, reinterpret_cast<std::uint64_t>(&searched));
  if (found != nullptr) return *static_cast<Stack*>(found);
  if (count == kSiteIds - 1) [[unlikely]]
    return *siteById(1).stack;
  Stack& stack = makeStack(hash, trace);
  __VeskInsertHashTableEntry(table, reinterpret_cast<std::uint64_t>(&stack), &stack);
  return stack;
}

bool leadsThroughGoneModule(const Stack& stack) {
  for (std::uint32_t i = 0; i < stack.depth; ++i) {
    if (stack.modules[i] != kNoModule && moduleByIndex(stack.modules[i]).unloaded) return true;
  }
  return false;
}

void updateRetired() {
  for (std::uint32_t id = 1; id <= count; ++id) {
    Stack& stack = *siteById(id).stack;
    stack.retired.store(leadsThroughGoneModule(stack), std::memory_order_relaxed);
  }
}

} // namespace

Stack& findStack(const Trace& trace, ThreadState* thread) {
  const std::uint64_t hash = hashOf(trace);
  if (thread == nullptr) [[unlikely]]
    return findShared(hash, trace);
  Stack*& cached = thread->cached[hash % ThreadState::kCached];
  if (cached != nullptr && sameFrames(*cached, hash, trace) &&
      !cached->retired.load(std::memory_order_relaxed)) [[likely]] {
    return *cached;
  }
  Stack& stack = findShared(hash, trace);
  cached = &stack;
  return stack;
}

Site& siteById(std::uint32_t id) { return siteChunks[id / kSitesInChunk][id % kSitesInChunk]; }
Site& siteOf(const Stack& stack) { return siteById(stack.id); }

void startStacks(const StackCategories& stackCategories) {
  categories = stackCategories;
  const VeskHashFunction functions[] = {tableHash};
  table = __VeskCreateHashTable(VESK_HASH_TABLE_UNLOCKED | VESK_HASH_TABLE_COMPARE_KEYS |
                                    VESK_HASH_TABLE_1024_BUCKETS,
                                functions, 1, tableCompare, nullptr, categories.stacks, 0);
  // The first is the stack without frames: it takes what comes when all ids are out.
  Trace none;
  none.depth = 0;
  none.cut = true;
  findShared(0, none);
}

ThreadState* beginThread() {
  Holding hold(lock);
  ThreadState* state = idleThreads;
  if (state != nullptr) {
    idleThreads = state->next;
    state->lastBlock = nullptr;
    return state;
  }
  state = static_cast<ThreadState*>(__VeskMalloc(categories.threads, sizeof(ThreadState), 0));
  std::memset(state, 0, sizeof(ThreadState));
  return state;
}

void endThread(ThreadState* state) {
  Holding hold(lock);
  state->next = idleThreads;
  idleThreads = state;
}

bool moduleCame(const VeskHostModule& module) {
  Holding hold(lock);
  const bool changed = addModule(module);
  if (changed) updateRetired();
  return changed;
}

void moduleWent(const VeskHostModule& module) {
  Holding hold(lock);
  if (retireModule(module)) updateRetired();
}

void clearSites() {
  Holding hold(lock);
  for (std::uint32_t id = 1; id <= count; ++id) {
    Site& site = siteById(id);
    Stack* stack = site.stack;
    site = {};
    site.stack = stack;
  }
}

StillStacks::StillStacks() { lock.acquire(); }
StillStacks::~StillStacks() { lock.release(); }
std::uint32_t StillStacks::count() const { return heap::count; }

} // namespace heap
