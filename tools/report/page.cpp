#include "report/page.h"

#include <map>
#include <string_view>

#include "report/assets.h"
#include "report/json.h"
#include "report/text.h"

namespace report {

namespace {

const char* nameOf(Metric metric) {
  switch (metric) {
  case Metric::kPeak:
    return "peak";
  case Metric::kLive:
    return "live";
  case Metric::kBytes:
    return "bytes";
  case Metric::kCalls:
    return "calls";
  case Metric::kTemporary:
    return "temporary";
  }
  return "peak";
}

// ---- The data: page.js tells what it reads ----

void add(Json& json, const Numbers& numbers) {
  json.beginArray();
  for (const std::uint64_t number : {numbers.peakBytes, numbers.liveBytes, numbers.liveBlocks,
                                     numbers.allocatedBytes, numbers.calls, numbers.temporary}) {
    json.value(number);
  }
  json.endArray();
}

void add(Json& json, const Run& run) {
  json.beginObject();
  json.key("path");
  json.value(run.resultPath);
  json.key("program");
  json.value(run.program);
  json.key("pid");
  json.value(run.pid);
  json.key("end");
  json.value(run.end);
  json.key("status");
  json.value(run.status);
  json.key("milliseconds");
  json.value(run.milliseconds);
  json.key("peakMilliseconds");
  json.value(run.totals.peakMilliseconds);
  json.key("totals");
  add(json, run.totals);
  json.key("functions");
  json.beginArray();
  for (const auto& [name, calls] : run.totals.functions) {
    json.beginArray();
    json.value(name);
    json.value(calls);
    json.endArray();
  }
  json.endArray();
  json.key("interval");
  json.value(run.sampleMilliseconds);
  json.key("samples");
  json.beginArray();
  for (const Sample& sample : run.samples) {
    json.beginArray();
    json.value(sample.milliseconds);
    json.value(sample.liveBytes);
    json.endArray();
  }
  json.endArray();
  json.endObject();
}

void add(Json& json, const Place& place) {
  json.beginArray();
  json.value(place.function);
  json.value(place.module);
  json.value(hexadecimal(place.offset));
  json.value(place.file);
  json.value(std::uint64_t{place.line});
  json.value(place.inlined);
  json.endArray();
}

void add(Json& json, const Row& row, bool comparing) {
  json.beginArray();
  add(json, row.now);
  if (comparing)
    add(json, row.before);
  else
    json.null();
  json.value(row.cut);
  json.beginArray();
  for (const std::uint32_t place : row.places) json.value(std::uint64_t{place});
  json.endArray();
  json.endArray();
}

std::string dataOf(const Profile& profile, const Selection& selection) {
  Json json;
  json.beginObject();
  json.key("metric");
  json.value(nameOf(firstMetric(selection)));
  json.key("leaks");
  json.value(selection.leaks);
  json.key("run");
  add(json, profile.run);
  json.key("before");
  if (profile.isComparison())
    add(json, *profile.before);
  else
    json.null();
  json.key("places");
  json.beginArray();
  for (const Place& place : profile.places) add(json, place);
  json.endArray();
  json.key("rows");
  json.beginArray();
  for (const Row& row : profile.rows) add(json, row, profile.isComparison());
  json.endArray();
  json.endObject();
  return json.text();
}

// ---- The page ----

std::string escaped(std::string_view text) {
  std::string html;
  for (const char character : text) {
    switch (character) {
    case '<':
      html += "&lt;";
      break;
    case '>':
      html += "&gt;";
      break;
    case '&':
      html += "&amp;";
      break;
    default:
      html += character;
    }
  }
  return html;
}

std::string licences() {
  return std::string("d3\n\n") + veskD3Licence + "\n\nd3-flame-graph\n\n" + veskFlameGraphLicence +
         "\n\nuPlot\n\n" + veskUplotLicence;
}

// Each {{name}} of the template once; what is put in is not looked into.
std::string filled(std::string_view text, const std::map<std::string_view, std::string>& values) {
  std::string page;
  for (std::size_t start; (start = text.find("{{")) != std::string_view::npos;) {
    const std::size_t end = text.find("}}", start);
    page += text.substr(0, start);
    page += values.at(text.substr(start + 2, end - start - 2));
    text.remove_prefix(end + 2);
  }
  page += text;
  return page;
}

} // namespace

std::string heapPage(const Profile& profile, const Selection& selection) {
  const std::string program = baseName(profile.run.program);
  return filled(veskPageHtml,
                {{"title", escaped((profile.isComparison() ? "Memory compared: " : "Memory: ") + program)},
                 {"licences", licences()},
                 {"uplot.css", veskUplotCss},
                 {"page.css", veskPageCss},
                 {"data", dataOf(profile, selection)},
                 {"d3.js", veskD3Js},
                 {"flamegraph.js", veskFlameGraphJs},
                 {"uplot.js", veskUplotJs},
                 {"page.js", veskPageJs}});
}

} // namespace report
