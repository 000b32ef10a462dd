// Live progress is drawn only on a terminal that understands it: the test
// puts a pseudo-terminal in place of standard output and changes TERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "install/headless.h"

namespace tarnlift {
namespace {

using namespace install;

class StandardOutputOnTerminal {
 public:
  StandardOutputOnTerminal() {
    std::fflush(stdout);
    saved_ = ::dup(STDOUT_FILENO);
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) return;
    const int terminal = ::open(::ptsname(master_), O_RDWR | O_NOCTTY);
    if (terminal < 0) return;
    ::dup2(terminal, STDOUT_FILENO);
    ::close(terminal);
    ready_ = true;
  }
  ~StandardOutputOnTerminal() {
    std::fflush(stdout);
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
    if (master_ >= 0) ::close(master_);
  }
  bool ready() const { return ready_; }

 private:
  int saved_ = -1;
  int master_ = -1;
  bool ready_ = false;
};

class TermVariable {
 public:
  TermVariable() {
    if (const char* value = std::getenv("TERM")) saved_ = value;
  }
  ~TermVariable() {
    if (saved_) {
      ::setenv("TERM", saved_->c_str(), 1);
    } else {
      ::unsetenv("TERM");
    }
  }

 private:
  std::optional<std::string> saved_;
};

TEST(LiveProgress, OnlyOnATerminalThatIsNotDumb) {
  TermVariable term;
  ::setenv("TERM", "xterm", 1);
  {
    StandardOutputOnTerminal terminal;
    ASSERT_TRUE(terminal.ready());
    EXPECT_TRUE(terminalShowsLiveProgress());
    ::setenv("TERM", "dumb", 1);
    EXPECT_FALSE(terminalShowsLiveProgress());
    ::unsetenv("TERM");
    EXPECT_FALSE(terminalShowsLiveProgress());
    ::setenv("TERM", "", 1);
    EXPECT_FALSE(terminalShowsLiveProgress());
  }
  // Standard output back on the test runner's pipe or file: no terminal.
  ::setenv("TERM", "xterm", 1);
  if (::isatty(STDOUT_FILENO) == 0) {
    EXPECT_FALSE(terminalShowsLiveProgress());
  }
}

}  // namespace
}  // namespace tarnlift
