#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

// A directory at the destination where a file is to go, as a tree leaves
// behind when one of its directories became a file: rsync replaces an
// empty one, and refuses one that holds anything. The directories below it
// were the tree's too, so the ones holding nothing but directories go; one
// holding a file stays, and so does the copy's failure.
namespace Replicate {

// The names, as rsync gives them in errors, of the files that a directory
// kept out, less those in done, which takes them: each is worth one pruning.
std::vector<std::string> directoriesInTheWay(std::string_view errors, std::set<std::string>& done);

// Removes directory and the directories below it when none of them holds
// anything but directories; one that holds anything else stays, with those
// above it. pruneRemoteDirectory does the same on a remote host.
void pruneLocalDirectory(const std::string& directory);

}  // namespace Replicate
