#include "agent/TreeExpander.h"

#include <algorithm>

namespace Agent {

TreeExpander::TreeExpander(Kel::Ptr<FileReplication::Config> config, Kel::Ptr<FileReplication::Status> status,
                           Hooks hooks)
    : config_(std::move(config)), status_(std::move(status)), hooks_(std::move(hooks)) {}

AgentConfig TreeExpander::expanded(AgentConfig const& wanted) {
  AgentConfig result = wanted;
  std::map<std::string, std::unique_ptr<TreeRequester>, std::less<>> kept;
  for (auto& s : result.requesters) {
    bool const hasTrees = std::any_of(s.files.begin(), s.files.end(), [](FileSettings const& f) {
      return TreeEntry::kindOf(f.path) != TreeEntry::Kind::file;
    });
    if (!hasTrees) continue;
    auto present = requesters_.find(s.name);
    std::unique_ptr<TreeRequester> tree;
    // Kept when it expands alike, so that files still to be deleted stay.
    if (present != requesters_.end() && present->second->sameEntries(s)) {
      tree = std::move(present->second);
      tree->settingsIs(s);
    } else {
      TreeRequester::Hooks hooks{hooks_.say, [this, name = s.name] { return hooks_.nextRun(name); },
                                 [this, name = s.name](std::string const& path) { hooks_.replicate(name, path); }};
      tree = std::make_unique<TreeRequester>(config_, status_, s, std::move(hooks));
    }
    tree->rescan();
    std::vector<FileSettings> files;
    for (auto const& f : s.files) {
      if (TreeEntry::kindOf(f.path) == TreeEntry::Kind::file) files.push_back(f);
    }
    tree->appendFiles(files);
    s.files = std::move(files);
    kept.emplace(s.name, std::move(tree));
  }
  requesters_ = std::move(kept);
  return result;
}

void TreeExpander::applied() {
  for (auto& [name, tree] : requesters_) tree->follow();
}

nlohmann::json TreeExpander::status(std::string const& requester) const {
  auto const it = requesters_.find(requester);
  return it == requesters_.end() ? nlohmann::json(nullptr) : it->second->status();
}

std::string const* TreeExpander::entryOf(std::string const& requester, std::string const& path) const {
  auto const it = requesters_.find(requester);
  return it == requesters_.end() ? nullptr : it->second->entryOf(path);
}

}  // namespace Agent
