// Runs fuzz targets without libFuzzer: every file named on the command line,
// or found in a directory named there, goes through LLVMFuzzerTestOneInput
// once.  Used by CTest to replay the seed corpora in every build.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int runFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

int runPath(const std::string& path, int& count) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    std::fprintf(stderr, "no such file or directory: %s\n", path.c_str());
    return 1;
  }
  if (!S_ISDIR(st.st_mode)) {
    ++count;
    return runFile(path);
  }
  DIR* dir = opendir(path.c_str());
  if (!dir) return 1;
  int failures = 0;
  while (dirent* e = readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    failures += runPath(path + "/" + name, count);
  }
  closedir(dir);
  return failures;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = 0, count = 0;
  for (int i = 1; i < argc; ++i) failures += runPath(argv[i], count);
  std::printf("replayed %d inputs\n", count);
  // An empty corpus means the seeds went missing: that is a failure too.
  return failures == 0 && count > 0 ? 0 : 1;
}
