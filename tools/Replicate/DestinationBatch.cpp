#include "tools/Replicate/DestinationBatch.h"

#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

DestinationBatch::DestinationBatch(std::string where, std::vector<std::string> arguments, std::vector<size_t> files,
                                   std::function<bool(size_t)> changed)
    : where_(std::move(where)), arguments_(std::move(arguments)), changed_(std::move(changed)) {
  if (!files.empty()) pending_.push_back(std::move(files));
}

void DestinationBatch::finished(int waitStatus, const std::vector<std::string>& names, const std::string& why) {
  std::vector<size_t> list = std::move(pending_.back());
  pending_.pop_back();
  if (succeeded(waitStatus)) return;
  if (!partialTransfer(waitStatus)) {
    // A dead host, bad options or a killed rsync: another run would fare
    // no better, and which files made it before is unknown.
    failed_.insert(failed_.end(), list.begin(), list.end());
    failAllPending();
    report(prefix() + (why.empty() ? describeRsyncFailure(waitStatus) : why));
    return;
  }
  if (list.size() == 1) {
    // Rewritten while rsync read it: the next run likely finds it settled.
    if (changed_ && changed_(list.front()) && retries_[list.front()]++ < retriesWhileChanging) {
      pending_.push_back(std::move(list));
      return;
    }
    failed_.push_back(list.front());
    report(prefix() + "cannot copy " + printable(names[list.front()]) + ": " + describeRsyncFailure(waitStatus));
    return;
  }
  const auto middle = list.begin() + static_cast<std::ptrdiff_t>(list.size() / 2);
  pending_.emplace_back(middle, list.end());
  pending_.emplace_back(list.begin(), middle);
}

void DestinationBatch::abandon(const std::string& why) {
  failAllPending();
  if (!why.empty()) report(prefix() + why);
}

void DestinationBatch::failAllPending() {
  for (const std::vector<size_t>& list : pending_) failed_.insert(failed_.end(), list.begin(), list.end());
  pending_.clear();
}

std::string DestinationBatch::prefix() const { return where_.empty() ? std::string() : where_ + ": "; }

}  // namespace Replicate
