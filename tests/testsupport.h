// Helpers shared by the tests: where things are, temporary folders, whole-file reads.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

// The real-world feed corpus beside the checkout; empty path when it isn't there.
std::filesystem::path CorpusDir();
// Every regular file of the corpus, sorted by name; empty when the corpus is absent.
std::vector<std::filesystem::path> CorpusFeeds();
// The checkout's root and the build folder the tests were built in.
std::filesystem::path SourceDir();
std::filesystem::path BuildDir();

std::string ReadWholeFile(const std::filesystem::path& APath);
void WriteWholeFile(const std::filesystem::path& APath, const std::string& AData);

// A fresh folder under the system's temporary folder, removed with everything in it at the
// end of the scope.
struct TTempDir {
  std::filesystem::path Path;
  TTempDir();
  ~TTempDir();
  TTempDir(const TTempDir&) = delete;
  TTempDir& operator=(const TTempDir&) = delete;
};
