// Runs a fuzz target over kept inputs, outside libFuzzer: every file named
// on the command line, or inside a folder named there. Exits 1 if a folder
// is missing; an input that makes the target fail ends the program as it
// would end the fuzzer (an abort, a sanitizer's report).

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    fs::path p(argv[i]);
    if (fs::is_directory(p)) {
      for (const auto& entry : fs::directory_iterator(p))
        if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
          inputs.push_back(entry.path());
    } else if (fs::is_regular_file(p)) {
      inputs.push_back(p);
    } else {
      std::cerr << argv[i] << ": no such file or folder\n";
      return 1;
    }
  }
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::cout << p.string() << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
  }
  std::cout << inputs.size() << " inputs passed" << std::endl;
  return 0;
}
