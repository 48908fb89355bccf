#include "agent/ConfigFile.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "FileReplication/FileReplicationUtils.h"
#include "agent/MetricsListener.h"
#include "agent/PathPattern.h"
#include "agent/TreeCheck.h"
#include "agent/TreeEntry.h"
#include "runtime/Exception.h"
#include "tools/Replicate/HostAddress.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/ShellWords.h"

namespace Agent {

namespace {

using FileReplication::RequesterConfig;
using Keys = std::span<std::string_view const>;

// A configuration is a few kilobytes; anything this large is a mistake
// (or /dev/zero) and is not read whole into memory.
constexpr std::size_t maxFileSize = 16 << 20;

constexpr std::string_view topLevelKeys[] = {"maxConcurrentReplications", "ssh", "metrics", "requesters"};
constexpr std::string_view requesterKeys[] = {"mode",
                                              "enabled",
                                              "remoteHosts",
                                              "ssh",
                                              "period",
                                              "replicationTimeout",
                                              "retryInterval",
                                              "syncErrorThreshold",
                                              "remoteHostReplicationDelay",
                                              "maxFilesPerRun",
                                              "deleteDelay",
                                              "files"};
constexpr std::string_view fileKeys[] = {"path", "dstPath", "rsyncOptions", "exclude"};
constexpr std::string_view sshKeys[] = {"port", "user", "identityFile", "options"};
constexpr std::string_view metricsKeys[] = {"textfile", "listen"};

// What an ssh mapping gives; a requester's replaces the top-level one key by
// key, so that one requester can change the port and keep the shared key.
struct SshSettings {
  std::optional<int> port;
  std::optional<std::string> user;
  std::optional<std::string> identityFile;
  std::optional<std::vector<std::string>> options;
};

struct TimeSetting {
  std::string_view key;
  double RequesterSettings::*field;
  // The least value, and whether it is allowed itself.
  double least;
  bool leastAllowed;
};

// A period under a second is a busy loop of copies; a replication timeout of
// 0 would kill every run at once.
constexpr TimeSetting timeSettings[] = {
    {"period", &RequesterSettings::period, 1, true},
    {"replicationTimeout", &RequesterSettings::replicationTimeout, 0, false},
    {"retryInterval", &RequesterSettings::retryInterval, 0, true},
    {"remoteHostReplicationDelay", &RequesterSettings::remoteHostReplicationDelay, 0, true},
    {"deleteDelay", &RequesterSettings::deleteDelay, 0, true},
};

// Names in messages are quoted as Replicate quotes them.
std::string quoted(std::string_view s) { return Replicate::printable(s); }

std::string joined(Keys keys) {
  std::string text;
  for (auto key : keys) {
    if (!text.empty()) text += ", ";
    text += key;
  }
  return text;
}

// What a node is, for "KEY is WHAT; expected ...".
std::string describe(YAML::Node const& n) {
  switch (n.Type()) {
    case YAML::NodeType::Scalar: return quoted(n.Scalar());
    case YAML::NodeType::Sequence: return "a list";
    case YAML::NodeType::Map: return "a mapping";
    default: return "empty";
  }
}

// yaml-cpp places an empty value at the next token, often on a later line;
// the key is where the reader should look.
YAML::Mark markOf(YAML::Node const& value, YAML::Node const& key) { return value.IsNull() ? key.Mark() : value.Mark(); }

// Plain numbers only: YAML's ".inf" and hexadecimal are refused, and an
// integer must not carry a fraction.
template <class T>
std::optional<T> readNumber(YAML::Node const& n) {
  if (!n.IsScalar()) return std::nullopt;
  std::string const& s = n.Scalar();
  T v{};
  auto const [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return v;
}

// A NUL would silently cut the text short where the library hands it on.
std::optional<std::string> readText(YAML::Node const& n) {
  if (!n.IsScalar() || n.Scalar().find('\0') != std::string::npos) return std::nullopt;
  return n.Scalar();
}

bool isRequesterName(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name) {
    bool const ok =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

// Replicate refuses the host with its own reason; this adds what was likely
// meant, for the mistakes that look right to whoever wrote them.
std::string hostHint(std::string_view text) {
  std::string const expected =
      "expected host, user@host, an IPv4 address, or an IPv6 address bare or in brackets (::1, [::1], user@[::1])";
  if (text.find("://") != std::string_view::npos) return "a host is written alone, not as a URL; " + expected;
  if (text.find(',') != std::string_view::npos) return "list each host as its own item: [host1, host2]";
  std::size_t const at = text.find('@');
  std::string_view const machine = at == std::string_view::npos ? text : text.substr(at + 1);
  if (at != std::string_view::npos && text.substr(0, at).find(':') != std::string_view::npos) {
    return "a password cannot be given; log in with a key, ssh: {identityFile: /path/to/key}";
  }
  std::size_t const colon = machine.rfind(':');
  bool const bracketed = machine.starts_with('[');
  // One colon cannot be IPv6, nor can a colon after the closing bracket.
  if (colon != std::string_view::npos &&
      (bracketed ? colon > 0 && machine[colon - 1] == ']' : machine.find(':') == colon)) {
    std::string_view const after = machine.substr(colon + 1);
    if (!after.empty() && after.find_first_not_of("0123456789") == std::string_view::npos) {
      return "a port belongs in ssh: {port: " + std::string(after) + "}";
    }
    return "a destination path belongs in the file's dstPath, not in the host";
  }
  if (machine.find('/') != std::string_view::npos) {
    return "a destination path belongs in the file's dstPath, not in the host";
  }
  if (bracketed && machine.find(':') == std::string_view::npos) {
    return "brackets are only for IPv6 addresses; write a host name without them";
  }
  return expected;
}

// Replicate reads the ssh options as words the way a shell would, without
// expanding anything, so a word needs quotes only where it holds something
// that splits or quotes.
std::string shellWord(std::string_view word) {
  constexpr std::string_view plainPunctuation = "-_./=:,@%+";
  bool plain = !word.empty();
  for (char c : word) {
    bool const alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alnum && plainPunctuation.find(c) == std::string_view::npos) plain = false;
  }
  if (plain) return std::string(word);
  std::string q = "'";
  for (char c : word) {
    if (c == '\'') {
      q += "'\\''";
    } else {
      q += c;
    }
  }
  return q + "'";
}

std::string sshArguments(SshSettings const& ssh) {
  std::vector<std::string> words;
  if (ssh.port) words.insert(words.end(), {"-p", std::to_string(*ssh.port)});
  if (ssh.user) words.insert(words.end(), {"-l", *ssh.user});
  if (ssh.identityFile) words.insert(words.end(), {"-i", *ssh.identityFile});
  if (ssh.options) {
    for (auto const& option : *ssh.options) words.insert(words.end(), {"-o", option});
  }
  std::string arguments;
  for (auto const& word : words) {
    if (!arguments.empty()) arguments += ' ';
    arguments += shellWord(word);
  }
  return arguments;
}

SshSettings merged(SshSettings const& base, SshSettings const& over) {
  SshSettings m = base;
  if (over.port) m.port = over.port;
  if (over.user) m.user = over.user;
  if (over.identityFile) m.identityFile = over.identityFile;
  if (over.options) m.options = over.options;
  return m;
}

// A user name that ssh takes as one and that cannot pass for an option.
bool isUserName(std::string_view name) {
  if (name.empty() || name.front() == '-') return false;
  for (char c : name) {
    bool const ok =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

// Key=Value as ssh -o takes it: a line of its configuration file.
bool isSshOption(std::string_view option) {
  std::size_t const equals = option.find('=');
  if (equals == 0 || equals == std::string_view::npos || equals + 1 == option.size()) return false;
  for (char c : option.substr(0, equals)) {
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
  }
  return option.find_first_of("\r\n") == std::string_view::npos;
}

// One name per file: "/a//b" or "/a/./b" would be a second entry, and a
// second machine, for the same file.
bool isPlainFilePath(std::string_view path) {
  if (path.size() < 2 || path.front() != '/') return false;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    std::string_view const part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}

class Parser {
 public:
  explicit Parser(std::string const& fileName) : fileName_(fileName) {}
  ParsedConfig parse(std::string const& text);

 private:
  // Where a file was named, for checks that need the whole requester.
  struct FileSite {
    std::string path;
    YAML::Mark mark;
  };

  std::string position(YAML::Mark const& at) const;
  void error(YAML::Mark const& at, std::string const& message);
  void warning(YAML::Mark const& at, std::string const& message);
  void unknownKey(YAML::Node const& key, std::string const& where, Keys allowed);
  template <class Handle>
  void forEachEntry(YAML::Node const& map, Handle handle);

  void parseTop(YAML::Node const& top);
  void parseRequesters(YAML::Node const& requesters, YAML::Mark const& at);
  void parseRequester(std::string const& name, YAML::Node const& key, YAML::Node const& settings);
  void parseSeconds(YAML::Node const& value, YAML::Mark const& at, TimeSetting const& setting, RequesterSettings& r);
  void parseRemoteHosts(YAML::Node const& hosts, YAML::Mark const& at, RequesterSettings& r);
  SshSettings parseSsh(YAML::Node const& ssh, YAML::Mark const& at);
  void parseMetrics(YAML::Node const& metrics, YAML::Mark const& at);
  void parseSshOptions(YAML::Node const& options, YAML::Mark const& at, SshSettings& ssh);
  void checkIdentityFile(std::string const& path, YAML::Mark const& at);
  void parseFiles(YAML::Node const& files, YAML::Mark const& at, RequesterSettings& r, std::vector<FileSite>& sites);
  std::optional<std::string> parsePath(YAML::Node const& value, YAML::Mark const& at, std::string const& key,
                                       bool plain);
  void checkWatchable(FileSite const& site);
  void parseExclude(YAML::Node const& value, YAML::Mark const& at, FileSettings& f);
  void checkTreesOf(RequesterSettings const& r, std::vector<FileSite> const& sites);
  bool checkCopiedOntoItself(FileSettings const& f, YAML::Mark const& at);
  void checkSource(FileSettings const& f, YAML::Mark const& at);
  void checkRsyncOptions(std::string const& text, YAML::Mark const& at);

  std::string const& fileName_;
  ParsedConfig result_;
  // The top level may give ssh after the requesters, so each requester's own
  // settings wait here, in the order of result_.config.requesters, until the
  // whole file is read.
  SshSettings topSsh_;
  std::vector<SshSettings> requesterSsh_;
};

ParsedConfig Parser::parse(std::string const& text) {
  try {
    std::vector<YAML::Node> const documents = YAML::LoadAll(text);
    if (documents.empty() || (documents.size() == 1 && documents[0].IsNull())) {
      error(YAML::Mark(), "the file is empty; expected a mapping with the keys " + joined(topLevelKeys));
    } else {
      parseTop(documents[0]);
      for (std::size_t i = 0; i < requesterSsh_.size(); ++i) {
        result_.config.requesters[i].sshOptions = sshArguments(merged(topSsh_, requesterSsh_[i]));
      }
      if (documents.size() > 1) error(documents[1].Mark(), "the file holds a second document; expected one document");
    }
  } catch (YAML::Exception const& e) {
    error(e.mark, "YAML syntax error: " + e.msg);
  } catch (std::exception const& e) {
    result_.errors.push_back(fileName_ + ": " + e.what());
  }
  if (!result_.ok()) result_.config = AgentConfig();
  return std::move(result_);
}

std::string Parser::position(YAML::Mark const& at) const {
  int const line = at.is_null() ? 1 : at.line + 1;
  int const column = at.is_null() ? 1 : at.column + 1;
  return fileName_ + ":" + std::to_string(line) + ":" + std::to_string(column) + ": ";
}

void Parser::error(YAML::Mark const& at, std::string const& message) {
  result_.errors.push_back(position(at) + message);
}

void Parser::warning(YAML::Mark const& at, std::string const& message) {
  result_.warnings.push_back(position(at) + message);
}

void Parser::unknownKey(YAML::Node const& key, std::string const& where, Keys allowed) {
  error(key.Mark(), "unknown key " + quoted(key.Scalar()) + where + "; expected one of " + joined(allowed));
}

// Hands handle(key, keyNode, value) every entry whose key is text, given
// once. yaml-cpp keeps both entries of a repeated key, so repeats are found
// here.
template <class Handle>
void Parser::forEachEntry(YAML::Node const& map, Handle handle) {
  std::unordered_map<std::string, int> firstLine;
  for (auto const& entry : map) {
    YAML::Node const& key = entry.first;
    if (!key.IsScalar()) {
      error(markOf(key, map), "a key is " + describe(key) + "; expected a name");
      continue;
    }
    auto const [first, isNew] = firstLine.emplace(key.Scalar(), key.Mark().line + 1);
    if (!isNew) {
      error(key.Mark(), "key " + quoted(key.Scalar()) + " is given twice (first at line " +
                            std::to_string(first->second) + "); expected each key once");
      continue;
    }
    handle(key.Scalar(), key, entry.second);
  }
}

void Parser::parseTop(YAML::Node const& top) {
  if (!top.IsMap()) {
    error(top.Mark(),
          "the top level is " + describe(top) + "; expected a mapping with the keys " + joined(topLevelKeys));
    return;
  }
  forEachEntry(top, [&](std::string const& key, YAML::Node const& keyNode, YAML::Node const& value) {
    YAML::Mark const at = markOf(value, keyNode);
    if (key == "maxConcurrentReplications") {
      if (auto n = readNumber<unsigned>(value)) {
        result_.config.maxConcurrentReplications = *n;
      } else {
        error(at, key + " is " + describe(value) + "; expected a whole number >= 0 (0 for no limit)");
      }
    } else if (key == "ssh") {
      topSsh_ = parseSsh(value, at);
    } else if (key == "metrics") {
      parseMetrics(value, at);
    } else if (key == "requesters") {
      parseRequesters(value, at);
    } else {
      unknownKey(keyNode, "", topLevelKeys);
    }
  });
}

void Parser::parseRequesters(YAML::Node const& requesters, YAML::Mark const& at) {
  // "requesters:" with everything under it commented out: none.
  if (requesters.IsNull()) return;
  if (!requesters.IsMap()) {
    error(at, "requesters is " + describe(requesters) + "; expected a mapping of requester names to their settings");
    return;
  }
  forEachEntry(requesters, [&](std::string const& name, YAML::Node const& key, YAML::Node const& settings) {
    parseRequester(name, key, settings);
  });
}

void Parser::parseRequester(std::string const& name, YAML::Node const& key, YAML::Node const& settings) {
  // The status output and the control socket name requesters as plain words.
  if (!isRequesterName(name)) {
    error(key.Mark(),
          "requester name " + quoted(name) + " is not allowed; expected one or more letters, digits, '.', '_' or '-'");
  }
  std::string const where = " in requester " + quoted(name);
  if (!settings.IsMap()) {
    error(markOf(settings, key),
          "requester " + quoted(name) + " is " + describe(settings) + "; expected a mapping with at least mode");
    return;
  }
  RequesterSettings r;
  r.name = name;
  SshSettings ssh;
  bool hasMode = false;
  bool modeValid = false;
  std::vector<FileSite> sites;
  forEachEntry(settings, [&](std::string const& k, YAML::Node const& keyNode, YAML::Node const& value) {
    YAML::Mark const at = markOf(value, keyNode);
    if (k == "mode") {
      hasMode = true;
      modeValid = true;
      if (value.IsScalar() && value.Scalar() == "periodic") {
        r.mode = RequesterConfig::periodic;
      } else if (value.IsScalar() && value.Scalar() == "inotify") {
        r.mode = RequesterConfig::inotify;
      } else {
        modeValid = false;
        error(at, "mode is " + describe(value) + "; expected periodic or inotify");
      }
    } else if (k == "enabled") {
      if (!YAML::convert<bool>::decode(value, r.enabled)) {
        error(at, "enabled is " + describe(value) + "; expected true or false");
      }
    } else if (k == "remoteHosts") {
      parseRemoteHosts(value, at, r);
    } else if (k == "ssh") {
      ssh = parseSsh(value, at);
    } else if (k == "files") {
      parseFiles(value, at, r, sites);
    } else if (k == "syncErrorThreshold") {
      auto const n = readNumber<int>(value);
      if (n && *n >= 0) {
        r.syncErrorThreshold = *n;
      } else {
        error(at, k + " is " + describe(value) + "; expected a whole number >= 0");
      }
    } else if (k == "maxFilesPerRun") {
      auto const n = readNumber<std::uint32_t>(value);
      if (n && *n >= 1) {
        r.maxFilesPerRun = *n;
      } else {
        error(at, k + " is " + describe(value) + "; expected a whole number >= 1");
      }
    } else {
      for (auto const& setting : timeSettings) {
        if (k == setting.key) return parseSeconds(value, at, setting, r);
      }
      unknownKey(keyNode, where, requesterKeys);
    }
  });
  if (!hasMode) {
    error(key.Mark(), "requester " + quoted(name) + " has no mode; expected mode: periodic or inotify");
  }
  // sites and r.files are filled together. A disabled requester is checked
  // too: it can be enabled without a reload.
  for (std::size_t i = 0; i < sites.size(); ++i) {
    if (TreeEntry::kindOf(r.files[i].path) != TreeEntry::Kind::file) continue;
    // A file copied onto itself never runs, so its absence deletes nothing.
    bool const neverCopied = r.remoteHosts.empty() && checkCopiedOntoItself(r.files[i], sites[i].mark);
    if (!neverCopied) checkSource(r.files[i], sites[i].mark);
    if (hasMode && modeValid && r.mode == RequesterConfig::inotify) checkWatchable(sites[i]);
  }
  checkTreesOf(r, sites);
  result_.config.requesters.push_back(std::move(r));
  requesterSsh_.push_back(std::move(ssh));
}

void Parser::parseSeconds(YAML::Node const& value, YAML::Mark const& at, TimeSetting const& setting,
                          RequesterSettings& r) {
  std::string const wrong = std::string(setting.key) + " is " + describe(value) + "; expected a ";
  auto const seconds = readNumber<double>(value);
  if (!seconds) {
    error(at, wrong + "number of seconds");
  } else if (!std::isfinite(*seconds)) {
    error(at, wrong + "finite number of seconds");
  } else if (setting.leastAllowed ? *seconds < setting.least : *seconds <= setting.least) {
    std::ostringstream least;
    least << "number of seconds " << (setting.leastAllowed ? ">= " : "> ") << setting.least;
    error(at, wrong + least.str());
  } else {
    r.*setting.field = *seconds;
  }
}

void Parser::parseRemoteHosts(YAML::Node const& hosts, YAML::Mark const& at, RequesterSettings& r) {
  if (hosts.IsNull()) return;
  if (!hosts.IsSequence()) {
    error(at, "remoteHosts is " + describe(hosts) + "; expected a list of host names, like [host1, host2]");
    return;
  }
  std::unordered_map<std::string, int> firstLine;
  for (auto const& host : hosts) {
    YAML::Mark const hostAt = host.IsNull() ? at : host.Mark();
    if (!host.IsScalar()) {
      error(hostAt, "a remote host is " + describe(host) + "; expected a host name or address");
      continue;
    }
    std::string const& text = host.Scalar();
    // Replicate's own grammar: what passes here is what every run accepts.
    try {
      Replicate::HostAddress::parse(text);
    } catch (std::invalid_argument const& e) {
      error(hostAt, e.what() + ("; " + hostHint(text)));
      continue;
    }
    auto const [first, isNew] = firstLine.emplace(text, hostAt.line + 1);
    if (!isNew) {
      error(hostAt, "remote host " + quoted(text) + " is listed twice (first at line " + std::to_string(first->second) +
                        "); expected each host once");
      continue;
    }
    r.remoteHosts.push_back(text);
  }
}

SshSettings Parser::parseSsh(YAML::Node const& ssh, YAML::Mark const& at) {
  SshSettings settings;
  if (ssh.IsNull()) return settings;
  if (!ssh.IsMap()) {
    error(at, "ssh is " + describe(ssh) + "; expected a mapping with the keys " + joined(sshKeys));
    return settings;
  }
  forEachEntry(ssh, [&](std::string const& k, YAML::Node const& keyNode, YAML::Node const& value) {
    YAML::Mark const valueAt = markOf(value, keyNode);
    if (k == "port") {
      auto const port = readNumber<int>(value);
      if (port && *port >= 1 && *port <= 65535) {
        settings.port = *port;
      } else {
        error(valueAt, k + " is " + describe(value) + "; expected a whole number from 1 to 65535");
      }
    } else if (k == "user") {
      auto user = readText(value);
      if (user && isUserName(*user)) {
        settings.user = std::move(*user);
      } else {
        error(valueAt, k + " is " + describe(value) +
                           "; expected a plain user name of letters, digits, '.', '_' or '-', not starting with '-'");
      }
    } else if (k == "identityFile") {
      if (auto path = parsePath(value, valueAt, k, false)) {
        checkIdentityFile(*path, valueAt);
        settings.identityFile = std::move(*path);
      }
    } else if (k == "options") {
      parseSshOptions(value, valueAt, settings);
    } else {
      unknownKey(keyNode, " in ssh", sshKeys);
    }
  });
  return settings;
}

void Parser::parseMetrics(YAML::Node const& metrics, YAML::Mark const& at) {
  if (metrics.IsNull()) return;
  if (!metrics.IsMap()) {
    error(at, "metrics is " + describe(metrics) + "; expected a mapping with the keys " + joined(metricsKeys));
    return;
  }
  forEachEntry(metrics, [&](std::string const& k, YAML::Node const& keyNode, YAML::Node const& value) {
    YAML::Mark const valueAt = markOf(value, keyNode);
    if (k == "listen") {
      auto const text = readText(value);
      std::string problem = text ? "" : "it is " + describe(value);
      if (text && parseListenAddress(*text, problem)) {
        result_.config.metricsListen = *text;
      } else {
        error(valueAt, "listen " + (text ? quoted(*text) : std::string("value")) + ": " + problem +
                           "; expected an address and port, like 127.0.0.1:9464 or [::1]:9464");
      }
      return;
    }
    if (k != "textfile") {
      unknownKey(keyNode, " in metrics", metricsKeys);
      return;
    }
    auto path = parsePath(value, valueAt, k, true);
    if (!path) return;
    std::string const dir = FileReplication::Utils::dirname(*path).str();
    struct stat st;
    if (stat(path->c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      error(valueAt, k + " " + quoted(*path) + " is a directory; expected a file in the collector's directory");
      return;
    }
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      warning(valueAt, "the directory " + quoted(dir) +
                           " of textfile does not exist; the metrics are not written "
                           "until it does");
    }
    if (!path->ends_with(".prom")) {
      warning(valueAt, "textfile " + quoted(*path) +
                           " does not end in .prom; the textfile collector reads only "
                           "files that do");
    }
    result_.config.metricsTextfile = std::move(*path);
  });
}

void Parser::parseSshOptions(YAML::Node const& options, YAML::Mark const& at, SshSettings& ssh) {
  // "options:" with nothing under it: none, which also drops the top level's.
  ssh.options.emplace();
  if (options.IsNull()) return;
  if (!options.IsSequence()) {
    error(at, "options is " + describe(options) +
                  "; expected a list of ssh options, each Key=Value, like [\"StrictHostKeyChecking=accept-new\"]");
    return;
  }
  for (auto const& option : options) {
    auto text = readText(option);
    if (!text || !isSshOption(*text)) {
      error(option.IsNull() ? at : option.Mark(),
            "an ssh option is " + describe(option) +
                "; expected Key=Value on one line, like \"StrictHostKeyChecking=accept-new\"");
      continue;
    }
    ssh.options->push_back(std::move(*text));
  }
}

// ssh goes on without a key it cannot read, and the login then fails on
// every run; the key may well be made after the configuration, so this is
// not an error.
void Parser::checkIdentityFile(std::string const& path, YAML::Mark const& at) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return;
  int const failure = errno;
  std::string const why = " (" + Kel::errnoText(failure) + "); ";
  if (FileReplication::Utils::missing(failure)) {
    warning(at, "identityFile " + quoted(path) + " does not exist" + why + "ssh cannot log in with it until it does");
  } else {
    warning(at, "identityFile " + quoted(path) + " cannot be checked" + why + "ssh may be unable to read it");
  }
}

void Parser::parseFiles(YAML::Node const& files, YAML::Mark const& at, RequesterSettings& r,
                        std::vector<FileSite>& sites) {
  if (files.IsNull()) return;
  if (!files.IsSequence()) {
    error(at, "files is " + describe(files) + "; expected a list of files, each a mapping with path");
    return;
  }
  std::unordered_map<std::string, int> firstLine;
  for (auto const& entry : files) {
    if (!entry.IsMap()) {
      error(entry.IsNull() ? at : entry.Mark(), "a file is " + describe(entry) +
                                                    "; expected a mapping with path, and optionally dstPath and "
                                                    "rsyncOptions");
      continue;
    }
    FileSettings f;
    f.rsyncOptions = "-a";
    std::optional<YAML::Mark> pathAt;
    std::optional<YAML::Mark> excludeAt;
    bool hasDstPath = false;
    forEachEntry(entry, [&](std::string const& k, YAML::Node const& keyNode, YAML::Node const& value) {
      YAML::Mark const valueAt = markOf(value, keyNode);
      if (k == "path") {
        pathAt = valueAt;
        if (auto path = parsePath(value, valueAt, k, true)) f.path = std::move(*path);
      } else if (k == "dstPath") {
        hasDstPath = true;
        if (auto path = parsePath(value, valueAt, k, false)) f.dstPath = std::move(*path);
      } else if (k == "rsyncOptions") {
        if (auto options = readText(value)) {
          checkRsyncOptions(*options, valueAt);
          f.rsyncOptions = std::move(*options);
        } else {
          error(valueAt, k + " is " + describe(value) + "; expected the options for rsync as one text, like \"-a\"");
        }
      } else if (k == "exclude") {
        excludeAt = valueAt;
        parseExclude(value, valueAt, f);
      } else {
        unknownKey(keyNode, " in a file", fileKeys);
      }
    });
    if (!pathAt) {
      error(entry.Mark(), "a file has no path; expected path: /absolute/file");
      continue;
    }
    if (f.path.empty()) continue;  // already reported
    if (!hasDstPath) f.dstPath = f.path;
    if (excludeAt && TreeEntry::kindOf(f.path) == TreeEntry::Kind::file) {
      error(*excludeAt, "exclude is given for the single file " + quoted(f.path) +
                            "; expected it only with a tree (a path ending in '/') or a pattern");
    }
    auto const [first, isNew] = firstLine.emplace(f.path, pathAt->line + 1);
    if (!isNew) {
      error(*pathAt, "file " + quoted(f.path) + " is listed twice in requester " + quoted(r.name) + " (first at line " +
                         std::to_string(first->second) + "); expected each file once");
      continue;
    }
    sites.push_back({f.path, *pathAt});
    r.files.push_back(std::move(f));
  }
}

// plain: also refuse names that are not the file's one spelling.
std::optional<std::string> Parser::parsePath(YAML::Node const& value, YAML::Mark const& at, std::string const& key,
                                             bool plain) {
  auto text = readText(value);
  std::string const wrong = key + " is " + describe(value) + "; expected an absolute file path";
  if (!text || text->empty() || text->front() != '/') {
    error(at, wrong);
    return std::nullopt;
  }
  // A tree's path ends in '/'; what comes before is spelt as a file's.
  std::string_view const spelling =
      plain && text->size() > 1 && text->ends_with('/') ? std::string_view(*text).substr(0, text->size() - 1) : *text;
  if (plain && !isPlainFilePath(spelling)) {
    error(at, wrong + " without empty, \".\" or \"..\" parts");
    return std::nullopt;
  }
  if (std::string const fault = plain ? PathPattern::fault(*text) : std::string(); !fault.empty()) {
    error(at, key + " " + quoted(*text) + " is not a valid pattern: " + fault + "; expected *, ?, [...] or **");
    return std::nullopt;
  }
  return text;
}

void Parser::parseExclude(YAML::Node const& value, YAML::Mark const& at, FileSettings& f) {
  if (value.IsNull()) return;
  if (!value.IsSequence()) {
    error(at, "exclude is " + describe(value) + "; expected a list of patterns, like [\"*.tmp\", \"cache/**\"]");
    return;
  }
  for (auto const& item : value) {
    YAML::Mark const itemAt = item.IsNull() ? at : item.Mark();
    auto text = readText(item);
    std::string const fault = text ? PathPattern::fault(*text) : std::string();
    if (!text || text->empty() || text->front() == '/' || !fault.empty()) {
      error(itemAt, "an exclude pattern is " + describe(item) + (fault.empty() ? "" : " (" + fault + ")") +
                        "; expected a pattern relative to the entry's directory, like \"*.tmp\" or \"cache/**\"");
      continue;
    }
    f.exclude.push_back(std::move(*text));
  }
}

void Parser::checkTreesOf(RequesterSettings const& r, std::vector<FileSite> const& sites) {
  auto where = [&](std::size_t i) {
    return std::to_string(sites[i].mark.line + 1) + ":" + std::to_string(sites[i].mark.column + 1);
  };
  for (auto const& finding : checkTrees(r, where)) {
    (finding.error ? result_.errors : result_.warnings)
        .push_back(position(sites[finding.entry].mark) + finding.message);
  }
}

// The inotify machine waits for a missing directory to appear, and its files
// count as missing meanwhile: a directory not made yet is fine, but a typo in
// it would go unnoticed.
void Parser::checkWatchable(FileSite const& site) {
  std::string const dir = FileReplication::Utils::dirname(site.path).str();
  struct stat st;
  int const failure = stat(dir.c_str(), &st) != 0 ? errno : S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
  if (failure == 0) return;
  std::string const why = " (" + Kel::errnoText(failure) + "); ";
  if (FileReplication::Utils::missing(failure)) {
    warning(site.mark,
            "the directory " + quoted(dir) + " does not exist" + why + "its files are replicated once it appears");
  } else {
    warning(site.mark,
            "the directory " + quoted(dir) + " cannot be checked" + why + "the agent may be unable to watch it");
  }
}

// Replicate splits the text as a shell would, and chooses the remote shell
// itself: its own -e comes last and wins, so a user's would be ignored.
void Parser::checkRsyncOptions(std::string const& text, YAML::Mark const& at) {
  std::vector<std::string> words;
  try {
    words = Replicate::splitShellWords(text);
  } catch (std::invalid_argument const& e) {
    error(at, "rsyncOptions " + quoted(text) + " cannot be split into words: " + e.what() +
                  "; expected options as a shell would split them, like \"-a --partial\"");
    return;
  }
  for (std::string const& w : words) {
    // In a cluster of short options, one that takes an argument ends the
    // options: "-T/tmp/e" names a directory.
    bool const shortCluster = w.size() > 1 && w[0] == '-' && w[1] != '-';
    std::size_t const options = shortCluster ? w.find_first_of("BfMT@", 1) : 0;
    bool const shortE = shortCluster && w.substr(0, options).find('e') != std::string::npos;
    if (shortE || w.starts_with("--rsh")) {
      error(at, "rsyncOptions " + quoted(text) + " choose the remote shell (" + quoted(w) +
                    "); expected ssh settings under ssh: (port, user, identityFile, options)");
      return;
    }
  }
}

// A source that is not there has its copies deleted by the first run: a typo
// in a path would cost the destination. A directory can only fail.
void Parser::checkSource(FileSettings const& f, YAML::Mark const& at) {
  struct stat st;
  if (stat(f.path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) error(at, "path " + quoted(f.path) + " is a directory; expected a file");
    return;
  }
  if (!FileReplication::Utils::missing(errno)) return;
  warning(at, "path " + quoted(f.path) + " does not exist; the first run deletes its copies (dstPath " +
                  quoted(f.dstPath) + ")");
}

// The library refuses to copy a file onto itself, so such a file is valid
// but never replicated, which is hardly what was meant.
bool Parser::checkCopiedOntoItself(FileSettings const& f, YAML::Mark const& at) {
  if (f.dstPath != f.path && !FileReplication::Utils::sameFile(f.path, f.dstPath)) return false;
  warning(at, "dstPath " + quoted(f.dstPath) + " of file " + quoted(f.path) +
                  " is the same file as its source and the requester has no remote hosts; it is never copied");
  return true;
}

// Reads the whole file; 0 or the errno of the failure.
int readWhole(std::string const& path, std::string& text) {
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int failure = 0;
  char buffer[65536];
  for (;;) {
    ssize_t const n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      failure = errno;
      break;
    }
    if (n == 0) break;
    if (text.size() + static_cast<std::size_t>(n) > maxFileSize) {
      failure = EFBIG;
      break;
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  return failure;
}

}  // namespace

ParsedConfig parseConfigText(std::string const& text, std::string const& fileName) {
  return Parser(fileName).parse(text);
}

// Run as root, the configuration says which commands run as root and where
// they write: whoever may change the file, or replace it through a directory
// above it, owns the machine. Empty when only root can.
std::string unsafeOwnership(std::string const& path) {
  if (geteuid() != 0) return {};
  std::string at = path;
  if (at.empty() || at.front() != '/') {
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return {};
    at = std::string(cwd) + "/" + at;
  }
  for (bool file = true;; file = false) {
    struct stat st;
    // Through links: it is what they lead to that is read.
    if (stat(at.c_str(), &st) != 0) return {};
    std::string const what = (file ? "the file " : "the directory ") + quoted(at);
    if (st.st_uid != 0) return what + " is owned by uid " + std::to_string(st.st_uid) + ", not root";
    // A sticky directory (/tmp) lets others add names but not replace ours.
    bool const writable = (st.st_mode & (S_IWGRP | S_IWOTH)) && !(!file && (st.st_mode & S_ISVTX));
    if (writable) return what + " is writable by " + ((st.st_mode & S_IWOTH) ? "others" : "its group");
    std::size_t const slash = at.find_last_of('/');
    if (at == "/" || slash == std::string::npos) return {};
    at = slash == 0 ? "/" : at.substr(0, slash);
  }
}

ParsedConfig parseConfigFile(std::string const& path) {
  std::string text;
  if (int const failure = readWhole(path, text)) {
    ParsedConfig unread;
    unread.errors.push_back(path + ": cannot read: " + Kel::errnoText(failure));
    return unread;
  }
  if (std::string const unsafe = unsafeOwnership(path); !unsafe.empty()) {
    ParsedConfig refused;
    refused.errors.push_back(path + ": refused: " + unsafe +
                             "; expected a file that only root can change, as the agent runs its commands as root");
    return refused;
  }
  return parseConfigText(text, path);
}

}  // namespace Agent
