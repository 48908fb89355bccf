#include "agent/TreeCheck.h"

#include <string.h>

#include <map>
#include <set>
#include <utility>

#include "agent/TreeEntry.h"
#include "agent/TreeWalk.h"

namespace Agent {

namespace {

std::string describeErrno(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof buffer);
}

}  // namespace

std::vector<TreeFinding> checkTrees(RequesterSettings const& r, std::function<std::string(std::size_t)> const& where) {
  std::vector<TreeFinding> findings;
  std::map<std::string, std::size_t, std::less<>> claimed;
  std::set<std::pair<std::size_t, std::size_t>> told;
  auto claim = [&](std::string const& path, std::size_t i) {
    auto const [first, isNew] = claimed.emplace(path, i);
    if (isNew || first->second == i || !told.emplace(first->second, i).second) return;
    findings.push_back({i, true,
                        "file \"" + path + "\" is matched by this entry and by the one at " + where(first->second) +
                            " (\"" + r.files[first->second].path +
                            "\"); expected each file in one entry of requester \"" + r.name + "\""});
  };
  // Files named alone claim theirs first, whether they exist or not.
  std::vector<TreeEntry> entries;
  std::vector<std::size_t> at;
  std::vector<std::size_t> alone;
  for (std::size_t i = 0; i < r.files.size(); ++i) {
    if (TreeEntry::kindOf(r.files[i].path) == TreeEntry::Kind::file) {
      claimed.emplace(r.files[i].path, i);
      alone.push_back(i);
    } else {
      entries.emplace_back(r.files[i]);
      at.push_back(i);
    }
  }
  for (std::size_t k = 0; k < entries.size(); ++k) {
    TreeEntry const& entry = entries[k];
    for (std::size_t i : alone) {
      if (entry.wants(r.files[i].path)) claim(r.files[i].path, at[k]);
    }
    std::string const start = entry.root().substr(0, entry.root().size() - 1);
    TreeWalk const walk = walkTree(entry, start);
    for (auto const& u : walk.unreadable) {
      findings.push_back({at[k], false,
                          "the directory \"" + (u.dir.empty() ? "/" : u.dir) + "\" cannot be read (" +
                              describeErrno(u.error) + "); the files in it are not replicated"});
    }
    if (walk.files.empty() && walk.unreadable.empty()) {
      findings.push_back(
          {at[k], false,
           "path \"" + entry.settings().path + "\" matches no file now; its files are replicated once they appear"});
    }
    for (auto const& path : walk.files) claim(path, at[k]);
  }
  return findings;
}

}  // namespace Agent
