#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "agent/AgentConfig.h"
#include "agent/PathPattern.h"

namespace Agent {

// One `files` entry that names many files: a directory tree (a path ending
// in '/') or a pattern. Says which paths belong to it and where each is
// copied; does no I/O.
class TreeEntry {
 public:
  enum class Kind { file, tree, pattern };

  // Editor and tool litter, always left out: swap files, backups, lock
  // files, vim's probe "4913", and rsync's own temporaries ".name.XXXXXX".
  static std::vector<std::string> const& defaultExcludes();
  static Kind kindOf(std::string_view path);

  explicit TreeEntry(FileSettings const& settings);

  FileSettings const& settings() const { return settings_; }
  Kind kind() const { return kind_; }
  // The directory the entry's files are under, with its trailing '/'.
  std::string const& root() const { return root_; }
  // A regular file at path is one of the entry's.
  bool wants(std::string_view path) const;
  // The directory (no trailing '/') may hold files of the entry.
  bool entersDir(std::string_view dir) const;
  std::string dstPathOf(std::string_view path) const;
  FileSettings fileOf(std::string_view path) const;

 private:
  // By a name anywhere in relative (each of its names, directories
  // included), or by the whole relative path for a pattern that holds '/'.
  bool excluded(std::string_view relative) const;
  bool excludedByName(std::string_view relative) const;

  FileSettings settings_;
  Kind kind_;
  std::string root_;
  std::string dstRoot_;
  PathPattern pattern_;
  std::vector<PathPattern> byName_;
  std::vector<PathPattern> byPath_;
};

}  // namespace Agent
