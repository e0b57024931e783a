// Tamblin Reader: the main program flow of the RSS door.
#include <cstdio>

int main() {
  std::puts("Tamblin Reader is being built.");
  return 0;
}
