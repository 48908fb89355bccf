#include "FileReplication/ConfigSm.h"

#include "FileReplication/InotifyModeSm.h"
#include "FileReplication/PeriodicModeSm.h"
#include "FileReplication/ReplicateBatcher.h"
#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/ChildManager.h"
#include "runtime/Exception.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

class ConfigSm::KelConfig : public Kel::NestedReactor<ConfigSm, Config::NotifieeConst> {
 public:
  using Config::NotifieeConst::onRequester;
  using NestedReactor::NestedReactor;
  void onRequester(Kel::Name name) override { owner()->handleRequesterConfig(name); }
};

Kel::Ptr<ConfigSm> ConfigSm::ConfigSmIs(Kel::Ptr<Config const> config, Kel::Ptr<Status> status) {
  Kel::Ptr<ConfigSm> sm = new ConfigSm(std::move(config), std::move(status));
  sm->hasNotificationActiveIs(true);
  return sm;
}

ConfigSm::ConfigSm(Kel::Ptr<Config const> config, Kel::Ptr<Status> status) : config_(this) {
  config_->notifierIs(config);
  status_ = std::move(status);
  handleRequesterConfig();
}

ConfigSm::~ConfigSm() { doCleanup(); }

Kel::Ptr<Config const> ConfigSm::config() const { return config_->notifier(); }

void ConfigSm::requesterConfigSmIs(Kel::Ptr<RequesterConfigSmBase> const& sm) {
  if (!sm) {
    Kel::throwRangeException(
        "null _requesterConfigSm parameter to mutator for FileReplication::ConfigSm::requesterConfigSm not "
        "allowed\"");
  }
  requesterConfigSm_.insert(sm->name(), sm);
}

Kel::Ptr<RequesterConfigSmBase> ConfigSm::requesterConfigSmDel(Kel::Name name) {
  return requesterConfigSm_.erase(name).value_or(nullptr);
}

// One at a time, so each machine goes while the rest are still consistent.
void ConfigSm::requesterConfigSmDelAll() { requesterConfigSm_.eraseAll(); }

void ConfigSm::handleRequesterConfig() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  for (auto const& [name, rc] : config()->requester()) handleRequesterConfig(name);
}

void ConfigSm::handleRequesterConfig(Kel::Name name) {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": " << name);
  auto rc = config()->requester(name);
  if (!rc) {
    requesterConfigSmDel(name);
    if (status_->requester(name)) status_->requesterDel(name);
    return;
  }
  // A requester's mode cannot change in place: it is removed and added again.
  KEL_ASSERT_TEXT(!requesterConfigSm(name), "!requesterConfigSm( name )");
  if (rc->mode() != RequesterConfig::periodic && rc->mode() != RequesterConfig::inotify) {
    KEL_ASSERT_TEXT(false, "0 && \"invalid mode\"");
  }
  auto rs = status_->requester(name);
  if (!rs) rs = status_->requesterIs(name);
  Kel::Ptr<RequesterConfigSmBase> sm;
  switch (rc->mode()) {
    case RequesterConfig::periodic: sm = PeriodicRequesterConfigSm::PeriodicRequesterConfigSmIs(name, rc, rs); break;
    case RequesterConfig::inotify: sm = InotifyRequesterConfigSm::InotifyRequesterConfigSmIs(name, rc, rs); break;
    default: KEL_ASSERT_TEXT(false, "0");
  }
  requesterConfigSmIs(sm);
}

void ConfigSm::doCleanup() {
  requesterConfigSmDelAll();
  status_->requesterDelAll();
}

Kel::Ptr<ConfigSm> configSmFactory(Kel::Ptr<Config const> config, Kel::Ptr<Status> status) {
  // Requesters that allow more than one file per run get their copies merged.
  Kel::activityManager()->children().batcherIs(&ReplicateBatcher::instance());
  return ConfigSm::ConfigSmIs(std::move(config), std::move(status));
}

}  // namespace FileReplication
