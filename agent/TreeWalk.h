#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/TreeEntry.h"

namespace Agent {

// What one pass over (part of) an entry's tree found. Symbolic links are
// never followed into directories, so a link loop cannot make a walk
// endless; a link to a regular file is one of the files.
struct TreeWalk {
  struct Unreadable {
    std::string dir;
    int error;
  };
  std::vector<std::string> files;
  std::vector<Unreadable> unreadable;
};

// Reads the directory start (no trailing '/') and every directory below it
// the entry enters, one readdir pass each; stat only where the kernel does
// not give the type, and for links. enterDir, when given, is called for each
// directory before it is read, so that a watch set there misses nothing.
// A start that does not exist gives nothing; one that cannot be read is
// unreadable.
TreeWalk walkTree(TreeEntry const& entry, std::string const& start,
                  std::function<void(std::string const&)> const& enterDir = {});

}  // namespace Agent
