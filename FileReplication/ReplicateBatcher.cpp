#include "FileReplication/ReplicateBatcher.h"

#include <algorithm>
#include <array>
#include <optional>
#include <unordered_map>

namespace FileReplication {

namespace {

// One `Replicate --cmd rsyncFile` command line, split into what a batch
// needs of it.
struct Copy {
  std::optional<std::string_view> hosts;
  // Empty when not given; Replicate takes the two alike.
  std::string_view ssh;
  std::string_view options;
  std::string_view sourceRoot;
  std::string_view targetRoot;
  std::string_view name;
};

bool plainComponent(std::string_view c) { return !c.empty() && c != "." && c != ".."; }

// Roots that rsync takes as they stand: "/./" would mark where its relative
// names begin.
bool plainRoot(std::string_view root) {
  for (std::string_view dots : {"/./", "/../"}) {
    if (root.find(dots) != std::string_view::npos) return false;
  }
  return !root.ends_with("/.") && !root.ends_with("/..");
}

// Words that change which files rsync reads or where it puts them, and
// quoting that could hide them.
bool plainOptions(std::string_view options) {
  if (options.find_first_of("'\"\\") != std::string_view::npos) return false;
  constexpr std::array<std::string_view, 5> changesTheList = {"--files-from", "--from0", "--no-relative", "--no-R",
                                                              "--old-args"};
  std::size_t start = 0;
  while (start < options.size()) {
    std::size_t end = options.find_first_of(" \t\n", start);
    if (end == std::string_view::npos) end = options.size();
    std::string_view const word = options.substr(start, end - start);
    start = end + 1;
    for (auto bad : changesTheList) {
      if (word.starts_with(bad)) return false;
    }
    // -0 (--from0) among clustered short options.
    if (word.size() > 1 && word[0] == '-' && word[1] != '-' && word.find('0') != std::string_view::npos) return false;
  }
  return true;
}

// The longest run of whole, plain components that ends both paths; the
// roots keep at least their leading component, so neither is empty.
bool split(std::string_view source, std::string_view target, Copy& copy) {
  if (!source.starts_with('/') || source.ends_with('/') || target.ends_with('/')) return false;
  std::size_t s = source.size();
  std::size_t t = target.size();
  while (s > 0 && t > 0) {
    std::size_t const ps = source.rfind('/', s - 1);
    std::size_t const pt = target.rfind('/', t - 1);
    if (ps == std::string_view::npos || pt == std::string_view::npos) break;
    std::string_view const component = source.substr(ps + 1, s - ps - 1);
    if (!plainComponent(component) || component != target.substr(pt + 1, t - pt - 1)) break;
    s = ps;
    t = pt;
  }
  if (s == source.size()) return false;
  copy.sourceRoot = s == 0 ? "/" : source.substr(0, s);
  copy.targetRoot = t == 0 ? "/" : target.substr(0, t);
  copy.name = source.substr(s + 1);
  return plainRoot(copy.sourceRoot) && plainRoot(copy.targetRoot);
}

std::optional<Copy> copyOf(Kel::ChildArgs const& args) {
  if (args.size() != 9 && args.size() != 11 && args.size() != 13) return std::nullopt;
  std::array<std::string_view, 13> argv;
  std::copy(args.begin(), args.end(), argv.begin());
  if (argv[0] != "Replicate" || argv[1] != "--cmd" || argv[2] != "rsyncFile") return std::nullopt;
  Copy copy;
  std::optional<std::string_view> source, target, options;
  for (std::size_t i = 3; i + 1 < args.size(); i += 2) {
    std::string_view const option = argv[i];
    std::string_view const value = argv[i + 1];
    if (option == "--remoteHosts") {
      copy.hosts = value;
    } else if (option == "--sshOptions") {
      copy.ssh = value;
    } else if (option == "--source") {
      source = value;
    } else if (option == "--target") {
      target = value;
    } else if (option == "--rsyncOptions") {
      options = value;
    } else {
      return std::nullopt;
    }
  }
  if (!source || !target || !options || !plainOptions(*options) || !split(*source, *target, copy)) return std::nullopt;
  copy.options = *options;
  return copy;
}

}  // namespace

ReplicateBatcher& ReplicateBatcher::instance() {
  static ReplicateBatcher batcher;
  return batcher;
}

std::string ReplicateBatcher::batchKey(Kel::ChildArgs const& argv) const {
  auto const copy = copyOf(argv);
  if (!copy) return {};
  std::string key = copy->hosts ? "h" + std::string(*copy->hosts) : "-";
  for (auto part : {copy->ssh, copy->options, copy->sourceRoot, copy->targetRoot}) {
    key += '\0';
    key += part;
  }
  return key;
}

Kel::ChildBatcher::Carrier ReplicateBatcher::carrierOf(std::vector<Kel::Ptr<Kel::ChildSiginfo>> const& members) const {
  Carrier carrier;
  for (auto const& member : members) {
    auto const copy = copyOf(member->argv());
    // Equal keys split alike; only the names differ.
    carrier.input += copy->name;
    carrier.input += '\0';
    if (!carrier.argv.empty()) continue;
    carrier.argv = {"Replicate", "--cmd", "rsyncFiles"};
    if (copy->hosts) carrier.argv.insert(carrier.argv.end(), {"--remoteHosts", std::string(*copy->hosts)});
    if (!copy->ssh.empty()) carrier.argv.insert(carrier.argv.end(), {"--sshOptions", std::string(copy->ssh)});
    carrier.argv.insert(carrier.argv.end(),
                        {"--source", std::string(copy->sourceRoot), "--target", std::string(copy->targetRoot),
                         "--rsyncOptions", std::string(copy->options)});
  }
  return carrier;
}

std::vector<Kel::ChildBatcher::End> ReplicateBatcher::endsOf(std::size_t members, End carrier,
                                                             std::string_view output) const {
  // Only "some files failed" tells files apart; any other end, a kill or a
  // usage error among them, is every file's.
  std::vector<End> ends(members, carrier);
  if (carrier.code != Kel::ChildSiginfo::exited || carrier.exitStatus != 1) return ends;
  std::size_t start = 0;
  for (auto& end : ends) {
    std::size_t const newline = output.find('\n', start);
    bool const copied = newline != std::string_view::npos && output.substr(start, newline - start) == "0";
    // A line missing for a file leaves it failed: it is never taken as copied.
    end = copied ? End{Kel::ChildSiginfo::exited, 0} : End{Kel::ChildSiginfo::exited, 1};
    start = newline == std::string_view::npos ? output.size() : newline + 1;
  }
  return ends;
}

std::vector<std::string> ReplicateBatcher::errorOutputsOf(std::vector<Kel::Ptr<Kel::ChildSiginfo>> const& members,
                                                          std::vector<End> const& ends, std::string_view errors) const {
  std::unordered_map<std::string_view, std::size_t> byName;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (auto const copy = copyOf(members[i]->argv())) byName.emplace(copy->name, i);
  }
  std::vector<std::string> outputs(members.size());
  std::vector<std::size_t> named;
  // A word, or the whole of a quoted text, and each tail of it after a '/'.
  auto lookUp = [&](std::string_view word) {
    while (!word.empty()) {
      if (auto const found = byName.find(word); found != byName.end()) named.push_back(found->second);
      std::size_t const slash = word.find('/');
      word.remove_prefix(slash == std::string_view::npos ? word.size() : slash + 1);
    }
  };
  while (!errors.empty()) {
    std::size_t const end = std::min(errors.find('\n'), errors.size());
    std::string_view const line = errors.substr(0, end + (end < errors.size()));
    errors.remove_prefix(line.size());
    named.clear();
    for (std::size_t open = line.find('"'), close; open != std::string_view::npos; open = line.find('"', close + 1)) {
      close = line.find('"', open + 1);
      if (close == std::string_view::npos) break;
      lookUp(line.substr(open + 1, close - open - 1));
    }
    for (std::size_t start = 0; start < line.size();) {
      std::size_t stop = std::min(line.find_first_of(" \t\n\"", start), line.size());
      std::string_view word = line.substr(start, stop - start);
      start = stop + 1;
      while (!word.empty() && (word.back() == ':' || word.back() == ',' || word.back() == ';')) word.remove_suffix(1);
      lookUp(word);
    }
    if (!named.empty()) {
      // Once each, however often the line names it.
      std::sort(named.begin(), named.end());
      named.erase(std::unique(named.begin(), named.end()), named.end());
      for (std::size_t i : named) outputs[i] += line;
      continue;
    }
    for (std::size_t i = 0; i < members.size() && i < ends.size(); ++i) {
      if (ends[i].code != Kel::ChildSiginfo::exited || ends[i].exitStatus != 0) outputs[i] += line;
    }
  }
  return outputs;
}

}  // namespace FileReplication
