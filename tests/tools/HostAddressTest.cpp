#include "tools/Replicate/HostAddress.h"

#include <gtest/gtest.h>

#include <stdexcept>

using Replicate::HostAddress;

TEST(HostAddressTest, AcceptsNamesUsersAndIpv6) {
  const HostAddress plain = HostAddress::parse("backup-1.example.com");
  EXPECT_EQ(plain.user(), "");
  EXPECT_EQ(plain.machine(), "backup-1.example.com");
  EXPECT_EQ(plain.rsyncDestination("a:b"), "backup-1.example.com:a:b");

  const HostAddress user = HostAddress::parse("rep_user@10.0.0.1");
  EXPECT_EQ(user.user(), "rep_user");
  EXPECT_EQ(user.machine(), "10.0.0.1");
  EXPECT_EQ(user.rsyncDestination("/t"), "rep_user@10.0.0.1:/t");

  // rsync needs brackets around an IPv6 address, ssh wants it bare.
  for (const char* text : {"::1", "[::1]"}) {
    const HostAddress address = HostAddress::parse(text);
    EXPECT_EQ(address.machine(), "::1");
    EXPECT_EQ(address.rsyncDestination("/t"), "[::1]:/t");
    EXPECT_EQ(address.text(), text);
  }
  const HostAddress scoped = HostAddress::parse("u@[fe80::1%eth0]");
  EXPECT_EQ(scoped.user(), "u");
  EXPECT_EQ(scoped.machine(), "fe80::1%eth0");
  EXPECT_EQ(scoped.rsyncDestination("t"), "u@[fe80::1%eth0]:t");
}

TEST(HostAddressTest, RefusesWhatRsyncOrSshWouldMisread) {
  // Options for ssh, local paths or daemon addresses for rsync, shell text.
  for (const char* text : {"-oProxyCommand=touch x", "u@-x", "-u@x", "dir/host", "host:", "host::module", "a b",
                           "@host", "u@", "u@@h", "[host]", "[::1", "h;id", "h$(id)", "h\n", "u:p@h", ""}) {
    EXPECT_THROW(HostAddress::parse(text), std::invalid_argument) << text;
  }
}
