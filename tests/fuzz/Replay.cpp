// Runs each target over its folder of the corpus: what was found once is never found again.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
  fuzz::require(argc == 2, "the corpus is named");
  for (const auto& folder : std::filesystem::directory_iterator(argv[1])) {
    const fuzz::Body target = fuzz::find_target(folder.path().filename().string());
    fuzz::require(target != nullptr, ("a target has the name of " + folder.path().string()).c_str());
    size_t inputs = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
      ++inputs;
      fprintf(stderr, "%s\n", file.path().c_str());  // the last line names what crashed or hung
      std::ifstream stream(file.path(), std::ios::binary);
      // Not a string: the sanitizers see a read behind the end of an array that is just large enough.
      const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
      target({bytes.data(), bytes.size()});
    }
    fuzz::require(inputs > 0, ("there are inputs in " + folder.path().string()).c_str());
  }
  return 0;
}
