#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Replicate {

// The runs of rsync that copy a batch of files to one destination, until
// each file is known to be copied or to have failed there. rsync cannot
// tell which files of a partial transfer failed, so a list that ends in one
// is split in halves and each half is run again.
//
// Nothing here starts or waits for a child, so that a driver may keep the
// batches of several destinations going at once.
class DestinationBatch {
 public:
  // where names the destination in messages ("host x"), empty for this
  // machine. arguments is rsync's whole argument vector; the list goes to
  // its stdin. files are indices into the batch's names. changed tells
  // whether a file's source changed since it was last asked; a file that
  // fails alone while it changes is run again, a few times.
  DestinationBatch(std::string where, std::vector<std::string> arguments, std::vector<size_t> files,
                   std::function<bool(size_t)> changed = {});

  bool done() const { return pending_.empty(); }
  const std::vector<std::string>& arguments() const { return arguments_; }
  // The files for the next run, in input order. Only while !done().
  const std::vector<size_t>& nextList() const { return pending_.back(); }
  // Takes the outcome of the run of nextList(), reporting the failures it
  // settles. why, when given, says why a run failed that was not a partial
  // transfer, in place of rsync's exit status.
  void finished(int waitStatus, const std::vector<std::string>& names, const std::string& why = {});
  // Counts every file not yet settled as failed, for why, which is reported
  // unless it is empty.
  void abandon(const std::string& why);
  // The files that failed here, in no particular order.
  const std::vector<size_t>& failed() const { return failed_; }

 private:
  void failAllPending();
  std::string prefix() const;

  std::string where_;
  std::vector<std::string> arguments_;
  // A stack: the list run next is at the back.
  std::vector<std::vector<size_t>> pending_;
  std::vector<size_t> failed_;
  std::function<bool(size_t)> changed_;
  std::unordered_map<size_t, int> retries_;
};

}  // namespace Replicate
