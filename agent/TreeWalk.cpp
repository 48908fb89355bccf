#include "agent/TreeWalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace Agent {

TreeWalk walkTree(TreeEntry const& entry, std::string const& start,
                  std::function<void(std::string const&)> const& enterDir) {
  TreeWalk walk;
  std::vector<std::string> pending{start};
  while (!pending.empty()) {
    std::string const dir = std::move(pending.back());
    pending.pop_back();
    if (enterDir) enterDir(dir);
    DIR* const d = opendir(dir.empty() ? "/" : dir.c_str());
    if (!d) {
      // Gone since it was listed: its parent's next look tells.
      if (errno != ENOENT) walk.unreadable.push_back({dir, errno});
      continue;
    }
    int const fd = dirfd(d);
    while (dirent const* e = readdir(d)) {
      std::string_view const name = e->d_name;
      if (name == "." || name == "..") continue;
      std::string path = dir + "/" + e->d_name;
      unsigned char type = e->d_type;
      struct stat st;
      if (type == DT_UNKNOWN) {
        if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : S_ISLNK(st.st_mode) ? DT_LNK : DT_UNKNOWN;
      }
      if (type == DT_DIR) {
        if (entry.entersDir(path)) pending.push_back(std::move(path));
      } else if (type == DT_REG || (type == DT_LNK && fstatat(fd, e->d_name, &st, 0) == 0 && S_ISREG(st.st_mode))) {
        if (entry.wants(path)) walk.files.push_back(std::move(path));
      }
    }
    closedir(d);
  }
  return walk;
}

}  // namespace Agent
