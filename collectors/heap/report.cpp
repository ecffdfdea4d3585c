#include "collectors/heap/report.h"

#include <algorithm>

#include "veskrt/memory.h"
#include "veskrt/tree.h"

namespace heap {

namespace {

template <class T>
T* newArray(std::uint32_t category, std::uint32_t count) {
  return static_cast<T*>(__VeskMalloc(category, static_cast<std::uint32_t>(count * sizeof(T)), 0));
}

void copySites(Report& report, const StillStacks& stacks, const StillAccounts& accounts) {
  report.siteCount = 0;
  for (std::uint32_t id = 1; id <= stacks.count(); ++id) {
    const Site& site = siteById(id);
    if (site.calls == 0) continue;
    report.sites[report.siteCount++] = {site.stack,      site.calls,     site.allocatedBytes,
                                        site.liveBlocks, site.liveBytes, accounts.peakBytes(site),
                                        site.temporary};
  }
}

void copySamples(Report& report, const StillAccounts& accounts) {
  report.sampleMilliseconds = accounts.sampleMilliseconds();
  report.sampleCount = 0;
  if (report.sampleMilliseconds == 0) return;
  report.sampleCount = accounts.sampleCount();
  std::copy(accounts.samples(), accounts.samples() + report.sampleCount, report.samples);
  report.samples[report.sampleCount++] = {report.milliseconds, report.totals.liveBytes,
                                          report.totals.liveBlocks, report.totals.calls};
}

std::int32_t compareSites(std::uint64_t left, std::uint64_t right) {
  const auto& site = *reinterpret_cast<const ReportedSite*>(left);
  const auto& other = *reinterpret_cast<const ReportedSite*>(right);
  return comesBefore(site, other) ? -1 : comesBefore(other, site) ? 1 : 0;
}

// Through a tree, whose keys are the sites where they lie.
void orderSites(Report& report, std::uint32_t category) {
  RedBlackTree* const tree = __VeskCreateRedBlackTree(category, compareSites, nullptr, nullptr);
  for (std::uint32_t i = 0; i < report.siteCount; ++i) {
    __VeskInsertRedBlackEntry(tree, reinterpret_cast<std::uint64_t>(&report.sites[i]), i);
  }
  auto* const ordered = newArray<ReportedSite>(category, report.siteCount);
  ReportedSite* to = ordered;
  const RedBlackEntry* entry = tree->root;
  while (entry != tree->nil && entry->left != tree->nil) entry = entry->left;
  for (; entry != tree->nil; entry = entry->next) *to++ = report.sites[entry->item];
  __VeskDestroyRedBlackTree(tree);
  __VeskFree(report.sites);
  report.sites = ordered;
}

} // namespace

Report takeReport(std::uint32_t category) {
  Report report;
  report.samples = newArray<Sample>(category, kSamples + 1);
  StillStacks stacks;
  report.sites = newArray<ReportedSite>(category, stacks.count());
  {
    StillAccounts accounts;
    report.totals = accounts.totals();
    report.milliseconds = accounts.nanoseconds() / 1'000'000;
    copySites(report, stacks, accounts);
    copySamples(report, accounts);
  }
  orderSites(report, category);
  return report;
}

void releaseReport(Report& report) {
  __VeskFree(report.sites);
  __VeskFree(report.samples);
}

bool comesBefore(const ReportedSite& left, const ReportedSite& right) {
  if (left.peakBytes != right.peakBytes) return left.peakBytes > right.peakBytes;
  if (left.liveBytes != right.liveBytes) return left.liveBytes > right.liveBytes;
  if (left.allocatedBytes != right.allocatedBytes) return left.allocatedBytes > right.allocatedBytes;
  if (left.calls != right.calls) return left.calls > right.calls;
  return left.stack->id < right.stack->id;
}

} // namespace heap
