#include "testsupport.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

fs::path CorpusDir() {
  fs::path Dir = TAMBLIN_CORPUS_DIR;
  std::error_code Ec;
  return fs::is_directory(Dir, Ec) ? Dir : fs::path();
}

std::vector<fs::path> CorpusFeeds() {
  std::vector<fs::path> Feeds;
  const fs::path Dir = CorpusDir();
  if (Dir.empty()) return Feeds;
  for (const auto& Entry : fs::directory_iterator(Dir)) {
    const auto Name = Entry.path().filename().string();
    if (Entry.is_regular_file() && Name != "SOURCES.md" && Name != "README.md") Feeds.push_back(Entry.path());
  }
  std::sort(Feeds.begin(), Feeds.end());
  return Feeds;
}

fs::path SourceDir() { return TAMBLIN_SOURCE_DIR; }

fs::path BuildDir() {
  if (const char* Env = std::getenv("TAMBLIN_BUILD_DIR")) return Env;
  return TAMBLIN_BUILD_DIR;
}

std::string ReadWholeFile(const fs::path& APath) {
  std::ifstream In(APath, std::ios::binary);
  if (!In) throw std::runtime_error("cannot read " + APath.string());
  return std::string(std::istreambuf_iterator<char>(In), std::istreambuf_iterator<char>());
}

void WriteWholeFile(const fs::path& APath, const std::string& AData) {
  std::ofstream Out(APath, std::ios::binary | std::ios::trunc);
  Out.write(AData.data(), static_cast<std::streamsize>(AData.size()));
  if (!Out) throw std::runtime_error("cannot write " + APath.string());
}

TTempDir::TTempDir() {
  std::string Template = (fs::temp_directory_path() / "tamblin-test-XXXXXX").string();
  if (!mkdtemp(Template.data())) throw std::runtime_error("mkdtemp failed");
  Path = Template;
}

TTempDir::~TTempDir() {
  std::error_code Ec;
  fs::remove_all(Path, Ec);
}
