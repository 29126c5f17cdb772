// One line of text at a time from one process to the other, for the tests
// that fork a reader.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

struct Pipe {
   Pipe() { EXPECT_EQ(::pipe(fd), 0); }
   ~Pipe() {
      ::close(fd[0]);
      ::close(fd[1]);
   }
   void send(std::string const & s) const {
      std::string line = s + "\n";
      (void)!::write(fd[1], line.data(), line.size());
   }
   std::string receive() const {
      std::string s;
      for (char c; ::read(fd[0], &c, 1) == 1 && c != '\n';) s += c;
      return s;
   }
   int fd[2];
};
