#include "tools/Replicate/DirectoriesInTheWay.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace Replicate {

std::vector<std::string> directoriesInTheWay(std::string_view errors, std::set<std::string>& done) {
  static constexpr std::string_view refusal = "could not make way for new regular file: ";
  std::vector<std::string> names;
  for (size_t at = errors.find(refusal); at != std::string_view::npos; at = errors.find(refusal, at)) {
    at += refusal.size();
    const size_t end = std::min(errors.find('\n', at), errors.size());
    if (std::string name(errors.substr(at, end - at)); !name.empty() && done.insert(name).second) {
      names.push_back(std::move(name));
    }
  }
  return names;
}

void pruneLocalDirectory(const std::string& directory) {
  if (DIR* dir = opendir(directory.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string path = directory + "/" + name;
      struct stat status {};
      if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) pruneLocalDirectory(path);
    }
    closedir(dir);
  }
  rmdir(directory.c_str());
}

}  // namespace Replicate
