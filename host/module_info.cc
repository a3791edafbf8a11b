// Prints the API and check tables of a module library: what a web API server
// would route to it.
#include <dlfcn.h>

#include <cstdio>

#include "kest/webapi_module.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s <module.so>\n", argv[0]);
    return 2;
  }
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    fprintf(stderr, "cannot load %s: %s\n", argv[1], dlerror());
    return 1;
  }
  auto get_table = reinterpret_cast<KEST::GetAPITableFunc>(dlsym(module, KEST::kGetAPITableSymbol));
  auto get_checks =
      reinterpret_cast<KEST::GetAPICheckTableFunc>(dlsym(module, KEST::kGetAPICheckTableSymbol));
  if (!get_table || !get_checks) {
    fprintf(stderr, "%s does not export %s and %s\n", argv[1], KEST::kGetAPITableSymbol,
            KEST::kGetAPICheckTableSymbol);
    return 1;
  }
  printf("Handlers of %s:\n", argv[1]);
  for (const KEST::APIHandlerRow* row = get_table(); row->api; ++row) {
    printf("  %-36s v%ld %s\n", row->api, static_cast<long>(row->version), row->method);
  }
  printf("Parameter checkers:\n");
  for (const KEST::APICheckRow* row = get_checks(); row->api; ++row) {
    printf("  %-36s v%ld %s\n", row->api, static_cast<long>(row->version), row->method);
  }
  dlclose(module);
  return 0;
}
