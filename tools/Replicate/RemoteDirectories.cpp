#include "tools/Replicate/RemoteDirectories.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/ControlDirectory.h"
#include "tools/Replicate/DirectoriesInTheWay.h"

namespace Replicate {

namespace {

constexpr std::string_view treePrefix = "tree-";

bool holds(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// The directory's names from the top; empty when there are none or one
// climbs up, which a tree of our own cannot stand for.
std::vector<std::string> componentsOf(const std::string& directory) {
  std::vector<std::string> components;
  size_t start = 0;
  while (start <= directory.size()) {
    size_t end = directory.find('/', start);
    if (end == std::string::npos) end = directory.size();
    std::string component = directory.substr(start, end - start);
    if (component == "..") return {};
    if (!component.empty() && component != ".") components.push_back(std::move(component));
    start = end + 1;
  }
  return components;
}

std::string joined(const std::vector<std::string>& components, size_t from, size_t to) {
  std::string path;
  for (size_t i = from; i < to; ++i) path += (i == from ? "" : "/") + components[i];
  return path;
}

// The user's options that say where the remote rsync is and how long to
// wait for it; the others are about files.
std::vector<std::string> reachingOptions(const std::vector<std::string>& options) {
  std::vector<std::string> kept;
  for (size_t i = 0; i < options.size(); ++i) {
    const std::string& option = options[i];
    for (const std::string_view name : {"--rsync-path", "--timeout"}) {
      if (option.starts_with(std::string(name) + "=")) {
        kept.push_back(option);
      } else if (option == name && i + 1 < options.size()) {
        kept.insert(kept.end(), {option, options[i + 1]});
        ++i;
      }
    }
  }
  return kept;
}

// Trees of runs killed before they removed theirs: a run that outlives its
// time-out is killed outright.
void removeTreesLeftBehind(const std::string& directory) {
  DIR* dir = opendir(directory.c_str());
  if (!dir) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(treePrefix)) continue;
    const long pid = std::strtol(entry->d_name + treePrefix.size(), nullptr, 10);
    if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      pruneLocalDirectory(directory + "/" + entry->d_name);
    }
  }
  closedir(dir);
}

// A private directory of our own, removed with what is below it. It is in
// the control directory, named by our pid, so that the next one made finds
// it if we are killed first.
class LocalTree {
 public:
  LocalTree() {
    const std::string directory = controlDirectory();
    removeTreesLeftBehind(directory);
    root_ = directory + "/" + std::string(treePrefix) + std::to_string(getpid()) + "-XXXXXX";
    if (!mkdtemp(root_.data())) {
      throw std::runtime_error("cannot make a temporary directory " + root_ + ": " + std::strerror(errno));
    }
  }
  ~LocalTree() {
    for (auto made = made_.rbegin(); made != made_.rend(); ++made) rmdir(made->c_str());
    rmdir(root_.c_str());
  }
  LocalTree(const LocalTree&) = delete;
  LocalTree& operator=(const LocalTree&) = delete;

  const std::string& root() const { return root_; }
  // The mode is what rsync gives the new directories, less the remote umask.
  void add(const std::string& relative) {
    std::string path = root_ + "/" + relative;
    if (mkdir(path.c_str(), 0755) != 0 || chmod(path.c_str(), 0755) != 0) {
      throw std::runtime_error("cannot make a temporary directory " + path + ": " + std::strerror(errno));
    }
    made_.push_back(std::move(path));
  }

 private:
  std::string root_;
  std::vector<std::string> made_;
};

}  // namespace

bool missingRemoteDirectory(const ChildRun& run) {
  if (!WIFEXITED(run.status)) return false;
  const int code = WEXITSTATUS(run.status);
  // 3 when the directory of a single file is missing; 11 when rsync cannot
  // make the target directory of a batch for want of its parent. The
  // receiver's message of that may be lost as it exits: an 11 that says
  // nothing is worth making the directories, which harms nothing.
  const bool missing = (holds(run.errors, "change_dir") || holds(run.errors, "mkdir ")) &&
                       holds(run.errors, "No such file or directory");
  return code == 3 || (code == 11 && (missing || !holds(run.errors, "rsync")));
}

std::optional<ChildRun> makeRemoteDirectories(const std::string& rsync, const std::vector<std::string>& rsyncOptions,
                                              const RemoteShell& shell, const HostAddress& host,
                                              const std::string& directory) {
  const std::vector<std::string> components = componentsOf(directory);
  if (components.empty()) return std::nullopt;
  const bool absolute = directory.front() == '/';
  LocalTree tree;
  for (size_t i = 1; i <= components.size(); ++i) tree.add(joined(components, 0, i));

  std::vector<std::string> arguments = {"rsync"};
  const std::vector<std::string> reaching = reachingOptions(rsyncOptions);
  arguments.insert(arguments.end(), reaching.begin(), reaching.end());
  // With --relative, rsync makes the directories named after "/./" below
  // the target, and makes a missing target whose parent is there. No -p or
  // -t: directories that exist keep their modes and times.
  arguments.insert(arguments.end(),
                   {"-r", "--protect-args", "--relative", "--keep-dirlinks", "-e", shell.command(), "--"});
  // Usually only the last levels are missing: the parent of directory as
  // the target makes up to two. Otherwise the top makes them all, unless a
  // symbolic link to a directory is on the way: recent receivers refuse to
  // make a directory below one that lies within the transfer. Then the
  // target goes up one level a round, so that the levels below it are all
  // new, and the links above it are followed like any path.
  std::vector<size_t> depths = {components.size() - 1};
  if (components.size() > 1) depths.push_back(0);
  for (size_t depth = components.size() - 1; depth-- > 1;) depths.push_back(depth);
  ChildRun run;
  for (size_t round = 0; round < depths.size(); ++round) {
    const size_t depth = depths[round];
    const std::string above = joined(components, 0, depth);
    std::string target = absolute ? "/" + above : above;
    if (!above.empty()) target += "/";
    std::vector<std::string> roundArguments = arguments;
    roundArguments.push_back(tree.root() + "/" + above + (above.empty() ? "./" : "/./") +
                             joined(components, depth, components.size()));
    roundArguments.push_back(host.rsyncDestination(target));
    // Our stdout may carry the outcome of each name.
    run = runCapturingErrors(rsync, roundArguments, {.outputToStderr = true});
    if (succeeded(run.status) || (round != 1 && !missingRemoteDirectory(run))) break;
  }
  return run;
}

ChildRun pruneRemoteDirectory(const std::string& rsync, const std::vector<std::string>& rsyncOptions,
                              const RemoteShell& shell, const HostAddress& host, const std::string& directory) {
  const LocalTree empty;
  std::vector<std::string> arguments = {"rsync"};
  const std::vector<std::string> reaching = reachingOptions(rsyncOptions);
  arguments.insert(arguments.end(), reaching.begin(), reaching.end());
  // The receiver deletes what the empty tree lacks, but never what the
  // filter excludes: every file, link and device stays, and with them the
  // directories that hold them.
  arguments.insert(arguments.end(),
                   {"-r", "--delete", "--include=*/", "--exclude=*", "--protect-args", "-e", shell.command(), "--",
                    empty.root() + "/", host.rsyncDestination(directory + "/")});
  return runCapturingErrors(rsync, arguments, {.outputToStderr = true});
}

}  // namespace Replicate
