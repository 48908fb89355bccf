#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

// A close-on-exec pipe, both ends closed with it.
struct Pipe {
  Pipe() {
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  Pipe(Pipe const&) = delete;
  Pipe& operator=(Pipe const&) = delete;

  int readEnd() const { return fds[0]; }
  void put(char const* text) const { ASSERT_EQ(write(fds[1], text, strlen(text)), static_cast<ssize_t>(strlen(text))); }

  int fds[2];
};
