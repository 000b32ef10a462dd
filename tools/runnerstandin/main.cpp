// runnerstandin MILLISECONDS NOTE-FILE [WORDS...]
// Appends one line to NOTE-FILE (a path relative to the working directory)
// holding the words it got and prints it on standard output; with "-" as
// NOTE-FILE it writes no note but reads one line of its input and prints it
// after "answer ", like a formatter asking a question. Then it lives for
// MILLISECONDS before it exits 0.
// The runner's tests use it to see that a program was written out, started
// with its arguments in the current directory, and can be polled and killed.
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  long milliseconds = std::strtol(argv[1], nullptr, 10);
  std::string line = "started";
  for (int i = 3; i < argc; ++i) line += std::string(" ") + argv[i];
  bool ask = std::string(argv[2]) == "-";
  if (!ask) {
    std::ofstream note(argv[2], std::ios::app);
    note << line << '\n';
  }
  std::cout << line << std::endl;
  if (ask) {
    std::string answer;
    if (std::getline(std::cin, answer)) std::cout << "answer " << answer << std::endl;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  return 0;
}
