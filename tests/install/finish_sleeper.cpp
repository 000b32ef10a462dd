// finishsleeper SECONDS: sleeps, then ends. The Windows finish-command tests
// need a command that hangs, and cmd.exe has no sleep of its own.
#include <chrono>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  return 0;
}
