// runnerstandin MILLISECONDS NOTE-FILE [WORDS...]
// Appends one line to NOTE-FILE (a path relative to the working directory)
// holding the words it got, then lives for MILLISECONDS before it exits 0.
// The runner's tests use it to see that a program was written out, started
// with its arguments in the current directory, and can be polled and killed.
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  long milliseconds = std::strtol(argv[1], nullptr, 10);
  {
    std::ofstream note(argv[2], std::ios::app);
    note << "started";
    for (int i = 3; i < argc; ++i) note << ' ' << argv[i];
    note << '\n';
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  return 0;
}
