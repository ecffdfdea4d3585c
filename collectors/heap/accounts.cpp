#include "collectors/heap/accounts.h"

#include <ctime>

#include "veskrt/memory.h"

namespace heap {

namespace {

struct alignas(64) Accounts {
  Lock lock;
  bool peakIsOpen = false; // nothing was released since the last new peak: the live bytes are the peak
  std::uint64_t epoch = 0; // peaks closed so far
  std::uint64_t nextSample = ~std::uint64_t{0}; // nanoseconds, as clock()
  Totals totals{};

  std::uint64_t start = 0;
  std::uint64_t shortestInterval = 0; // nanoseconds; 0: no samples
  std::uint64_t interval = 0;
  std::uint32_t sampleCount = 0;
  Sample* samples = nullptr;
};

constinit Accounts accounts;

constexpr std::uint64_t kNanosecondsInMillisecond = 1'000'000;

// Exact to a tick of the kernel, a few milliseconds, and several times cheaper than the exact clock.
std::uint64_t clock() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// The coarse clocks of two threads may cross on their way here.
std::uint64_t sinceStart(std::uint64_t now) { return now > accounts.start ? now - accounts.start : 0; }

// Makes room by forgetting every second sample and taking half as many from now on.
void thinOut() {
  for (std::uint32_t i = 0; i < kSamples / 2; ++i) accounts.samples[i] = accounts.samples[2 * i];
  accounts.sampleCount = kSamples / 2;
  accounts.interval *= 2;
}

[[gnu::noinline]] void takeSample(std::uint64_t now) {
  if (accounts.sampleCount == kSamples) thinOut();
  const std::uint64_t elapsed = sinceStart(now);
  accounts.samples[accounts.sampleCount++] = {elapsed / kNanosecondsInMillisecond, accounts.totals.liveBytes,
                                              accounts.totals.liveBlocks, accounts.totals.calls};
  accounts.nextSample = accounts.start + (elapsed / accounts.interval + 1) * accounts.interval;
}

void sampleIfDue(std::uint64_t now) {
  if (now >= accounts.nextSample) takeSample(now);
}

void remember(Site& site) {
  if (site.peakEpoch == accounts.epoch) return;
  site.peakBytes = site.liveBytes;
  site.peakEpoch = accounts.epoch;
}

void add(Site& site, std::uint64_t bytes, VeskHeapFunction function, std::uint64_t now) {
  remember(site);
  ++site.calls;
  site.allocatedBytes += bytes;
  ++site.liveBlocks;
  site.liveBytes += bytes;

  Totals& totals = accounts.totals;
  ++totals.calls;
  ++totals.callsOf[function];
  totals.allocatedBytes += bytes;
  ++totals.liveBlocks;
  totals.liveBytes += bytes;
  if (totals.liveBytes > totals.peakBytes) {
    totals.peakBytes = totals.liveBytes;
    totals.peakNanoseconds = sinceStart(now);
    accounts.peakIsOpen = true;
  }
}

void subtract(Site& site, std::uint64_t bytes, bool temporary) {
  if (accounts.peakIsOpen) {
    accounts.peakIsOpen = false;
    ++accounts.epoch;
  }
  remember(site);
  --site.liveBlocks;
  site.liveBytes -= bytes;
  site.temporary += temporary;

  Totals& totals = accounts.totals;
  ++totals.releases;
  totals.releasedBytes += bytes;
  --totals.liveBlocks;
  totals.liveBytes -= bytes;
  totals.temporary += temporary;
}

} // namespace

void accountAllocation(Site& site, std::uint64_t bytes, VeskHeapFunction function) {
  const std::uint64_t now = clock();
  Holding hold(accounts.lock);
  add(site, bytes, function, now);
  sampleIfDue(now);
}

void accountRelease(Site& site, std::uint64_t bytes, bool temporary) {
  const std::uint64_t now = clock();
  Holding hold(accounts.lock);
  subtract(site, bytes, temporary);
  sampleIfDue(now);
}

void accountReallocation(Site* released, std::uint64_t releasedBytes, bool temporary, Site& site,
                         std::uint64_t bytes, VeskHeapFunction function) {
  const std::uint64_t now = clock();
  Holding hold(accounts.lock);
  if (released != nullptr) subtract(*released, releasedBytes, temporary);
  add(site, bytes, function, now);
  sampleIfDue(now);
}

void startAccounts(std::uint32_t timelineMilliseconds, std::uint32_t timelineCategory) {
  accounts.shortestInterval = timelineMilliseconds * kNanosecondsInMillisecond;
  if (timelineMilliseconds != 0) {
    accounts.samples = static_cast<Sample*>(__VeskMalloc(timelineCategory, kSamples * sizeof(Sample), 0));
  }
  restartAccounts();
}

void restartAccounts() {
  accounts.totals = {};
  accounts.peakIsOpen = false;
  accounts.epoch = 0;
  accounts.start = clock();
  accounts.sampleCount = 0;
  accounts.interval = accounts.shortestInterval;
  if (accounts.interval != 0) takeSample(accounts.start);
}

StillAccounts::StillAccounts() { accounts.lock.acquire(); }
StillAccounts::~StillAccounts() { accounts.lock.release(); }

const Totals& StillAccounts::totals() const { return accounts.totals; }

std::uint64_t StillAccounts::peakBytes(const Site& site) const {
  const bool untouchedSince = accounts.peakIsOpen || site.peakEpoch != accounts.epoch;
  return untouchedSince ? site.liveBytes : site.peakBytes;
}

std::uint64_t StillAccounts::nanoseconds() const { return sinceStart(clock()); }
const Sample* StillAccounts::samples() const { return accounts.samples; }
std::uint32_t StillAccounts::sampleCount() const { return accounts.sampleCount; }
std::uint64_t StillAccounts::sampleMilliseconds() const {
  return accounts.interval / kNanosecondsInMillisecond;
}

} // namespace heap
