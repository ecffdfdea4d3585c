// Reads a result with pugixml, and believes nothing in it: what the elements refer to must be there.
#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <unordered_map>

#include <pugixml.hpp>

#include "report/failure.h"
#include "report/file.h"
#include "report/result.h"
#include "report/text.h"

namespace report {

namespace {

constexpr char kHeapRoot[] = "heapProfile";
constexpr char kAnnotationsRoot[] = "annotations";
constexpr char kVersion[] = "1";

// One file's elements.
class Reader {
public:
  explicit Reader(const std::string& path) : name_(printable(path)) {}

  [[noreturn]] void refuse(ExitStatus status, const std::string& text) const {
    throw Failure(status, name_ + ": " + text);
  }

  [[noreturn]] void damaged(const pugi::xml_node& at, const std::string& text) const {
    refuse(kDamaged, "it is damaged: <" + printable(at.name()) + "> at byte " +
                         std::to_string(at.offset_debug()) + ": " + text);
  }

  pugi::xml_node child(const pugi::xml_node& parent, const char* name) const {
    const pugi::xml_node found = parent.child(name);
    if (!found) damaged(parent, std::string("it has no ") + name);
    return found;
  }

  std::uint64_t attribute(const pugi::xml_node& node, const char* name) const {
    return number(node, name, node.attribute(name).value());
  }

  std::uint64_t element(const pugi::xml_node& parent, const char* name) const {
    return number(parent, name, child(parent, name).text().get());
  }

  std::string text(const pugi::xml_node& parent, const char* name) const {
    return printable(child(parent, name).text().get());
  }

  std::uint64_t number(const pugi::xml_node& node, const char* name, std::string_view digits) const {
    const bool hexadecimal = digits.starts_with("0x");
    if (hexadecimal) digits.remove_prefix(2);
    std::uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size()) {
      damaged(node, std::string(name) + " is missing or not a number");
    }
    return value;
  }

private:
  std::string name_;
};

// Ids to indices.
class Ids {
public:
  explicit Ids(const Reader& reader) : reader_(reader) {}

  void add(const pugi::xml_node& node) {
    const auto index = static_cast<std::uint32_t>(indices_.size());
    if (!indices_.emplace(reader_.attribute(node, "id"), index).second)
      reader_.damaged(node, "its id is not its own");
  }

  std::uint32_t find(const pugi::xml_node& node, const char* name, std::string_view id) const {
    const auto found = indices_.find(reader_.number(node, name, id));
    if (found == indices_.end())
      reader_.damaged(node, std::string("it refers to a ") + name + " that is not there");
    return found->second;
  }

private:
  const Reader& reader_;
  std::unordered_map<std::uint64_t, std::uint32_t> indices_;
};

// ---- The heap result ----

Totals readTotals(const Reader& reader, const pugi::xml_node& node) {
  Totals totals;
  totals.calls = reader.element(node, "calls");
  totals.allocatedBytes = reader.element(node, "allocatedBytes");
  totals.liveBlocks = reader.element(node, "liveBlocks");
  totals.liveBytes = reader.element(node, "liveBytes");
  totals.peakBytes = reader.element(node, "peakBytes");
  totals.temporary = reader.element(node, "temporary");
  totals.releases = reader.element(node, "releases");
  totals.releasedBytes = reader.element(node, "releasedBytes");
  totals.peakMilliseconds = reader.element(node, "peakMilliseconds");
  for (const auto& function : node.children("function")) {
    totals.functions.emplace_back(printable(function.attribute("name").value()),
                                  reader.attribute(function, "calls"));
  }
  return totals;
}

Stack readStack(const Reader& reader, const pugi::xml_node& node, const Ids& frameIds) {
  Stack stack;
  stack.numbers.calls = reader.attribute(node, "calls");
  stack.numbers.allocatedBytes = reader.attribute(node, "allocatedBytes");
  stack.numbers.liveBlocks = reader.attribute(node, "liveBlocks");
  stack.numbers.liveBytes = reader.attribute(node, "liveBytes");
  stack.numbers.peakBytes = reader.attribute(node, "peakBytes");
  stack.numbers.temporary = reader.attribute(node, "temporary");
  stack.cut = node.attribute("cut").as_bool();
  constexpr char kBlanks[] = " \t\r\n";
  std::string_view ids = node.text().get();
  for (std::size_t start; (start = ids.find_first_not_of(kBlanks)) != std::string_view::npos;) {
    ids.remove_prefix(start);
    const std::size_t length = std::min(ids.find_first_of(kBlanks), ids.size());
    stack.frames.push_back(frameIds.find(node, "frame", ids.substr(0, length)));
    ids.remove_prefix(length);
  }
  return stack;
}

HeapResult readHeap(const Reader& reader, const pugi::xml_node& root, Progress& progress) {
  HeapResult result;
  const auto process = reader.child(root, "process");
  result.program = reader.text(process, "program");
  result.pid = reader.element(process, "pid");
  result.end = reader.text(process, "end");
  result.status = reader.text(process, "status");
  result.milliseconds = reader.element(process, "milliseconds");
  result.totals = readTotals(reader, reader.child(root, "totals"));

  Ids moduleIds(reader);
  for (const auto& module : reader.child(root, "modules").children("module")) {
    moduleIds.add(module);
    result.modules.push_back(
        {reader.child(module, "path").text().get(), module.attribute("buildId").value()});
  }
  Ids frameIds(reader);
  for (const auto& frame : reader.child(root, "frames").children("frame")) {
    frameIds.add(frame);
    const auto module = frame.attribute("module");
    result.frames.push_back({module ? moduleIds.find(frame, "module", module.value()) : Frame::kNoModule,
                             reader.attribute(frame, "offset")});
  }
  for (const auto& stack : reader.child(root, "stacks").children("stack")) {
    result.stacks.push_back(readStack(reader, stack, frameIds));
    progress.show("reading call stacks", 0, 0);
  }
  if (const auto timeline = root.child("timeline"))
    result.sampleMilliseconds = reader.attribute(timeline, "interval");
  for (const auto& sample : root.child("timeline").children("sample")) {
    result.samples.push_back({reader.attribute(sample, "milliseconds"), reader.attribute(sample, "liveBytes"),
                              reader.attribute(sample, "liveBlocks"), reader.attribute(sample, "calls")});
  }
  const auto byTime = [](const Sample& left, const Sample& right) {
    return left.milliseconds < right.milliseconds;
  };
  if (!std::is_sorted(result.samples.begin(), result.samples.end(), byTime)) {
    reader.damaged(root.child("timeline"), "its samples are not in the order of time");
  }
  return result;
}

// ---- The annotations result ----

AnnotationsResult readAnnotations(const Reader& reader, const pugi::xml_node& root) {
  AnnotationsResult result;
  result.program = reader.text(root, "program");
  for (const auto& node : root.children("module")) {
    AnnotatedModule& module = result.modules.emplace_back();
    module.path = reader.text(node, "path");
    for (const auto& annotation : node.children("annotation")) {
      module.annotations.push_back({reader.text(annotation, "name"), reader.text(annotation, "location"),
                                    printable(annotation.child("symbol").text().get()),
                                    printable(annotation.attribute("offset").value()),
                                    printable(annotation.attribute("address").value()),
                                    printable(annotation.attribute("probe").value())});
    }
  }
  return result;
}

// ---- Which file it is ----

bool endsInItsRoot(std::string_view text, const std::string& root) {
  const std::size_t end = text.find_last_not_of(" \t\r\n");
  return end != std::string_view::npos && text.substr(0, end + 1).ends_with("</" + root + ">");
}

pugi::xml_node parse(const Reader& reader, pugi::xml_document& document, const std::string& text) {
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) reader.refuse(kDamaged, "it is empty");
  const auto parsed = document.load_buffer(text.data(), text.size());
  const pugi::xml_node root = document.document_element();
  if (parsed) return root;
  const std::string at = " at byte " + std::to_string(parsed.offset) + " (" + parsed.description() + ")";
  if (root && !endsInItsRoot(text, root.name())) reader.refuse(kDamaged, "it is truncated: it ends" + at);
  reader.refuse(kDamaged, "it is not well-formed XML" + at);
}

} // namespace

Numbers& Numbers::operator+=(const Numbers& other) {
  calls += other.calls;
  allocatedBytes += other.allocatedBytes;
  liveBlocks += other.liveBlocks;
  liveBytes += other.liveBytes;
  peakBytes += other.peakBytes;
  temporary += other.temporary;
  return *this;
}

Result readResult(const std::string& path, Progress& progress) {
  const Reader reader(path);
  const std::string text = readFile(path, progress);
  progress.show("reading the XML of " + printable(baseName(path)), 0, 0);
  pugi::xml_document document;
  const pugi::xml_node root = parse(reader, document, text);
  const std::string_view name = root.name();
  if (name == "log") reader.refuse(kForeign, "it is a log, which --log reads");
  if (name != kHeapRoot && name != kAnnotationsRoot) {
    reader.refuse(kForeign, "it is not a collector's result: its root is <" + printable(name) + ">");
  }
  const std::string_view version = root.attribute("version").value();
  if (version != kVersion) {
    reader.refuse(kOtherVersion, "it is a result of version '" + printable(version) +
                                     "', and not of version '" + kVersion + "', which this veskreport reads");
  }
  if (name == kHeapRoot) return readHeap(reader, root, progress);
  return readAnnotations(reader, root);
}

HeapResult readHeapResult(const std::string& path, Progress& progress) {
  Result result = readResult(path, progress);
  if (auto* heap = std::get_if<HeapResult>(&result)) return std::move(*heap);
  throw Failure(kForeign, printable(path) + ": it is not a heap result");
}

} // namespace report
