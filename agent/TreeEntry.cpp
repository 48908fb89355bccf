#include "agent/TreeEntry.h"

namespace Agent {

std::vector<std::string> const& TreeEntry::defaultExcludes() {
  static std::vector<std::string> const defaults = {"*.swp", "*.swx", "*~", ".#*", "4913", ".?*.??????"};
  return defaults;
}

TreeEntry::Kind TreeEntry::kindOf(std::string_view path) {
  if (path.ends_with('/')) return Kind::tree;
  return PathPattern::hasWildcard(path) ? Kind::pattern : Kind::file;
}

namespace {

// The directories before the first name with a wildcard.
std::string literalRoot(std::string const& pattern) {
  std::size_t end = 0;
  for (std::size_t slash = pattern.find('/'); slash != std::string::npos; slash = pattern.find('/', slash + 1)) {
    if (PathPattern::hasWildcard(std::string_view(pattern).substr(0, slash))) break;
    end = slash + 1;
  }
  return pattern.substr(0, end);
}

}  // namespace

TreeEntry::TreeEntry(FileSettings const& settings)
    : settings_(settings), kind_(kindOf(settings.path)), pattern_(settings.path) {
  root_ = kind_ == Kind::pattern ? literalRoot(settings.path) : settings.path;
  // A pattern's dstPath names where its root goes, as a tree's does.
  dstRoot_ = settings.dstPath == settings.path ? root_ : settings.dstPath;
  if (!dstRoot_.ends_with('/')) dstRoot_ += '/';
  auto sort = [this](std::string const& text) {
    (text.find('/') == std::string::npos ? byName_ : byPath_).emplace_back(text);
  };
  for (auto const& text : defaultExcludes()) sort(text);
  for (auto const& text : settings.exclude) sort(text);
}

bool TreeEntry::excludedByName(std::string_view relative) const {
  std::size_t start = 0;
  while (start < relative.size()) {
    std::size_t end = relative.find('/', start);
    if (end == std::string_view::npos) end = relative.size();
    for (auto const& p : byName_) {
      if (p.matches(relative.substr(start, end - start))) return true;
    }
    start = end + 1;
  }
  return false;
}

bool TreeEntry::excluded(std::string_view relative) const {
  for (auto const& p : byPath_) {
    if (p.matches(relative)) return true;
  }
  return excludedByName(relative);
}

bool TreeEntry::wants(std::string_view path) const {
  if (!path.starts_with(root_) || path.size() == root_.size()) return false;
  if (kind_ == Kind::pattern && !pattern_.matches(path)) return false;
  return !excluded(path.substr(root_.size()));
}

bool TreeEntry::entersDir(std::string_view dir) const {
  if (dir.size() + 1 == root_.size() && root_.starts_with(dir)) return true;
  if (!dir.starts_with(root_)) return false;
  std::string_view const relative = dir.substr(root_.size());
  // "cache/**" leaves the directory cache out whole.
  for (auto const& p : byPath_) {
    std::string_view const text = p.text();
    if (text.ends_with("/**") && PathPattern(std::string(text.substr(0, text.size() - 3))).matches(relative)) {
      return false;
    }
  }
  if (excludedByName(relative)) return false;
  return kind_ == Kind::tree || pattern_.couldMatchBelow(dir);
}

std::string TreeEntry::dstPathOf(std::string_view path) const {
  return dstRoot_ + std::string(path.substr(root_.size()));
}

FileSettings TreeEntry::fileOf(std::string_view path) const {
  return {std::string(path), dstPathOf(path), settings_.rsyncOptions, {}};
}

}  // namespace Agent
