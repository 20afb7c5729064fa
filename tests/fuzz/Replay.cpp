// Runs each target over its folder of the corpus: what was found once is never found again.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Fuzz.h"

namespace {

std::string g_input;

void name_input() {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, g_input.data(), g_input.size());
}

}  // namespace

// There when the program was built with a sanitizer.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

int main(int argc, char** argv) {
  fuzz::require(argc == 2, "the corpus is named");
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(name_input);
  signal(SIGABRT, [](int) { name_input(); });
  for (const auto& folder : std::filesystem::directory_iterator(argv[1])) {
    const std::string name = folder.path().filename();
    const fuzz::Body target = fuzz::find_target(name);
    fuzz::require(target != nullptr, ("a target has the name of the folder " + name).c_str());
    size_t inputs = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      ++inputs;
      g_input = "while it replayed " + file.path().string() + "\n";
      std::ifstream stream(file.path(), std::ios::binary);
      // Not a string: the sanitizers see a read behind the end of an array that is just large enough.
      const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
      target({bytes.data(), bytes.size()});
    }
    fprintf(stderr, "%s: %zu inputs\n", name.c_str(), inputs);
    fuzz::require(inputs > 0, ("there are inputs for " + name).c_str());
  }
  return 0;
}
