// Child process of the storage crash test: opens the store in the folder
// given, then sets key "k<i>" to "v<i>" for i = first, first+1, ... through
// the storage API, printing "ack <i>" once each set has returned. Runs until
// it is killed.
//
// Usage: storage_crash_writer <data folder> <domain> <first index>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "api/safari_storage_api.h"
#include "platform/sqlite_user_defaults.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <data folder> <domain> <first index>\n", argv[0]);
    return 2;
  }
  auto store = appex::SqliteUserDefaults::open(argv[1], argv[2]);
  if (!store) {
    std::fprintf(stderr, "%s\n", store.error().c_str());
    return 1;
  }
  appex::SafariStorageAPI storage(*store, argv[2]);
  for (long i = std::atol(argv[3]);; ++i) {
    const std::string n = std::to_string(i);
    storage.set({{"k" + n, "v" + n}});
    std::printf("ack %ld\n", i);
    std::fflush(stdout);
  }
}
